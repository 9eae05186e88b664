// Hardening of the start: the standard descriptors, and the environment
// variables through which the invoking user of a privileged start could
// redirect the database client library.
#pragma once

// With `secure` (the kernel flagged the start as privileged: set-user-ID or
// set-group-ID, AT_SECURE), removes every variable that would let the
// invoking user point the MySQL client library at another server, socket,
// password, option file or plugin. RESP_RECIPIENT and everything else stay.
// Without `secure` the environment is left as it is.
void drop_privileged_environment(bool secure);

// Opens /dev/null on each of the descriptors 0, 1 and 2 that is closed, so
// that no file the run opens later (the stored message, a pipe to sendmail)
// can take a standard descriptor's number and receive the run's reports.
void open_standard_descriptors();
