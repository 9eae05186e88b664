// The size limit and the hand-over of the reply to sendmail.
#pragma once

#include <cstdint>

#include "autoresponder/mail_content.h"
#include "autoresponder/responder/composition.h"
#include "autoresponder/responder/rules.h"
#include "autoresponder/run_seam.h"

// The mail system's size limit from its control file, read as strtol does;
// 0 or less (also for a missing or unreadable file) means no limit.
std::int32_t read_databytes_limit();

// Sends the reply in `file` (or, when it is larger than `databytes_limit`,
// the size notice in a new response file that replaces it) to `sink`, reports
// the size check to `observer`, then closes and removes the file. Every
// failure ends the process through the message log with status 1.
void deliver_response(const Mail_content& mail, const Resp_rule& rule, Response_file& file,
                      std::int32_t databytes_limit, Mail_sink& sink = sendmail_sink(),
                      Run_observer& observer = no_observer());
