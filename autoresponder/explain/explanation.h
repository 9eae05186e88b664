// What one run would do and why, as the run's stages report it: the mail sink
// that records instead of sending and the observer that notes every decision.
#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "autoresponder/run_seam.h"

class Explanation final : public Mail_sink, public Run_observer {
 public:
  struct Mail {
    Outgoing kind = Outgoing::kReply;
    std::string rule_id;
    std::vector<std::string> argv;
    long long size = 0;
    std::string content;  // only when kept
  };
  struct Rule {
    Resp_rule rule;
    bool on = false;
    bool matches = false;
    std::optional<Answer_count> count;
    bool attachments_looked_up = false;
    std::vector<std::string> found_attachments;
    std::vector<std::string> missing_attachments;
    std::optional<long long> size, size_limit;
    bool replaced = false;
  };

  // `keep_content`: record every mail whole (--show).
  explicit Explanation(bool keep_content) : keep_content_(keep_content) {}

  bool send_file(Outgoing kind, const std::vector<std::string>& argv, int message) override;
  void send_text(Outgoing kind, const std::vector<std::string>& argv,
                 const std::string& text) override;

  void refused(const std::string& line) override { refusal_ = line; }
  void reply_fields(bool guards_on, const std::string& fields) override;
  void mailbox_found(const Mailbox_ref& mailbox, const char* route) override;
  void mailbox_not_found() override { mailbox_missing_ = true; }
  void rule_seen(const Resp_rule& rule, bool on, bool matches) override;
  void answer_counted(const Answer_count& count) override;
  void attachments_looked_up(const std::vector<std::string>& found,
                             const std::string& missing) override;
  void size_checked(long long size, long long limit, bool replaced) override;

  // Whether the run went as far as its decisions reach: refused, no mailbox,
  // or every rule walked. False when a stage ended it on a failure.
  bool complete() const { return refusal_ || mailbox_missing_ || rules_walked_; }
  void set_rules_walked() { rules_walked_ = true; }

  // The message as the intake read it.
  void set_message(std::string recipient, std::string from, std::string subject);

  void write_text(std::ostream& out) const;
  void write_json(std::ostream& out) const;

 private:
  Mail new_mail(Outgoing kind, const std::vector<std::string>& argv) const;

  bool keep_content_;
  std::string recipient_, from_, subject_;
  std::optional<std::string> refusal_;
  bool guards_on_ = false;
  std::string reply_fields_;
  std::optional<Mailbox_ref> mailbox_;
  std::string route_;
  bool mailbox_missing_ = false;
  bool rules_walked_ = false;
  std::vector<Rule> rules_;
  std::vector<Mail> mails_;
};
