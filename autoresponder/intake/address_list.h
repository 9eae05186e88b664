// The reader of the Reply-To and From field bodies that chooses the address
// an answer goes to.
//
// Addresses are split at commas outside quoted strings, comments and angle
// brackets; in an address list (Reply-To) a group ("name: a@b, c@d;") is one
// address and is never taken. A mailbox is valid when its local part is not
// empty (the domain may be). Local part and domain are their tokens
// concatenated without blanks: quoted strings keep their quotes, domain
// literals their brackets, comments are dropped, letter case and 8-bit bytes
// stay as written; no encoded-word, IDN or case conversion.
//
// A CR, LF or NUL never reaches a result: a mailbox whose text holds a NUL
// anywhere, or whose local part or domain would hold a CR or LF (from a
// quoted string or domain literal), is not valid. Outside those tokens CR and
// LF are white space, so folded field bodies read as unfolded ones.
#pragma once

#include <optional>
#include <string>
#include <string_view>

struct Mailbox_address {
  std::string local_part;
  std::string domain;

  bool operator==(const Mailbox_address&) const = default;
};

// One mailbox ("John <j@x.y>", "j@x.y (John)", "<@route:j@x.y>"), or nullopt
// when it is not valid.
std::optional<Mailbox_address> ParseMailbox(std::string_view text);

// Reply-To: the first address of the list that is valid, not a group and a
// mailbox; members of groups are not considered. `cut`: the text is only the
// beginning of the field body, so its last address (the one not ended by a
// comma) may be incomplete and is not taken.
std::optional<Mailbox_address> GetMailboxFromAddressList(std::string_view field_body,
                                                         bool cut = false);

// From: the first valid mailbox of the list. A mailbox list has no groups, so
// a colon has no meaning here. `cut` as above.
std::optional<Mailbox_address> GetMailboxFromMailboxList(std::string_view field_body,
                                                         bool cut = false);
