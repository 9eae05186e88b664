// Composes one reply with a single attachment and reports what it cost:
// wall time, peak resident memory and the size of the reply. Run by
// bench/compose_bench.sh, which compares the time with base64 -w 60 on the
// same file.
//
// Usage: compose_driver ATTACH_DIR FILE_NAME
// The reply goes to the build's response file under ROOT_PREFIX/tmp; its
// name is printed and the caller removes it, outside the timed run.
#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include "autoresponder/responder/composition.h"
#include "lib/paths.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s ATTACH_DIR FILE_NAME\n", argv[0]);
    return 2;
  }
  // The sandbox's tmp may not exist yet in a bench-only build.
  std::error_code ignored;
  std::filesystem::create_directories(std::string(orvik::paths::kRootPrefix) + "/tmp", ignored);

  Mail_content mail;
  mail.from = "sender@example.com";
  mail.to = "info@example.org";
  mail.subject = "Price list";
  Resp_rule rule;
  rule.text = "Please find the price list attached.";

  const auto start = std::chrono::steady_clock::now();
  compose_response(mail, rule, argv[1], {argv[2]}, makeBoundaryStr(), create_response_file());
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;

  struct stat reply;
  const long long reply_bytes = stat(resp_uu_file_name, &reply) == 0 ? reply.st_size : -1;
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  std::printf("seconds=%.3f peak_rss_kib=%ld reply_bytes=%lld reply=%s\n", elapsed.count(),
              usage.ru_maxrss, reply_bytes, resp_uu_file_name);
  return reply_bytes > 0 ? 0 : 1;
}
