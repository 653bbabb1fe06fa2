// Byte strings to UTF-16 and back, the way platform strings are kept where the platform's strings
// are UTF-16: well-formed UTF-8 becomes its code points, every other byte an escape that turns back
// into the same byte.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "HarkwellFoundation/Platform/internal/EscapedUTF16.h"

namespace harkwell {
namespace {

using Units = std::vector<std::uint16_t>;

std::string Bytes(std::initializer_list<int> values) {
  std::string bytes;
  for (int value : values) bytes.push_back(static_cast<char>(value));
  return bytes;
}

TEST(EscapedUTF16, AsciiAndZeroBytesBecomeOneUnitEach) {
  EXPECT_EQ(EscapedUTF16FromBytes(std::string("a\0b", 3)), (Units{0x61, 0x00, 0x62}));
  EXPECT_EQ(EscapedUTF16FromBytes(""), Units{});
}

TEST(EscapedUTF16, WellFormedSequencesBecomeTheirCodePoints) {
  EXPECT_EQ(EscapedUTF16FromBytes("\xc3\xa9"), Units{0x00E9});
  EXPECT_EQ(EscapedUTF16FromBytes("\xe2\x82\xac"), Units{0x20AC});
  EXPECT_EQ(EscapedUTF16FromBytes("\xf0\x9f\x98\x80"), (Units{0xD83D, 0xDE00}));
  EXPECT_EQ(EscapedUTF16FromBytes("\xf4\x8f\xbf\xbf"), (Units{0xDBFF, 0xDFFF}));
}

TEST(EscapedUTF16, StrayBytesBecomeLowSurrogateEscapes) {
  EXPECT_EQ(EscapedUTF16FromBytes("\xfe"), Units{0xDCFE});
  EXPECT_EQ(EscapedUTF16FromBytes("\x80"), Units{0xDC80});
  EXPECT_EQ(EscapedUTF16FromBytes("a\xff"
                                  "b"),
            (Units{0x61, 0xDCFF, 0x62}));
}

TEST(EscapedUTF16, IllFormedEncodingsAreEscapedByteByByte) {
  // An overlong '/', an encoded surrogate, a code point above U+10FFFF, an overlong NUL.
  EXPECT_EQ(EscapedUTF16FromBytes(Bytes({0xC0, 0xAF})), (Units{0xDCC0, 0xDCAF}));
  EXPECT_EQ(EscapedUTF16FromBytes(Bytes({0xED, 0xA0, 0x80})), (Units{0xDCED, 0xDCA0, 0xDC80}));
  EXPECT_EQ(EscapedUTF16FromBytes(Bytes({0xF4, 0x90, 0x80, 0x80})),
            (Units{0xDCF4, 0xDC90, 0xDC80, 0xDC80}));
  EXPECT_EQ(EscapedUTF16FromBytes(Bytes({0xE0, 0x80, 0x80})), (Units{0xDCE0, 0xDC80, 0xDC80}));
}

TEST(EscapedUTF16, TruncatedSequenceEscapesItsBytesAndKeepsWhatFollows) {
  EXPECT_EQ(EscapedUTF16FromBytes(Bytes({0xE2, 0x82, 'A'})), (Units{0xDCE2, 0xDC82, 0x41}));
  EXPECT_EQ(EscapedUTF16FromBytes(Bytes({'x', 0xF0, 0x9F})), (Units{0x78, 0xDCF0, 0xDC9F}));
}

TEST(EscapedUTF16, EveryOneAndTwoByteStringRoundTrips) {
  for (int first = 0; first < 256; ++first) {
    const std::string one = Bytes({first});
    ASSERT_EQ(BytesFromEscapedUTF16(EscapedUTF16FromBytes(one)), one) << first;
    for (int second = 0; second < 256; ++second) {
      const std::string two = Bytes({first, second});
      ASSERT_EQ(BytesFromEscapedUTF16(EscapedUTF16FromBytes(two)), two) << first << "," << second;
    }
  }
}

TEST(EscapedUTF16, RandomByteStringsRoundTrip) {
  std::mt19937 generator(20240611);
  std::uniform_int_distribution<int> length(0, 40);
  // Bytes biased towards lead and continuation bytes, so that near-valid sequences are common.
  std::uniform_int_distribution<int> byte(0x70, 0xFF);
  for (int round = 0; round < 20000; ++round) {
    std::string bytes;
    for (int i = length(generator); i > 0; --i) bytes.push_back(static_cast<char>(byte(generator)));
    ASSERT_EQ(BytesFromEscapedUTF16(EscapedUTF16FromBytes(bytes)), bytes);
  }
}

TEST(EscapedUTF16, PlatformTextBecomesUTF8) {
  EXPECT_EQ(BytesFromEscapedUTF16(Units{0x48, 0x00E9, 0x20AC, 0xD83D, 0xDE00}),
            "H\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
  EXPECT_EQ(BytesFromEscapedUTF16(Units{0x0000}), std::string("\0", 1));
}

TEST(EscapedUTF16, UnpairedSurrogatesThatAreNoEscapesBecomeReplacementCharacters) {
  const std::string replacement = "\xef\xbf\xbd";
  EXPECT_EQ(BytesFromEscapedUTF16(Units{0xD800}), replacement);
  EXPECT_EQ(BytesFromEscapedUTF16(Units{0xD800, 0x41}), replacement + "A");
  EXPECT_EQ(BytesFromEscapedUTF16(Units{0xDE00, 0xD83D}), replacement + replacement);
  EXPECT_EQ(BytesFromEscapedUTF16(Units{0xDC41}), replacement);
  EXPECT_EQ(BytesFromEscapedUTF16(Units{0xDD00}), replacement);
}

TEST(EscapedUTF16, SurrogatePairWhoseLowHalfLooksLikeAnEscapeIsACodePoint) {
  EXPECT_EQ(BytesFromEscapedUTF16(Units{0xD83D, 0xDCFE}), "\xf0\x9f\x93\xbe");
  EXPECT_EQ(EscapedUTF16FromBytes("\xf0\x9f\x93\xbe"), (Units{0xD83D, 0xDCFE}));
}

}  // namespace
}  // namespace harkwell
