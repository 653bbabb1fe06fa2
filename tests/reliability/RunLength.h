// How long the reliability suites run. Each suite has a short default that fits a CI run in every
// build (sanitizers included); the full lengths are asked for through environment variables such
// as HARKWELL_SOAK_CYCLES=100000, documented in the README. Read once on the test's thread.
#pragma once

#include <cstdint>
#include <optional>

namespace harkwell::testing {

// The variable's value as an unsigned decimal number; nothing when it is unset, empty or not a
// whole number.
std::optional<std::uint64_t> UnsignedFromEnvironment(const char* variable);

// The variable's value, or `fallback` when it does not hold a number.
std::uint64_t RunLengthFromEnvironment(const char* variable, std::uint64_t fallback);

}  // namespace harkwell::testing
