// The run's two temporary-file names: the stored message (made by the intake)
// and the response file (made anew for every reply). Writable buffers exactly
// as long as their template (lib/paths.h) plus the terminating NUL; mkstemp
// completes them in place. They hold either the template or the generated
// name, and the end of the run removes what they name.
#pragma once

#include <cstddef>

extern char mail_file_name[];
extern char resp_uu_file_name[];
extern const std::size_t kMailFileNameSize;
extern const std::size_t kRespUuFileNameSize;

// The stored message's descriptor, kept from its creation to the end of the
// run for the readers after the intake (forwarding, the robot guards), so
// that no one opens the file by its name again: a name in /tmp may by then
// be another file. Read it with pread, or lseek it before handing it to a
// child. -1 until the intake has made the file.
int stored_message_fd();
// Keeps a duplicate of `fd` (close-on-exec) as the stored message's.
void keep_stored_message_fd(int fd);
