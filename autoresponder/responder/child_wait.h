// Waiting for a sendmail child (forward, notice, reply) and reporting how it
// ended when that was not a clean exit.
#pragma once

#include <sys/types.h>

// Waits for `pid` with WUNTRACED, so a stopped child also ends the wait. A
// child that exited with a non-zero status, was killed or was stopped is
// reported as one line on standard error naming `what` (a noun: "reply",
// "forward", "notice"), e.g. "autoresponder: sendmail for the reply exited
// with status 1". Nothing else happens: the run goes on.
void wait_for_sendmail(pid_t pid, const char* what);
