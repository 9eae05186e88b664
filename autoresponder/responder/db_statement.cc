// Statements of the responder stages whose failure ends the run.
//
// Owns each result it fetches until it hands it to the caller (MysqlResult)
// or has read the one value it needs. Fails by ending the process through
// ending the run (Run_end) after one report line; a null mysql_store_result counts as a
// failed statement, since these stages always expect a result set.
#include "autoresponder/responder/db_statement.h"

#include <iostream>

#include "autoresponder/run_end.h"

void fail_with_mysql_error(MYSQL* connection, const char* report) {
  std::cerr << report << mysql_error(connection) << std::endl;
  end_run();
}

void exec_or_exit(MYSQL* connection, const std::string& statement, const char* report) {
  if (mysql_real_query(connection, statement.data(), statement.size()) != 0) {
    fail_with_mysql_error(connection, report);
  }
}

MysqlResult select_or_exit(MYSQL* connection, const std::string& statement, const char* report) {
  exec_or_exit(connection, statement, report);
  MysqlResult result(mysql_store_result(connection));
  if (!result) fail_with_mysql_error(connection, report);
  return result;
}

std::optional<std::string> first_value_or_exit(MYSQL* connection, const std::string& statement,
                                               const char* report, const char* null_text) {
  MysqlResult result = select_or_exit(connection, statement, report);
  MYSQL_ROW row = mysql_fetch_row(result.get());
  if (row == nullptr) return std::nullopt;
  return std::string(row[0] != nullptr ? row[0] : null_text);
}
