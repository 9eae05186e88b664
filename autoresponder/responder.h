// The responder routine: finds the mailbox, walks its rules and answers.
#pragma once

#include "autoresponder/mail_content.h"

// Returns 0 when all rules have been processed; fatal conditions end the
// run by throwing Run_end (autoresponder/run_end.h).
int db_mail_act(Mail_content* mail);
