#include "HarkwellFoundation/Platform/SystemLog.h"
#include "HarkwellFoundation/Platform/Mutex.h"

#include <memory>
#include <utility>

namespace harkwell {

// Each platform writes the default line its own way (stderr on Linux, NSLog on Apple).
void WriteDefaultSystemLogLine(std::string_view line);

namespace {

struct InstalledSink {
  Mutex mutex;
  std::shared_ptr<const LogSink> sink HARKWELL_GUARDED_BY(mutex);
};

InstalledSink& installedSink() {
  static InstalledSink installed;
  return installed;
}

}  // namespace

void SystemLog(std::string_view line) {
  std::shared_ptr<const LogSink> sink;
  {
    MutexLock lock(installedSink().mutex);
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
    MutexLock lock(installedSink().mutex);
    previous = std::exchange(installedSink().sink, std::move(replacement));
  }
  return previous ? *previous : LogSink();
}

}  // namespace harkwell
