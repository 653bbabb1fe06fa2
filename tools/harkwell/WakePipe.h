// A non-blocking pipe used to wake the watch loop's poll(): any thread, and a signal handler, may
// write a byte to it; the loop sees its read end become readable.
#pragma once

namespace harkwell::cli {

class WakePipe {
 public:
  WakePipe();
  ~WakePipe();
  WakePipe(const WakePipe&) = delete;
  WakePipe& operator=(const WakePipe&) = delete;
  bool isValid() const { return readFd_ >= 0; }
  int readFd() const { return readFd_; }
  int writeFd() const { return writeFd_; }
  // Any thread, and a signal handler, may call it.
  void wake() const;
  // Reads every byte written so far, so the read end is no longer readable. One thread at a time.
  void drain() const;

 private:
  int readFd_ = -1;
  int writeFd_ = -1;
};

}  // namespace harkwell::cli
