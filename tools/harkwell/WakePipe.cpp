#include "tools/harkwell/WakePipe.h"

#include <fcntl.h>
#include <unistd.h>

namespace harkwell::cli {
namespace {

bool SetNonBlockingAndCloseOnExec(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0 &&
         fcntl(fd, F_SETFD, FD_CLOEXEC) == 0;
}

}  // namespace

WakePipe::WakePipe() {
  int fds[2];
  if (pipe(fds) != 0) return;
  if (!SetNonBlockingAndCloseOnExec(fds[0]) || !SetNonBlockingAndCloseOnExec(fds[1])) {
    close(fds[0]);
    close(fds[1]);
    return;
  }
  readFd_ = fds[0];
  writeFd_ = fds[1];
}

WakePipe::~WakePipe() {
  if (readFd_ >= 0) close(readFd_);
  if (writeFd_ >= 0) close(writeFd_);
}

void WakePipe::wake() const {
  const char byte = 1;
  // A full pipe is already readable, so a failed write loses nothing.
  [[maybe_unused]] const ssize_t written = write(writeFd_, &byte, 1);
}

void WakePipe::drain() const {
  char bytes[64];
  while (read(readFd_, bytes, sizeof bytes) > 0) {
  }
}

}  // namespace harkwell::cli
