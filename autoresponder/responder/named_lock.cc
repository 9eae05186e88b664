// Server-side named locks on the run's connection.
//
// Owns the lock from a successful GET_LOCK to the destructor, and each lock
// statement's result while it is read. Fails softly: a lock that cannot be
// had leaves held() false, and a release that fails is reported as one line
// (the server drops the lock with the connection at the end of the run).
#include "autoresponder/responder/named_lock.h"

#include <cstdint>
#include <cstdio>
#include <iostream>

#include "lib/mysql_handle.h"

namespace {

// FNV-1a, 64 bits: stable across processes and builds, unlike std::hash.
std::uint64_t fnv1a64(const std::string& text) {
  std::uint64_t hash = 0xcbf29ce484222325ULL;
  for (unsigned char byte : text) {
    hash ^= byte;
    hash *= 0x100000001b3ULL;
  }
  return hash;
}

std::string hex64(std::uint64_t value) {
  char digits[17];
  std::snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(value));
  return digits;
}

bool is_short_number(const std::string& text) {
  if (text.empty() || text.size() > 20) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

// Sends a one-value select; true when it ran and gave the value 1.
bool select_gives_one(MYSQL* connection, const std::string& statement) {
  if (mysql_real_query(connection, statement.data(), statement.size()) != 0) return false;
  MysqlResult result(mysql_store_result(connection));
  if (!result) return false;
  MYSQL_ROW row = mysql_fetch_row(result.get());
  return row != nullptr && row[0] != nullptr && std::string(row[0]) == "1";
}

}  // namespace

std::string answer_count_lock_name(const std::string& rule_id, const std::string& sender) {
  const std::string rule_part = is_short_number(rule_id) ? rule_id : hex64(fnv1a64(rule_id));
  return "ovk-resp-freq:" + rule_part + ":" + hex64(fnv1a64(sender));
}

Named_lock::Named_lock(MYSQL* connection, std::string name, int timeout_seconds)
    : connection_(connection), release_statement_("SELECT RELEASE_LOCK('" + name + "')") {
  held_ = select_gives_one(
      connection_, "SELECT GET_LOCK('" + name + "', " + std::to_string(timeout_seconds) + ")");
}

Named_lock::~Named_lock() {
  if (!held_) return;
  if (mysql_real_query(connection_, release_statement_.data(), release_statement_.size()) != 0) {
    std::cerr << "autoresponder: Unable to release a lock: " << mysql_error(connection_)
              << std::endl;
    return;
  }
  // Read and dropped, to keep the connection in step for the next statement.
  MysqlResult result(mysql_store_result(connection_));
}
