// Intake of the incoming message from standard input.
#pragma once

#include "autoresponder/mail_content.h"
#include "autoresponder/run_files.h"

// Copies standard input to the temporary file named by mail_file_name, parses
// it and fills `mail`. Returns 0 when filled, 1 after reporting a failure on
// standard error.
int parse_message(Mail_content* mail);
