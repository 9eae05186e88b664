// Fuzz target: the header block reader of the stored message
// (ReadHeaderBlock through Stored_message_reader), as a message's block and
// as a part's block that a boundary line may end.
//
// Each input is read from an anonymous file. Beyond the sanitizers, checks
// what the reader promises: every kept field body is at most
// kMaxKeptFieldBody bytes and holds no NUL, and the content starts within
// the file. Run with a small memory limit (-rss_limit_mb=64).
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "autoresponder/intake/stored_message.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using ovk_fuzz::check;

void check_field(const std::optional<std::string>& field) {
  if (!field) return;
  check(field->size() <= kMaxKeptFieldBody, "a kept field body is longer than its limit");
  check(field->find('\0') == std::string::npos, "a kept field body holds a NUL");
}

void check_block(const Entity_headers& headers, std::size_t size) {
  for (const auto* field : {&headers.content_type, &headers.transfer_encoding, &headers.reply_to,
                            &headers.from, &headers.subject, &headers.date}) {
    check_field(*field);
  }
  check(!headers.content_start || (*headers.content_start >= 0 &&
                                   static_cast<std::size_t>(*headers.content_start) <= size),
        "the content starts outside the file");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const ovk_fuzz::MemFile input(data, size);
  Stored_message_reader message(input.fd());
  check_block(ReadHeaderBlock(message, Header_block_kind::kMessage), size);
  check(message.offset() >= 0 && static_cast<std::size_t>(message.offset()) <= size,
        "the reader left the file");
  Stored_message_reader part(input.fd());
  check_block(ReadHeaderBlock(part, Header_block_kind::kPart, "--B"), size);
  return 0;
}
