// The run's two temporary-file names, initialised from the templates of
// lib/paths.h, so that the build's ROOT_PREFIX relocates them as it does
// every other path.
#include "autoresponder/run_files.h"

#include <fcntl.h>

#include "lib/paths.h"
#include "lib/unique_fd.h"

#ifndef ROOT_PREFIX
#error "ROOT_PREFIX must be defined by the build"
#endif

char mail_file_name[] = OVK_MAIL_TEMPLATE;
char resp_uu_file_name[] = OVK_RESPONSE_TEMPLATE;
const std::size_t kMailFileNameSize = sizeof(mail_file_name);
const std::size_t kRespUuFileNameSize = sizeof(resp_uu_file_name);

namespace {

Unique_fd& stored_message() {
  static Unique_fd descriptor;
  return descriptor;
}

}  // namespace

int stored_message_fd() {
  return stored_message().get();
}

void keep_stored_message_fd(int fd) {
  stored_message() = Unique_fd(fcntl(fd, F_DUPFD_CLOEXEC, 0));
}
