// The sender-address reader: single mailboxes, Reply-To address lists with
// groups and unusable entries, From mailbox lists, and the bytes (CR, LF,
// NUL) that must never reach an address.
#include "autoresponder/address_list.h"

#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <string>

namespace {

using namespace std::string_literals;

struct Address_case {
  const char* name;
  std::string input;
  std::optional<std::string> expected;  // local part "@" domain, nullopt when unusable
};

// Test names and failure messages show the case name, not its bytes.
void PrintTo(const Address_case& value, std::ostream* out) {
  *out << value.name;
}

std::optional<std::string> joined(const std::optional<Mailbox_address>& mailbox) {
  if (!mailbox) return std::nullopt;
  return mailbox->local_part + "@" + mailbox->domain;
}

std::string case_name(const testing::TestParamInfo<Address_case>& info) {
  return info.param.name;
}

class MailboxTest : public testing::TestWithParam<Address_case> {};

TEST_P(MailboxTest, ReadsLocalPartAndDomain) {
  EXPECT_EQ(joined(ParseMailbox(GetParam().input)), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Mailboxes, MailboxTest,
    testing::Values(
        Address_case{"AddrSpec", "john@example.com", "john@example.com"},
        Address_case{"NameAddr", "John <j@x.y>", "j@x.y"},
        Address_case{"QuotedDisplayName", "\"Doe, John\" <john@example.com>", "john@example.com"},
        Address_case{"TrailingComment", "john@example.com (John Doe)", "john@example.com"},
        Address_case{"CommentInsideLocalPart", "john(the one)@example.com", "john@example.com"},
        Address_case{"BlanksAroundDots", "john . doe @ example . com", "john.doe@example.com"},
        Address_case{"QuotedLocalPartKeepsQuotes", "\"john doe\"@example.com",
                     "\"john doe\"@example.com"},
        Address_case{"QuotedLocalPartInAngles", "Doe <\"j d\"@x.y>", "\"j d\"@x.y"},
        Address_case{"DomainLiteralKeepsBrackets", "root@[192.0.2.1]", "root@[192.0.2.1]"},
        Address_case{"CaseKept", "John.Doe@Example.COM", "John.Doe@Example.COM"},
        Address_case{"PunycodeDomainKept", "a@xn--bcher-kva.example", "a@xn--bcher-kva.example"},
        Address_case{"EightBitKept", "J\xc3\xbcrgen <j\xc3\xbc@m\xc3\xbcller.de>",
                     "j\xc3\xbc@m\xc3\xbcller.de"},
        Address_case{"ObsoleteRoute", "<@relay1.example,@relay2.example:jdoe@acme.example>",
                     "jdoe@acme.example"},
        Address_case{"NoDomain", "john", "john@"}, Address_case{"EmptyDomain", "john@", "john@"},
        Address_case{"PhraseWithoutAnglesIsLocalPart", "John Smith", "JohnSmith@"},
        Address_case{"FoldedWithCrLf", "John\r\n <john@example.com>", "john@example.com"},
        Address_case{"TabsAreBlanks", "\tjohn@example.com\t", "john@example.com"},
        Address_case{"EmptyAngles", "<>", std::nullopt},
        Address_case{"NoLocalPart", "@example.com", std::nullopt},
        Address_case{"OnlyDisplayNameAndEmptyAngles", "John <>", std::nullopt},
        Address_case{"Empty", "", std::nullopt},
        Address_case{"OnlyComment", "(nobody)", std::nullopt},
        Address_case{"UnterminatedQuote", "\"john@example.com", std::nullopt},
        Address_case{"UnterminatedCommentAfterAddress", "john@example.com (oops",
                     "john@example.com"},
        Address_case{"NulInLocalPart", "jo\0hn@example.com"s, std::nullopt},
        Address_case{"NulInComment", "john@example.com (a\0b)"s, std::nullopt},
        Address_case{"NulInDisplayName", "J\0hn <john@example.com>"s, std::nullopt},
        Address_case{"LineBreakInQuotedLocalPart", "\"john\r\n doe\"@example.com", std::nullopt},
        Address_case{"LineFeedInDomainLiteral", "john@[192.0.2.1\n]", std::nullopt},
        Address_case{"LineBreakInCommentIsHarmless", "john@example.com (a\r\n b)",
                     "john@example.com"}),
    case_name);

class AddressListTest : public testing::TestWithParam<Address_case> {};

TEST_P(AddressListTest, TakesFirstUsableMailboxOutsideGroups) {
  EXPECT_EQ(joined(GetMailboxFromAddressList(GetParam().input)), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    ReplyTo, AddressListTest,
    testing::Values(
        Address_case{"Single", "support@example.com", "support@example.com"},
        Address_case{"FirstOfSeveral", "a@example.com, b@example.com", "a@example.com"},
        Address_case{"CommaInQuotedName", "\"Doe, John\" <john@example.com>, b@example.com",
                     "john@example.com"},
        Address_case{"CommaInComment", "(x, y) a@example.com", "a@example.com"},
        Address_case{"CommaInRoute", "<@r1.example,@r2.example:a@example.com>, b@example.com",
                     "a@example.com"},
        Address_case{"InvalidEntriesSkipped", "<>, @example.com, c@example.com", "c@example.com"},
        Address_case{"EmptyEntriesSkipped", " , ,, c@example.com", "c@example.com"},
        Address_case{"GroupOnly", "team: alice@example.com, bob@example.com;", std::nullopt},
        Address_case{"EmptyGroupThenMailbox", "undisclosed-recipients:;, d@example.com",
                     "d@example.com"},
        Address_case{"GroupMembersNotTaken", "team: alice@example.com; , e@example.com",
                     "e@example.com"},
        Address_case{"UnclosedGroupSwallowsRest", "team: alice@example.com, bob@example.com",
                     std::nullopt},
        Address_case{"NulMakesOnlyItsAddressUnusable", "a\0b@example.com, c@example.com"s,
                     "c@example.com"},
        Address_case{"FoldedList", "a@example.com,\r\n b@example.com", "a@example.com"},
        Address_case{"AllInvalid", "<>, @example.com", std::nullopt}),
    case_name);

class MailboxListTest : public testing::TestWithParam<Address_case> {};

TEST_P(MailboxListTest, TakesFirstValidMailbox) {
  EXPECT_EQ(joined(GetMailboxFromMailboxList(GetParam().input)), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    From, MailboxListTest,
    testing::Values(Address_case{"Single", "Anna Berg <anna@example.org>", "anna@example.org"},
                    Address_case{"SecondWhenFirstInvalid", "<>, b@example.com", "b@example.com"},
                    Address_case{"EncodedWordNameNotDecoded",
                                 "=?UTF-8?Q?J=C3=BCrgen?= <juergen@example.de>",
                                 "juergen@example.de"},
                    // A mailbox list knows no groups: the colon is passed over and the
                    // words before it join the local part.
                    Address_case{"GroupSyntaxIsNotAGroup", "team: a@example.com, b@example.com;",
                                 "teama@example.com"},
                    Address_case{"MailerDaemon",
                                 "Mail Delivery System <MAILER-DAEMON@mx.example.net>",
                                 "MAILER-DAEMON@mx.example.net"},
                    Address_case{"Nothing", "", std::nullopt}),
    case_name);

}  // namespace
