// Hardening of the start: the standard descriptors, and on a privileged start
// everything of the process that the invoking user could have chosen.
#pragma once

// With `secure` (the kernel flagged the start as privileged: set-user-ID or
// set-group-ID, AT_SECURE): removes every environment variable but
// RESP_RECIPIENT (the database client library's among them), gives every
// child the fixed environment PATH=/usr/bin:/bin, sets the umask to 077 and
// the working directory to /, lifts the file-size limit (or ignores SIGXFSZ
// where it cannot), sets the core-file limit to 0, puts every signal back to
// its default disposition and unblocks all. Without `secure` nothing changes.
void harden_privileged_start(bool secure);

// Opens /dev/null on each of the descriptors 0, 1 and 2 that is closed, so
// that no file the run opens later (the stored message, a pipe to sendmail)
// can take a standard descriptor's number and receive the run's reports.
void open_standard_descriptors();
