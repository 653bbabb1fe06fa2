// The strict UTF-8 decoder every byte-to-text path shares: model identifiers, escaped UTF-16,
// V4L2 log text and the harkwell program's terminal output.
#include <gtest/gtest.h>

#include <cstddef>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "HarkwellFoundation/Platform/internal/UTF8.h"

namespace harkwell {
namespace {

std::string Bytes(std::initializer_list<int> values) {
  std::string bytes;
  for (int value : values) bytes.push_back(static_cast<char>(value));
  return bytes;
}

// The plain encoding of a code point, surrogates included, to feed the decoder.
std::string Encoded(char32_t codePoint) {
  auto byte = [](char32_t value) { return static_cast<char>(value); };
  if (codePoint < 0x80) return {byte(codePoint)};
  if (codePoint < 0x800) return {byte(0xC0 | (codePoint >> 6)), byte(0x80 | (codePoint & 0x3F))};
  if (codePoint < 0x10000) {
    return {byte(0xE0 | (codePoint >> 12)), byte(0x80 | ((codePoint >> 6) & 0x3F)),
            byte(0x80 | (codePoint & 0x3F))};
  }
  return {byte(0xF0 | (codePoint >> 18)), byte(0x80 | ((codePoint >> 12) & 0x3F)),
          byte(0x80 | ((codePoint >> 6) & 0x3F)), byte(0x80 | (codePoint & 0x3F))};
}

// {code point, length} of the decoded sequence, or {0, 0} when there is none, so that a failure
// prints both.
std::pair<char32_t, std::size_t> Decoded(std::string_view bytes) {
  const auto sequence = DecodeUTF8(bytes);
  if (!sequence) return {0, 0};
  return {sequence->codePoint, sequence->length};
}

using Result = std::pair<char32_t, std::size_t>;
constexpr Result kInvalid{0, 0};

TEST(UTF8, AsciiIsOneByteEach) {
  EXPECT_EQ(Decoded("A"), (Result{U'A', 1}));
  EXPECT_EQ(Decoded("Az"), (Result{U'A', 1}));
  EXPECT_EQ(Decoded(std::string_view("\0x", 2)), (Result{0, 1}));
  EXPECT_EQ(Decoded("\x7f"), (Result{0x7F, 1}));
}

TEST(UTF8, EmptyInputHasNoSequence) {
  EXPECT_EQ(DecodeUTF8(""), std::nullopt);
  EXPECT_TRUE(IsWellFormedUTF8(""));
}

TEST(UTF8, TwoByteSequences) {
  EXPECT_EQ(Decoded("\xc2\x80"), (Result{0x80, 2}));
  EXPECT_EQ(Decoded("\xc3\xa9z"), (Result{0xE9, 2}));
  EXPECT_EQ(Decoded("\xdf\xbf"), (Result{0x7FF, 2}));
}

TEST(UTF8, ThreeByteSequences) {
  EXPECT_EQ(Decoded("\xe0\xa0\x80"), (Result{0x800, 3}));
  EXPECT_EQ(Decoded("\xe2\x82\xac"), (Result{0x20AC, 3}));
  EXPECT_EQ(Decoded("\xed\x9f\xbf"), (Result{0xD7FF, 3}));
  EXPECT_EQ(Decoded("\xee\x80\x80"), (Result{0xE000, 3}));
  EXPECT_EQ(Decoded("\xef\xbf\xbf"), (Result{0xFFFF, 3}));
}

TEST(UTF8, FourByteSequences) {
  EXPECT_EQ(Decoded("\xf0\x90\x80\x80"), (Result{0x10000, 4}));
  EXPECT_EQ(Decoded("\xf0\x9f\x98\x80"), (Result{0x1F600, 4}));
  EXPECT_EQ(Decoded("\xf4\x8f\xbf\xbf"), (Result{0x10FFFF, 4}));
}

TEST(UTF8, OverlongFormsAreRejected) {
  EXPECT_EQ(Decoded("\xc0\x80"), kInvalid);  // U+0000 in two bytes
  EXPECT_EQ(Decoded("\xc0\xaf"), kInvalid);  // '/' in two bytes
  EXPECT_EQ(Decoded("\xc1\xbf"), kInvalid);
  EXPECT_EQ(Decoded("\xe0\x80\xaf"), kInvalid);
  EXPECT_EQ(Decoded("\xe0\x9f\xbf"), kInvalid);  // U+07FF in three bytes
  EXPECT_EQ(Decoded("\xf0\x80\x80\xaf"), kInvalid);
  EXPECT_EQ(Decoded("\xf0\x8f\xbf\xbf"), kInvalid);  // U+FFFF in four bytes
}

TEST(UTF8, SurrogatesAreRejected) {
  EXPECT_EQ(Decoded("\xed\xa0\x80"), kInvalid);              // U+D800
  EXPECT_EQ(Decoded("\xed\xaf\xbf"), kInvalid);              // U+DBFF
  EXPECT_EQ(Decoded("\xed\xb0\x80"), kInvalid);              // U+DC00
  EXPECT_EQ(Decoded("\xed\xbf\xbf"), kInvalid);              // U+DFFF
  EXPECT_EQ(Decoded("\xed\xa0\xbd\xed\xb8\x80"), kInvalid);  // an encoded pair
}

TEST(UTF8, CodePointsAboveTheLastAreRejected) {
  EXPECT_EQ(Decoded("\xf4\x90\x80\x80"), kInvalid);  // U+110000
  EXPECT_EQ(Decoded("\xf5\x80\x80\x80"), kInvalid);
  EXPECT_EQ(Decoded("\xf7\xbf\xbf\xbf"), kInvalid);
  EXPECT_EQ(Decoded("\xf8\x88\x80\x80\x80"), kInvalid);  // the old five-byte form
  EXPECT_EQ(Decoded("\xfc\x84\x80\x80\x80\x80"), kInvalid);
  EXPECT_EQ(Decoded("\xfe"), kInvalid);
  EXPECT_EQ(Decoded("\xff"), kInvalid);
}

TEST(UTF8, TruncatedSequencesAreRejected) {
  EXPECT_EQ(Decoded("\xc3"), kInvalid);
  EXPECT_EQ(Decoded("\xe2\x82"), kInvalid);
  EXPECT_EQ(Decoded("\xe2"), kInvalid);
  EXPECT_EQ(Decoded("\xf0\x9f\x98"), kInvalid);
  EXPECT_EQ(Decoded("\xf0\x9f"), kInvalid);
  // Cut short by a byte that does not continue it, rather than by the end.
  EXPECT_EQ(Decoded("\xc3z"), kInvalid);
  EXPECT_EQ(Decoded("\xe2\x82z"), kInvalid);
  EXPECT_EQ(Decoded("\xf0\x9f\x98z"), kInvalid);
  EXPECT_EQ(Decoded("\xe2\xc3\xa9"), kInvalid);
}

TEST(UTF8, StrayContinuationBytesAreRejected) {
  EXPECT_EQ(Decoded("\x80"), kInvalid);
  EXPECT_EQ(Decoded("\xbf"), kInvalid);
  EXPECT_EQ(Decoded("\x80\x80"), kInvalid);
  EXPECT_EQ(Decoded("\xc3\xa9\xa9"), (Result{0xE9, 2}));  // the extra byte is the next one's
  EXPECT_EQ(Decoded("\xa9"), kInvalid);
}

TEST(UTF8, EveryScalarValueDecodesToItself) {
  for (char32_t codePoint = 0; codePoint <= 0x10FFFF; ++codePoint) {
    const std::string bytes = Encoded(codePoint);
    const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    const Result expected = surrogate ? kInvalid : Result{codePoint, bytes.size()};
    ASSERT_EQ(Decoded(bytes), expected) << "U+" << std::hex << static_cast<unsigned>(codePoint);
    ASSERT_EQ(IsWellFormedUTF8(bytes), !surrogate)
        << "U+" << std::hex << static_cast<unsigned>(codePoint);
  }
}

TEST(UTF8, WholeStringsAreWellFormedOnlyIfEverySequenceIs) {
  EXPECT_TRUE(IsWellFormedUTF8("MacBookPro18,3"));
  EXPECT_TRUE(IsWellFormedUTF8("Caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"));
  EXPECT_TRUE(IsWellFormedUTF8(std::string_view("a\0b", 3)));
  EXPECT_FALSE(IsWellFormedUTF8("Caf\xc3"));
  EXPECT_FALSE(IsWellFormedUTF8("Mac\xff\xfe"));
  EXPECT_FALSE(IsWellFormedUTF8("A\xc0\xaf"));
  EXPECT_FALSE(IsWellFormedUTF8("\xed\xa0\x80"));
  EXPECT_FALSE(IsWellFormedUTF8("ok\x80ok"));
  EXPECT_FALSE(IsWellFormedUTF8(Bytes({0xF4, 0x90, 0x80, 0x80})));
}

}  // namespace
}  // namespace harkwell
