// Hardening of a privileged start: the environment variables through which
// the invoking user could redirect the database client library.
#pragma once

// With `secure` (the kernel flagged the start as privileged: set-user-ID or
// set-group-ID, AT_SECURE), removes every variable that would let the
// invoking user point the MySQL client library at another server, socket,
// password, option file or plugin. RESP_RECIPIENT and everything else stay.
// Without `secure` the environment is left as it is.
void drop_privileged_environment(bool secure);
