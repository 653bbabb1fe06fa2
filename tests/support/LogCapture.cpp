#include "tests/support/LogCapture.h"

namespace harkwell::testing {

LogCapture::LogCapture() {
  previous_ = InstallLogSink([this](std::string_view line) {
    std::lock_guard lock(mutex_);
    lines_.emplace_back(line);
  });
}

LogCapture::~LogCapture() {
  InstallLogSink(std::move(previous_));
}

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

void LogCapture::clear() {
  std::lock_guard lock(mutex_);
  lines_.clear();
}

}  // namespace harkwell::testing
