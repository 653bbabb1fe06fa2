#include "tests/reliability/RunLength.h"

#include <charconv>
#include <cstdlib>
#include <string_view>

namespace harkwell::testing {

std::optional<std::uint64_t> UnsignedFromEnvironment(const char* variable) {
  const char* text = std::getenv(variable);
  if (text == nullptr) return std::nullopt;
  const std::string_view view(text);
  std::uint64_t value = 0;
  auto [end, error] = std::from_chars(view.data(), view.data() + view.size(), value);
  if (view.empty() || error != std::errc() || end != view.data() + view.size()) {
    return std::nullopt;
  }
  return value;
}

std::uint64_t RunLengthFromEnvironment(const char* variable, std::uint64_t fallback) {
  return UnsignedFromEnvironment(variable).value_or(fallback);
}

}  // namespace harkwell::testing
