// The per-rule chain after the frequency check.
#include "autoresponder/answer.h"

void answer_rule(MYSQL*, const Mail_content&, const Mailbox_ref&, const char*, const Resp_rule&) {}
