// The opt-in guards against answering robots (mailing lists, bulk mail,
// other responders, bounces) and the fields that mark the reply as automatic.
// Off unless the panel configuration sets kRobotGuardsVariable to "true".
#pragma once

#include <optional>
#include <string>

#include "autoresponder/intake/stored_message.h"
#include "autoresponder/mail_content.h"

inline constexpr char kRobotGuardsVariable[] = "AUTORESPONDER_RFC3834";

// A Message-ID longer than this many bytes (angle brackets included) is not
// repeated in the reply: a header line must stay within 998 bytes.
inline constexpr std::size_t kMessageIdMax = 900;

// Whether the panel configuration switches the guards on: the value "true",
// "yes" or "on", in any case.
bool robot_guards_on();

// The header fields the guards read, from the stored message's descriptor
// (read with pread); nullopt without one.
std::optional<Entity_headers> robot_fields(int stored_message);

// The line to report when the message must not be answered, or nullopt.
std::optional<std::string> robot_refusal(const Mail_content& mail, const Entity_headers& fields);

// "Auto-Submitted: auto-replied\n", then In-Reply-To and References naming
// the message's Message-ID when it has a usable one.
std::string auto_reply_fields(const Entity_headers& fields);
