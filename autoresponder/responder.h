// The responder routine: finds the mailbox, walks its rules and answers.
#pragma once

#include "autoresponder/mail_content.h"

// Returns 0 when all rules have been processed; fatal conditions end the
// process through correct_exit() or the message log.
int db_mail_act(Mail_content* mail);
