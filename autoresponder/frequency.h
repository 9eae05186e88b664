// The per-rule, per-sender daily answer limit kept in resp_freq.
#pragma once

#include <mysql.h>

#include <string>

#include "autoresponder/mail_content.h"
#include "autoresponder/run_seam.h"

// 1 when the answer may be sent (and has been counted), 0 when not. A failed
// statement ends the process through correct_exit(). Checks of one rule for
// one sender running at the same time are serialised by a named lock on the
// server (autoresponder/named_lock.h); without it they go on unserialised.
// The check's figures go to `observer`.
int can_response_freq(MYSQL* connection, Mail_content* mail, std::string id, std::string ans_freq,
                      std::string mem_limit, Run_observer& observer = no_observer());
