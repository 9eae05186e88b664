// The facts of the incoming message, filled once by the intake and read-only
// afterwards.
#pragma once

#include <string>

#include "autoresponder/intake/body_text.h"

struct Mail_content {
  std::string from;         // sender mailbox (Reply-To before From): local part "@" domain
  std::string to;           // RESP_RECIPIENT, unchanged
  std::string to_mailname;  // `to` before its first "@" (all of it without "@")
  std::string to_domain;    // `to` after its first "@" (all of it without "@")
  std::string subject;      // Subject with encoded words decoded to UTF-8
  std::string date;         // Date header text, unchanged
  std::string charset;      // the body's declared charset, "US-ASCII" by default
  Body_text body;           // lines of the text body in UTF-8, read from its file on demand
};
