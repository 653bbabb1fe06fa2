// The default log line on Linux: one write(2) to stderr, so lines from several threads never
// interleave, prefixed like a system log entry with a UTC timestamp, the program and its pid.
#include <errno.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>

namespace harkwell {

void WriteDefaultSystemLogLine(std::string_view line) {
  timeval now{};
  gettimeofday(&now, nullptr);
  tm utc{};
  gmtime_r(&now.tv_sec, &utc);
  char prefix[96];
  const std::size_t stamp = std::strftime(prefix, sizeof prefix, "%Y-%m-%d %H:%M:%S", &utc);
  std::snprintf(prefix + stamp, sizeof prefix - stamp, ".%06ldZ %s[%d] ",
                static_cast<long>(now.tv_usec), program_invocation_short_name,
                static_cast<int>(getpid()));
  std::string text(prefix);
  text.append(line);
  text.push_back('\n');
  std::string_view rest(text);
  while (!rest.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace harkwell
