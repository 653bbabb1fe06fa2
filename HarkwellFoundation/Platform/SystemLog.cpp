#include "HarkwellFoundation/Platform/SystemLog.h"

#include <memory>
#include <mutex>
#include <utility>

namespace harkwell {

// Each platform writes the default line its own way (stderr on Linux, NSLog on Apple).
void WriteDefaultSystemLogLine(std::string_view line);

namespace {

struct InstalledSink {
  std::mutex mutex;
  std::shared_ptr<const LogSink> sink;
};

InstalledSink& installedSink() {
  static InstalledSink installed;
  return installed;
}

}  // namespace

void SystemLog(std::string_view line) {
  std::shared_ptr<const LogSink> sink;
  {
    std::lock_guard lock(installedSink().mutex);
    sink = installedSink().sink;
  }
  if (sink) {
    (*sink)(line);
  } else {
    WriteDefaultSystemLogLine(line);
  }
}

LogSink InstallLogSink(LogSink sink) {
  auto replacement = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
  std::shared_ptr<const LogSink> previous;
  {
    std::lock_guard lock(installedSink().mutex);
    previous = std::exchange(installedSink().sink, std::move(replacement));
  }
  return previous ? *previous : LogSink();
}

}  // namespace harkwell
