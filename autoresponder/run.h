// The program's run: entry, loop guards and clean-up.
#pragma once

#include "autoresponder/mail_content.h"
#include "autoresponder/run_seam.h"

// Removes the two temporary files named in mail_file_name and
// resp_uu_file_name (autoresponder/run_files.h) and ends the process with status 0.
[[noreturn]] void correct_exit();
// The removal alone, for a run that does not end the process.
void remove_temporary_files();

enum class Run_outcome { kUnreadable, kRefused, kAnswered };

// Intake, loop guards (and the opt-in robot guards, which also fill
// seam.reply_fields), then the responder with `seam`. A stage that ends the
// run throws Run_end (autoresponder/run_end.h) through here.
Run_outcome take_in_and_answer(Mail_content& mail, Run_seam& seam);

// The whole run as the mail system starts it; never returns.
[[noreturn]] void run_autoresponder(int argc, char** argv);

// Loop guards: the line to report when the message must not be answered, or
// null when it may be.
const char* loop_guard_refusal(const Mail_content& mail);
