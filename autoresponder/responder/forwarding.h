// Forwarding the incoming message unchanged to a rule's addresses.
#pragma once

#include <mysql.h>

#include <string>

#include "autoresponder/mail_content.h"
#include "autoresponder/run_seam.h"

// Best effort: failures are reported and the answer still goes out; only a
// failed resp_forward statement ends the run (correct_exit()).
// The forward goes to `sink`.
void forward_incoming(MYSQL* connection, const std::string& rule_id, const Mail_content& mail,
                      Mail_sink& sink = sendmail_sink());
