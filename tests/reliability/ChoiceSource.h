// Where a fault schedule's decisions come from: a seeded generator in the fault-injection suite,
// so a failing seed replays the same schedule, or the input bytes in the fuzz target, so the
// fuzzer steers the schedule. Used on one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

namespace harkwell::testing {

class ChoiceSource {
 public:
  virtual ~ChoiceSource() = default;
  // A number in [0, bound); `bound` is at least 1.
  virtual std::uint32_t below(std::uint32_t bound) = 0;
  // True `numerator` times in `denominator`.
  bool chance(std::uint32_t numerator, std::uint32_t denominator) {
    return below(denominator) < numerator;
  }
};

// Decisions from a 64-bit Mersenne Twister: the same seed gives the same decisions everywhere.
class SeededChoices final : public ChoiceSource {
 public:
  explicit SeededChoices(std::uint64_t seed) : engine_(seed) {}
  std::uint32_t below(std::uint32_t bound) override;

 private:
  std::mt19937_64 engine_;
};

// Decisions read from a byte string, one to four bytes each; once it runs out every decision is
// 0. The bytes must outlive the source.
class ByteChoices final : public ChoiceSource {
 public:
  ByteChoices(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  std::uint32_t below(std::uint32_t bound) override;
  bool exhausted() const { return offset_ >= size_; }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
  std::size_t offset_ = 0;
};

}  // namespace harkwell::testing
