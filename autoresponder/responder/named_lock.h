// Serialisation of the answer count: a server-side named lock (GET_LOCK) held
// on the run's connection for one scope. Named locks work whatever storage
// engine the table uses, and the server drops them when the connection
// closes, so a run that ends abruptly never leaves one behind.
#pragma once

#include <mysql.h>

#include <string>

// Seconds a run waits for another run that holds the same lock.
inline constexpr int kAnswerCountLockTimeout = 5;

// The lock of one rule's count for one sender: "ovk-resp-freq:" + the rule id
// + ":" + 16 hex digits of a hash of the sender address. At most 51
// characters (the server's limit is 64) and only [0-9a-f:-] besides the
// prefix, so it needs no escaping; an id that is not 1 to 20 digits is
// hashed too. Two senders with the same hash merely share one lock.
std::string answer_count_lock_name(const std::string& rule_id, const std::string& sender);

class Named_lock {
 public:
  // Sends "SELECT GET_LOCK('<name>', <timeout>)"; `name` is pasted as it is,
  // so it must hold no quote or backslash. held() is false when the lock
  // could not be had (timeout, error); the caller decides what that means.
  Named_lock(MYSQL* connection, std::string name, int timeout_seconds);
  // Sends "SELECT RELEASE_LOCK('<name>')" when held.
  ~Named_lock();

  Named_lock(const Named_lock&) = delete;
  Named_lock& operator=(const Named_lock&) = delete;

  bool held() const { return held_; }

 private:
  MYSQL* connection_;
  std::string release_statement_;  // made up front: the destructor must not allocate
  bool held_ = false;
};
