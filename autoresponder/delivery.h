// The size limit and the hand-over of the reply to sendmail.
#pragma once

#include "autoresponder/mail_content.h"
#include "autoresponder/rules.h"
#include "autoresponder/run_seam.h"

// Hands the reply (or the notice replacing an oversized one) to `sink` and
// reports the size check to `observer`. Every failure is a fatal message of
// the message log (status 1).
void deliver_response(const Mail_content& mail, const Resp_rule& rule,
                      Mail_sink& sink = sendmail_sink(), Run_observer& observer = no_observer());
