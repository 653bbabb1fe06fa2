#include "HarkwellFoundation/Platform/Linux/V4L2/V4L2FileAccess.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace harkwell::v4l2 {

FileText ReadSmallFile(const std::string& path, std::size_t limit) {
  // O_NONBLOCK keeps a FIFO from blocking the open; the type check below refuses it anyway.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return {std::nullopt, errno};
  struct stat status {};
  if (::fstat(fd, &status) != 0) {
    const int error = errno;
    ::close(fd);
    return {std::nullopt, error};
  }
  if (!S_ISREG(status.st_mode)) {
    ::close(fd);
    return {std::nullopt, EINVAL};
  }
  std::string text;
  char buffer[4096];
  while (text.size() < limit) {
    const std::size_t wanted = std::min(sizeof buffer, limit - text.size());
    const ssize_t got = ::read(fd, buffer, wanted);
    if (got < 0) {
      if (errno == EINTR) continue;
      const int error = errno;
      ::close(fd);
      return {std::nullopt, error};
    }
    if (got == 0) break;
    text.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(fd);
  return {std::move(text), 0};
}

FileText ResolvePath(const std::string& path) {
  struct Freer {
    void operator()(char* text) const { std::free(text); }
  };
  std::unique_ptr<char, Freer> resolved(::realpath(path.c_str(), nullptr));
  if (!resolved) return {std::nullopt, errno};
  return {std::string(resolved.get()), 0};
}

FileText ReadLinkText(const std::string& path) {
  char buffer[PATH_MAX];
  const ssize_t length = ::readlink(path.c_str(), buffer, sizeof buffer);
  if (length < 0) return {std::nullopt, errno};
  if (static_cast<std::size_t>(length) == sizeof buffer) return {std::nullopt, ENAMETOOLONG};
  return {std::string(buffer, static_cast<std::size_t>(length)), 0};
}

std::string_view LastPathComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string ParentPath(std::string_view path) {
  const auto slash = path.rfind('/');
  if (slash == std::string_view::npos) return ".";
  if (slash == 0) return "/";
  return std::string(path.substr(0, slash));
}

std::string_view TrimWhitespace(std::string_view text) {
  constexpr std::string_view kWhitespace = " \t\r\n\v\f";
  const auto first = text.find_first_not_of(kWhitespace);
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(kWhitespace);
  return text.substr(first, last - first + 1);
}

std::string ErrorText(int error) {
  char buffer[256];
  // The GNU strerror_r returns the text, which may or may not live in `buffer`.
  return std::string(::strerror_r(error, buffer, sizeof buffer));
}

}  // namespace harkwell::v4l2
