#include "tests/reliability/ChoiceSource.h"

namespace harkwell::testing {

std::uint32_t SeededChoices::below(std::uint32_t bound) {
  // Written out instead of std::uniform_int_distribution, whose results differ between standard
  // libraries: a seed must replay the same schedule with any compiler.
  return static_cast<std::uint32_t>(engine_() % bound);
}

std::uint32_t ByteChoices::below(std::uint32_t bound) {
  std::size_t width = 1;
  if (bound > 0x100) width = 2;
  if (bound > 0x10000) width = 4;
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < width && offset_ < size_; ++i)
    value = (value << 8) | data_[offset_++];
  return value % bound;
}

}  // namespace harkwell::testing
