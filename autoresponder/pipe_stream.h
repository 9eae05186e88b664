// An output stream written onto a file descriptor, in practice the write end
// of a pipe into a sendmail child.
//
// The stream owns the descriptor from construction on: destruction flushes
// what is buffered and closes it, which gives the reader its end of input.
// It neither waits for the reader nor reports its status. A descriptor of -1
// (or one that cannot be wrapped) leaves the stream with failbit set; a
// failed write sets badbit and later output is discarded. Errors while
// flushing or closing at destruction are not reported. Writing after the
// reader has gone raises SIGPIPE unless the process ignores it.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <ext/stdio_filebuf.h>
#include <ios>
#include <ostream>

// Direction strategy: write only.
class OutputStreamStrategy {
 protected:
  std::ios_base::openmode mode_ = std::ios_base::out;
};

// Close strategy: a held stdio stream came from popen.
struct PipeCloseStrategy {
  static void close(std::FILE* handle) {
    if (handle != nullptr) pclose(handle);
  }
};

template <class CloseStrategy, class DirectionStrategy>
class basic_handlestream : public std::ostream, private DirectionStrategy {
 public:
  // The buffer: collected output goes to the descriptor when full or flushed.
  static constexpr std::size_t kBufferSize = 8192;

  explicit basic_handlestream(int fd)
      : std::ostream(nullptr), buffer_(fd, this->mode_, kBufferSize) {
    init(&buffer_);
    if (fd == -1) {
      setstate(std::ios_base::failbit);
    } else if (!buffer_.is_open()) {
      // The stream owns the descriptor even when it could not wrap it.
      ::close(fd);
      setstate(std::ios_base::failbit);
    }
  }

  basic_handlestream(const basic_handlestream&) = delete;
  basic_handlestream& operator=(const basic_handlestream&) = delete;

  virtual ~basic_handlestream() {
    CloseStrategy::close(handle_);
    buffer_.close();  // flushes, then closes the stdio stream and the descriptor
  }

 private:
  std::FILE* handle_ = nullptr;  // a popen stream; never set for descriptor streams
  __gnu_cxx::stdio_filebuf<char> buffer_;
};

// The stream onto the write end of a pipe.
class ofd_pipestream : public basic_handlestream<PipeCloseStrategy, OutputStreamStrategy> {
 public:
  explicit ofd_pipestream(int fd) : basic_handlestream(fd) {}
  ~ofd_pipestream() override {}
};
