// Owner of one file descriptor: closes it when it leaves scope, unless it has
// been handed over with release(). Move-only.
#pragma once

#include <unistd.h>

#include <utility>

class Unique_fd {
 public:
  explicit Unique_fd(int fd = -1) noexcept : fd_(fd) {}
  Unique_fd(Unique_fd&& other) noexcept : fd_(other.release()) {}
  Unique_fd& operator=(Unique_fd&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = other.release();
    }
    return *this;
  }
  Unique_fd(const Unique_fd&) = delete;
  Unique_fd& operator=(const Unique_fd&) = delete;
  ~Unique_fd() { reset(); }

  int get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }
  int release() noexcept { return std::exchange(fd_, -1); }
  void reset() noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};
