// What the answer stages hand on and report, so that one run of stages serves
// both the program (mails to sendmail, nothing reported) and its explanation
// (mails recorded, every decision reported, nothing changed).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "autoresponder/responder/mailbox_resolution.h"
#include "autoresponder/responder/rules.h"

// The kinds of mail a run sends; the names are the nouns of wait_for_sendmail.
enum class Outgoing { kForward, kNotice, kReply };
const char* outgoing_name(Outgoing kind);

// Where the stages hand their mails.
class Mail_sink {
 public:
  virtual ~Mail_sink() = default;
  // A mail read from `message` (a descriptor at the mail's first byte, left
  // open for the caller); argv as sendmail's own, argv[0] the program. False
  // with errno set when nothing could be started; the caller reports that.
  virtual bool send_file(Outgoing kind, const std::vector<std::string>& argv, int message) = 0;
  // A mail made in memory (the notice); reports its own failures.
  virtual void send_text(Outgoing kind, const std::vector<std::string>& argv,
                         const std::string& text) = 0;
};

// The mail system's sendmail: one child per mail, each waited for.
Mail_sink& sendmail_sink();

// The daily answer limit of one rule for the run's sender, as checked.
struct Answer_count {
  std::string rule_id;
  long limit = 0;             // ans_freq as read; 0 or less never answers
  std::optional<long> today;  // the sender's answers today; nullopt: not remembered or not read
  long remembered = 0;        // senders the rule remembers today
  long memory = 0;            // mem_limit as read
  bool evicts = false;        // the oldest senders are forgotten to make room
  bool answers = false;
};

// The decisions of a run, in the order they are taken. Every call does
// nothing unless overridden.
class Run_observer {
 public:
  virtual ~Run_observer() = default;
  virtual void refused(const std::string& /*line*/) {}
  // The fields every reply gains (opt-in robot guards), possibly none.
  virtual void reply_fields(bool /*guards_on*/, const std::string& /*fields*/) {}
  // `route` names the lookup that found it: "own name", "mail alias",
  // "domain alias", "mail alias in a domain alias".
  virtual void mailbox_found(const Mailbox_ref& /*mailbox*/, const char* /*route*/) {}
  virtual void mailbox_not_found() {}
  virtual void rule_seen(const Resp_rule& /*rule*/, bool /*on*/, bool /*matches*/) {}
  virtual void answer_counted(const Answer_count& /*count*/) {}
  virtual void attachments_looked_up(const std::vector<std::string>& /*found*/,
                                     const std::string& /*missing*/) {}
  // The composed reply's size against the mail system's limit (0: none).
  virtual void size_checked(long long /*size*/, long long /*limit*/, bool /*replaced*/) {}
};

Run_observer& no_observer();

// What a run's stages are given beside the message.
struct Run_seam {
  Mail_sink* sink = &sendmail_sink();
  Run_observer* observer = &no_observer();
  // The responder's statements run inside one transaction that is rolled
  // back, so that nothing it writes stays.
  bool roll_back = false;
  // Fields written into every reply after its Subject (each line ending in
  // a line feed); empty by default.
  std::string reply_fields;
};
