// Writes whole lines to a file descriptor (stdout or stderr) with one write each, so lines from
// different threads never interleave and a reader of a pipe sees each line as soon as it is
// complete. Safe on any thread.
#pragma once

#include <string_view>

#include "HarkwellFoundation/Platform/Mutex.h"

namespace harkwell::cli {

class LineWriter {
 public:
  explicit LineWriter(int fd) : fd_(fd) {}
  LineWriter(const LineWriter&) = delete;
  LineWriter& operator=(const LineWriter&) = delete;

  int fd() const { return fd_; }

  // Writes `text` and a newline. False when the descriptor refuses (a closed pipe, say).
  bool writeLine(std::string_view text);
  // Writes `text` as it is.
  bool write(std::string_view text);

 private:
  Mutex mutex_;  // held for each write to fd_, so that lines never interleave
  const int fd_;
};

}  // namespace harkwell::cli
