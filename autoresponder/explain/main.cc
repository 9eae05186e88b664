// autoresponder-explain RECIPIENT [--show] [--json] < message
//
// Runs the autoresponder's whole run for the message as the mail system would
// start it for RECIPIENT, against the live panel database and configuration,
// and prints what the run would do and why. It changes nothing: mails go to a
// recorder instead of sendmail, the responder's statements run inside one
// transaction that is rolled back (so resp_freq must be a transactional
// table, which is checked first), and the temporary files are removed.
//
// Exit status: 0 when the explanation is complete; 1 when a stage ended the
// run on a failure (its line is on standard error); 2 when the run could not
// start (usage, configuration, database), with one line on standard error.
#include <sys/auxv.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <new>
#include <string>

#include "autoresponder/explain/explanation.h"
#include "autoresponder/run.h"
#include "autoresponder/run_end.h"
#include "autoresponder/secure_environment.h"
#include "lib/autoprepend.h"
#include "lib/dbconnect.h"
#include "lib/mysql_handle.h"
#include "lib/paths.h"
#include "lib/put.h"

namespace {

constexpr char kUsage[] = "usage: autoresponder-explain [--show] [--json] RECIPIENT < message";

int cannot_tell(const std::string& reason) {
  std::cerr << "autoresponder-explain: " << reason << std::endl;
  return 2;
}

// Why a rolled-back run could still leave a change, or nullopt: no database,
// or a resp_freq whose engine ignores transactions.
std::optional<std::string> database_refusal() {
  char reason[512] = "";
  MysqlConnection connection(db_connect_nothrow(reason, sizeof reason));
  if (!connection) return std::string("cannot connect to the panel database: ") + reason;
  const char statement[] =
      "select ENGINE from information_schema.TABLES where TABLE_SCHEMA=DATABASE() and "
      "TABLE_NAME='resp_freq'";
  if (mysql_real_query(connection.get(), statement, sizeof statement - 1) != 0) {
    return std::string("cannot read the engine of resp_freq: ") + mysql_error(connection.get());
  }
  MysqlResult result(mysql_store_result(connection.get()));
  MYSQL_ROW row = result ? mysql_fetch_row(result.get()) : nullptr;
  const std::string engine = row != nullptr && row[0] != nullptr ? row[0] : "";
  if (engine != "InnoDB") {
    return "resp_freq is not transactional (engine '" + engine +
           "'): the daily limit cannot be checked without writing";
  }
  return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
  PROGNAME = argv[0];
  open_standard_descriptors();
  harden_privileged_start(getauxval(AT_SECURE) != 0);
  if (db_library_init() != 0) return cannot_tell("cannot initialise the database client library");

  bool show = false;
  bool json = false;
  const char* recipient = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--show") == 0) {
      show = true;
    } else if (std::strcmp(argv[i], "--json") == 0) {
      json = true;
    } else if (argv[i][0] == '-' || recipient != nullptr) {
      return cannot_tell(kUsage);
    } else {
      recipient = argv[i];
    }
  }
  if (recipient == nullptr) return cannot_tell(kUsage);
  if (autoprepend() != 0) {
    return cannot_tell(std::string("cannot read the panel configuration ") +
                       orvik::paths::kPanelConfigFile);
  }
  if (const auto refusal = database_refusal()) return cannot_tell(*refusal);
  setenv("RESP_RECIPIENT", recipient, 1);
  unwind_fatal_messages();

  Explanation explanation(show);
  Run_seam seam{&explanation, &explanation, true, {}};
  Mail_content mail;
  bool read = true;
  try {
    const Run_outcome outcome = take_in_and_answer(mail, seam);
    read = outcome != Run_outcome::kUnreadable;
    if (outcome == Run_outcome::kAnswered) explanation.set_rules_walked();
  } catch (const Run_end&) {
    // The stage has said why on standard error; the explanation shows how far
    // the run got.
  } catch (const std::bad_alloc&) {
    std::cerr << "autoresponder-explain: out of memory" << std::endl;
  } catch (const std::exception& failure) {
    std::cerr << "autoresponder-explain: " << failure.what() << std::endl;
  }
  remove_temporary_files();
  if (!read) return cannot_tell("cannot read the message");

  explanation.set_message(recipient, mail.from, mail.subject);
  if (json) {
    explanation.write_json(std::cout);
  } else {
    explanation.write_text(std::cout);
  }
  std::cout.flush();
  return explanation.complete() ? 0 : 1;
}
