// The responder's reports of failures: the line for a failed system call, and
// the end of the run for the failures that a reply's composition and delivery
// cannot go on from.
#pragma once

#include <string_view>

// One line on standard error for a failed system call: `what` (which carries
// its own "autoresponder: " and ": "), the system's words for `error`, and
// the number in parentheses.
void report_system_error(std::string_view what, int error);

// Ends the run through the message log (status 1, temporary files left) for
// the exception being handled: an IDN conversion error, exhausted memory and,
// when `sending`, any other std::runtime_error (a reply that could not be
// handed to sendmail). Any other exception passes on unchanged. Call only
// from a catch (...) handler.
void end_run_for_reply_failure(bool sending);
