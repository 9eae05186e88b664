// The responder routine: finds the mailbox, walks its rules and answers.
#pragma once

#include "autoresponder/mail_content.h"
#include "autoresponder/run_seam.h"

// Returns 0 when all rules have been processed; fatal conditions end the
// run by throwing Run_end (autoresponder/run_end.h).
// Mails go to seam.sink, decisions to seam.observer.
int db_mail_act(Mail_content* mail, const Run_seam& seam = {});
