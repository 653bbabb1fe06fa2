// Installs a log sink for the lifetime of the object and keeps every line written meanwhile, so a
// test can assert exact log lines. Lines from any thread are kept in the order they arrived.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/SystemLog.h"

namespace harkwell::testing {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines() const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  LogSink previous_;
};

}  // namespace harkwell::testing
