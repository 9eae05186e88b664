// The size limit and the hand-over of the reply to sendmail.
#pragma once

#include "autoresponder/mail_content.h"
#include "autoresponder/rules.h"

// Every failure ends the process through the message log with status 1.
void deliver_response(const Mail_content& mail, const Resp_rule& rule);
