// The per-rule chain after the frequency check: forward, attachments and
// notice, composition, delivery.
#pragma once

#include <mysql.h>

#include "autoresponder/mail_content.h"
#include "autoresponder/responder/mailbox_resolution.h"
#include "autoresponder/responder/rules.h"
#include "autoresponder/run_seam.h"

void answer_rule(MYSQL* connection, const Mail_content& mail, const Mailbox_ref& mailbox,
                 const char* esc_domain, const Resp_rule& rule, const Run_seam& seam = {});
