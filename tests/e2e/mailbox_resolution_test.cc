// The recipient address to its mailbox, on the real server: by own name, mail
// alias, domain alias that serves mail, and alias in a domain alias, in that
// order, sending only the lookups up to the deciding one; unknown recipients
// end the run with the exact line; hostile addresses cannot break the
// statements; the attachment repository is the mailbox's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "lib/base64.h"
#include "tests/e2e/panel_rows.h"
#include "tests/harness/harness.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

const std::string kSender = "alice@sender.example";

// example.com holds "info" (rule 100) with the mail alias "sales" and the
// mailbox "o'neil\x" (rule 300); example.org is an alias of it that serves
// mail, example.net and example.info are aliases that do not. other.net has
// its own "info" (rule 200), bücher.example one more (rule 400).
class MailboxResolution : public e2e::EndToEndTest {
 protected:
  void SetUp() override {
    EndToEndTest::SetUp();
    panel::add_domain(1, "example.com");
    panel::add_domain(2, "other.net");
    panel::add_domain(3, "bücher.example");
    panel::add_mailbox(10, 1, "info");
    panel::add_mailbox(20, 2, "info");
    panel::add_mailbox(30, 1, "o'neil\\x");
    panel::add_mailbox(40, 3, "info");
    panel::add_mail_alias(10, "sales");
    panel::add_domain_alias(1, "example.org", "true");
    panel::add_domain_alias(1, "example.net", "false");
    panel::add_domain_alias(1, "example.info", std::nullopt);
    panel::add_rule(100, 10, {});
    panel::add_rule(200, 20, {});
    panel::add_rule(300, 30, {});
    panel::add_rule(400, 40, {});
  }

  static e2e::RunResult run_to(const std::string& recipient) {
    return e2e::run_autoresponder(panel::message(kSender, recipient, "Hello", "Hi there.\n"),
                                  recipient);
  }
};

struct ResolutionCase {
  const char* name;
  std::string local_part;
  std::string domain;
  const char* rule;  // the rule of the resolved mailbox; null: not found
  std::size_t lookups;
  friend void PrintTo(const ResolutionCase& c, std::ostream* os) { *os << c.name; }
};

class Resolution : public MailboxResolution,
                   public ::testing::WithParamInterface<ResolutionCase> {};

TEST_P(Resolution, FindsTheMailboxWithTheFewestLookups) {
  const ResolutionCase& c = GetParam();
  const e2e::RunResult run = run_to(c.local_part + "@" + c.domain);

  EXPECT_EQ(run.exit_status, 0);
  EXPECT_EQ(panel::statements_starting("select m.id, m.mail_name, d.name from ").size(), c.lookups);
  if (c.rule != nullptr) {
    EXPECT_THAT(panel::rules_checked(), ElementsAre(c.rule));
    EXPECT_THAT(run.err, Not(HasSubstr("Mailname not found")));
  } else {
    EXPECT_EQ(run.err,
              "autoresponder: Mailname not found: " + c.local_part + "@" + c.domain + "\n");
    EXPECT_THAT(panel::statements_starting("select id, keystr"), IsEmpty());
    EXPECT_EQ(panel::sendmail_count(), 0);
  }
  EXPECT_THAT(e2e::Sandbox::tmp_files(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    , Resolution,
    ::testing::Values(
        ResolutionCase{"OwnName", "info", "example.com", "100", 1},
        ResolutionCase{"SameNameInAnotherDomain", "info", "other.net", "200", 1},
        ResolutionCase{"MailAlias", "sales", "example.com", "100", 2},
        ResolutionCase{"DomainAliasServingMail", "info", "example.org", "100", 3},
        ResolutionCase{"MailAliasInDomainAlias", "sales", "example.org", "100", 4},
        ResolutionCase{"DomainAliasNotServingMail", "info", "example.net", nullptr, 4},
        ResolutionCase{"DomainAliasWithNullMail", "info", "example.info", nullptr, 4},
        ResolutionCase{"UnknownName", "nobody", "example.com", nullptr, 4},
        ResolutionCase{"UnknownDomain", "info", "example.edu", nullptr, 4},
        ResolutionCase{"AliasOfAnotherDomain", "sales", "other.net", nullptr, 4},
        ResolutionCase{"QuoteAndBackslashInName", "o'neil\\x", "example.com", "300", 1},
        ResolutionCase{"QuoteCannotInject", "x' or '1'='1", "example.com", nullptr, 4},
        ResolutionCase{"BackslashCannotUnquote", "info\\", "example.com' or 'a'='a", nullptr, 4},
        ResolutionCase{"DoubleQuoteAndControlBytes", "in\"fo\x1a", "example.com", nullptr, 4},
        ResolutionCase{"NonAsciiDomainAsReceived", "info", "bücher.example", "400", 1},
        ResolutionCase{"NoIdnConversion", "info", "xn--bcher-kva.example", nullptr, 4}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(MailboxResolution, SendsTheFourLookupsVerbatimWithTheEscapedHalves) {
  const e2e::RunResult run = run_to("it's@exa\\mple.org");
  EXPECT_EQ(run.err, "autoresponder: Mailname not found: it's@exa\\mple.org\n");
  EXPECT_THAT(
      panel::statements_starting("select m.id"),
      ElementsAre(
          "select m.id, m.mail_name, d.name from mail m, domains d where m.dom_id=d.id and "
          "d.name='exa\\\\mple.org' and m.mail_name='it\\'s'",
          "select m.id, m.mail_name, d.name from mail m, mail_aliases ma, domains d where "
          "m.id=ma.mn_id and m.dom_id=d.id and d.name='exa\\\\mple.org' and ma.alias='it\\'s'",
          "select m.id, m.mail_name, d.name from mail m, domains d, domainaliases da where "
          "m.dom_id=d.id and d.id=da.dom_id and da.name='exa\\\\mple.org' and "
          "m.mail_name='it\\'s' and da.mail='true'",
          "select m.id, m.mail_name, d.name from mail m, mail_aliases ma, domains d, "
          "domainaliases da where m.id=ma.mn_id and m.dom_id=d.id and d.id=da.dom_id and "
          "da.name='exa\\\\mple.org' and ma.alias='it\\'s' and da.mail='true'"));
}

TEST_F(MailboxResolution, TheRulesAreThoseOfTheAliasedMailbox) {
  run_to("sales@example.org");
  EXPECT_THAT(
      panel::statements_starting("select id, keystr"),
      ElementsAre("select id, keystr, key_where, text, resp_on, ans_freq, mem_limit, "
                  "subject, reply_to, charset, content_type from mail_resp where mn_id=10"));
}

TEST_F(MailboxResolution, ALookupThatFailsEndsTheRun) {
  e2e::RunResult run;
  {
    const panel::Table_away away("mail_aliases");
    run = run_to("sales@example.com");
  }

  EXPECT_EQ(run.exit_status, 0);
  EXPECT_EQ(run.err, "autoresponder: Unable to query: Table 'ovk.mail_aliases' doesn't exist\n");
  EXPECT_THAT(panel::statements_starting("select id, keystr"), IsEmpty());
  EXPECT_THAT(e2e::Sandbox::tmp_files(), IsEmpty());
}

// The repository is observable only through the answer: a file found there
// travels base64-encoded in the reply, a missing one is named in the notice
// to the domain's owner.
class AttachmentRepository : public MailboxResolution {
 protected:
  void SetUp() override {
    MailboxResolution::SetUp();
    e2e::TestDb::exec(
        "INSERT INTO clients (id, email, pname, login) VALUES "
        "(5, 'owner@example.com', 'Owner', 'owner')");
    e2e::TestDb::exec("UPDATE domains SET cl_id=5");
    e2e::TestDb::exec("INSERT INTO resp_attach (rn_id, filename) VALUES (100, 'price.txt')");
  }

  // Whether some sendmail call carried the file's contents.
  static bool file_was_sent(const std::string& content) {
    std::string encoded(4 * ((content.size() + 2) / 3) + 1, '\0');
    encoded.resize(base64Encode(content.data(), content.size(), encoded.data()));
    for (const e2e::SendmailCall& call : e2e::Sandbox::sendmail_calls()) {
      if (call.input.find(encoded) != std::string::npos) return true;
    }
    return false;
  }

  static void skip_without_answers() {
    if (e2e::Sandbox::sendmail_calls().empty()) {
      GTEST_SKIP() << "the answer chain sends nothing yet; the repository is not observable";
    }
  }
};

TEST_F(AttachmentRepository, ReachedThroughAnAliasIsTheMailboxsOwn) {
  const std::string content = "Prices of the season.\n";
  e2e::Sandbox::write_attachment("example.com", "info", "price.txt", content);
  e2e::Sandbox::write_attachment("example.org", "sales", "price.txt", "wrong repository\n");

  run_to("sales@example.org");
  skip_without_answers();
  EXPECT_TRUE(file_was_sent(content));
}

TEST_F(AttachmentRepository, FollowsTheConfiguredMailboxRoot) {
  const std::string content = "Configured root.\n";
  e2e::Sandbox::write_file("etc/ovk/ovk.conf",
                           "ORVIK_MAILNAMES_D " + e2e::Sandbox::path("srv/boxes") + "\n");
  e2e::Sandbox::write_file("srv/boxes/example.com/info/@attachments/price.txt", content);
  e2e::Sandbox::write_attachment("example.com", "info", "price.txt", "default root\n");

  run_to("info@example.com");
  skip_without_answers();
  EXPECT_TRUE(file_was_sent(content));
  EXPECT_FALSE(file_was_sent("default root\n"));
}

TEST_F(AttachmentRepository, DefaultsToTheCompiledMailboxRootWhenNotConfigured) {
  const std::string content = "Default root.\n";
  e2e::Sandbox::write_file("etc/ovk/ovk.conf", "# no mailbox root here\n");
  e2e::Sandbox::write_attachment("example.com", "info", "price.txt", content);

  run_to("info@example.com");
  skip_without_answers();
  EXPECT_TRUE(file_was_sent(content));
}

}  // namespace
