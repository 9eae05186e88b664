// Fuzz target: the reader of the Reply-To and From field bodies
// (ParseMailbox, GetMailboxFromAddressList, GetMailboxFromMailboxList), whole
// and as the cut beginning of a longer field.
//
// Beyond the sanitizers, checks what the readers promise: a mailbox has a
// local part and no CR, LF or NUL; a cut text yields no mailbox the whole
// text would not (only its last address is passed over). Run with a small
// memory limit (-rss_limit_mb=64): the reader holds no tokens.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "autoresponder/intake/address_list.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using ovk_fuzz::check;

void check_mailbox(const std::optional<Mailbox_address>& mailbox) {
  if (!mailbox) return;
  check(!mailbox->local_part.empty(), "a mailbox without a local part");
  for (const std::string& part : {mailbox->local_part, mailbox->domain}) {
    check(part.find_first_of(std::string_view("\r\n\0", 3)) == std::string::npos,
          "a mailbox holds CR, LF or NUL");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  check_mailbox(ParseMailbox(text));
  for (const bool groups : {true, false}) {
    const auto read = [&](bool cut) {
      return groups ? GetMailboxFromAddressList(text, cut) : GetMailboxFromMailboxList(text, cut);
    };
    const std::optional<Mailbox_address> whole = read(false);
    const std::optional<Mailbox_address> cut = read(true);
    check_mailbox(whole);
    check(!cut || cut == whole, "a cut text yields a mailbox the whole text does not");
  }
  return 0;
}
