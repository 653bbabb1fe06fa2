#include "tools/harkwell/LineWriter.h"

#include <unistd.h>

#include <cerrno>
#include <string>

namespace harkwell::cli {

bool LineWriter::writeLine(std::string_view text) {
  std::string line(text);
  line += '\n';
  return write(line);
}

bool LineWriter::write(std::string_view text) {
  MutexLock lock(mutex_);
  while (!text.empty()) {
    const ssize_t written = ::write(fd_, text.data(), text.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

}  // namespace harkwell::cli
