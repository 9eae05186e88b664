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
