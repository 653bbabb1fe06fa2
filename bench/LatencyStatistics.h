// The few statistics the latency benchmarks report: a latency between two moments, and the median
// and percentiles of a series of them. Values only.
#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <vector>

namespace harkwell::bench {

using Clock = std::chrono::steady_clock;

// The value below which `fraction` of `values` lie (nearest rank); 0 for none.
inline double Percentile(std::vector<double> values, double fraction) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const auto rank = static_cast<std::size_t>(std::ceil(fraction * values.size()));
  return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

inline double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

inline double MicrosecondsBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::micro>(to - from).count();
}

}  // namespace harkwell::bench
