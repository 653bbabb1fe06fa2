// Reading `harkwell watch --json` output in the command-line suites: each line parsed, its
// timestamp checked and set aside, and waits for the first line that matches with a deadline.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <string>

#include "tests/cli/HarkwellRun.h"

namespace harkwell::testing {

// The line as a JSON object without its "time", which must be UTC ISO 8601 with microseconds.
// A line that is not a JSON object fails the test and gives null.
inline nlohmann::json ParseWatchLine(const std::string& line) {
  nlohmann::json value = nlohmann::json::parse(line, nullptr, false);
  if (value.is_discarded() || !value.is_object()) {
    ADD_FAILURE() << "not a JSON object: " << line;
    return nlohmann::json();
  }
  static const std::regex kTime(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z)");
  EXPECT_TRUE(std::regex_match(value.value("time", std::string()), kTime)) << line;
  value.erase("time");
  return value;
}

// Reads lines until one satisfies `matches`; nothing when the deadline passes or output ends.
inline std::optional<nlohmann::json> NextWatchLineWhere(
    ChildProcess& run, const std::function<bool(const nlohmann::json&)>& matches,
    std::chrono::milliseconds deadline) {
  const auto until = std::chrono::steady_clock::now() + deadline;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        until - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    const auto line = run.readLine(left);
    if (!line) return std::nullopt;
    auto value = ParseWatchLine(*line);
    if (matches(value)) return value;
  }
}

// The closing bracket of an update, which ends the initial discovery among others.
inline bool IsUpdateFinished(const nlohmann::json& line) {
  return line.value("type", "") == "updating" && line.value("finished", false);
}

// An event about the device with `deviceUID`.
inline std::function<bool(const nlohmann::json&)> EventFor(const std::string& event,
                                                           const std::string& deviceUID) {
  return [event, deviceUID](const nlohmann::json& line) {
    return line.value("type", "") == "event" && line.value("event", "") == event &&
           line.contains("device") && line["device"].value("deviceUID", "") == deviceUID;
  };
}

}  // namespace harkwell::testing
