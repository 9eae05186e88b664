// The responder routine (stub until the rule stages land).
#include "autoresponder/responder.h"

int db_mail_act(Mail_content*) { return 0; }
