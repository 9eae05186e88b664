// Statements of the responder stages on the run's one connection, for the
// stages whose failure ends the run: a statement that does not execute, or a
// select whose result cannot be fetched whole, is reported as one line (the
// stage's report followed directly by mysql_error) and the run ends
// (autoresponder/run_end.h).
#pragma once

#include <mysql.h>

#include <optional>
#include <string>

#include "lib/mysql_handle.h"

// The report of the rule, frequency and forwarding stages (no blank after the colon).
inline constexpr char kExecQueryFailed[] = "autoresponder: Unable to exec query :";
// The report of the mailbox lookups (a blank after the colon).
inline constexpr char kQueryFailed[] = "autoresponder: Unable to query: ";

// Writes `report` + mysql_error(connection) on standard error, then ends the run.
[[noreturn]] void fail_with_mysql_error(MYSQL* connection, const char* report);

// Sends a statement that returns no rows.
void exec_or_exit(MYSQL* connection, const std::string& statement, const char* report);

// Sends a select and fetches its whole result; never returns null.
MysqlResult select_or_exit(MYSQL* connection, const std::string& statement, const char* report);

// Column 0 of the first row of a select: nullopt when there is no row,
// `null_text` when the column is NULL.
std::optional<std::string> first_value_or_exit(MYSQL* connection, const std::string& statement,
                                               const char* report, const char* null_text);
