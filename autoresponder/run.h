// The program's run: entry, loop guards and clean-up.
#pragma once

#include "autoresponder/mail_content.h"

// Removes the two temporary files named in mail_file_name and
// resp_uu_file_name (lib/paths.h) and ends the process with status 0.
[[noreturn]] void correct_exit();

// The whole run as the mail system starts it; never returns.
[[noreturn]] void run_autoresponder(int argc, char** argv);

// Loop guards: the line to report when the message must not be answered, or
// null when it may be.
const char* loop_guard_refusal(const Mail_content& mail);
