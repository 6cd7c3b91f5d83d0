// Version strings from outside (property lists, update feeds) by family: NUL
// bytes, malformed UTF-8, huge digit runs and very long strings. The order
// stays a total order on every one of them: antisymmetric, the same on the
// ASCII fast path as by the token rules, and never read short.
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/Values/VersionOrder.h"

#include <gtest/gtest.h>

#include <string>

namespace fennick {
namespace {

using namespace std::string_literals;

struct Case {
  std::string a;
  std::string b;
  int expected;
};

void expectOrder(const Case& c) {
  EXPECT_EQ(String::string(c.a)->compareVersion(c.b), c.expected) << c.a.substr(0, 40) << " vs " << c.b.substr(0, 40);
  EXPECT_EQ(VersionOrder::compareVersions(c.b, c.a), -c.expected) << c.b.substr(0, 40) << " vs " << c.a.substr(0, 40);
  EXPECT_EQ(VersionOrder::compareVersionsByTokens(VersionOrder::toUTF16(c.a), VersionOrder::toUTF16(c.b)), c.expected)
      << "token rules: " << c.a.substr(0, 40) << " vs " << c.b.substr(0, 40);
}

std::string repeated(std::string_view unit, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += unit;
  return text;
}

TEST(HostileVersionString, NulIsACharacterNotAnEnd) {
  const Case cases[] = {
      {"1.0\0"s, "1.0", -1},          // a word where the other side pads with "."
      {"1.0\0b"s, "1.0\0a"s, 1},      // what follows the NUL still counts
      {"1.0\0.5"s, "1.0\0.4"s, 1},
      {"1.0\0"s, "1.0\0"s, 0},
      {"2\0"s, "10"s, -1},            // decided before the NUL
      {"\0"s, ""s, -1},               // not white space: not trimmed away
  };
  for (const Case& c : cases) expectOrder(c);
}

TEST(HostileVersionString, MalformedUTF8ReadsAsReplacementCharacters) {
  const Case cases[] = {
      {"1.\xff", "1.\xef\xbf\xbd", 0},   // U+FFFD written out
      {"1.0\xe2\x82", "1.0\xef\xbf\xbd", 0},  // cut inside a character
      {"1.0\xe2\x82", "1.0", -1},
      {"2.\xff", "10", -1},
      {"1.\xc0\xaf", "1.\xef\xbf\xbd", 1},  // an overlong form is two bad bytes
      {"\xed\xa0\x80.1", "\xed\xa0\x80.2", -1},  // an encoded surrogate
  };
  for (const Case& c : cases) expectOrder(c);
}

TEST(HostileVersionString, HugeDigitRunsAndLongStrings) {
  constexpr std::size_t kLong = 100'000;
  const std::string nines = "1." + std::string(kLong, '9');
  const std::string ones = repeated("1.", kLong / 2);
  const Case cases[] = {
      {nines, nines, 0},
      {nines, "1.9223372036854775807", 0},          // values saturate at 64 bits
      {"1." + std::string(kLong, '0') + "1", "1.1", 0},  // leading zeros never overflow
      {"1." + std::string(kLong, '0') + "2", "1.1", 1},
      {ones + "1", ones + "1", 0},
      {ones + "1", ones + "1.1", -1},
      {std::string(kLong, 'a'), std::string(kLong, 'a') + "b", -1},
      {repeated("\xc3\xa9", kLong) + "1", repeated("\xc3\x89", kLong) + "2", -1},  // case-blind beyond ASCII
      {repeated("\xd9\xa3", kLong), "4", 1},  // Arabic-Indic digits saturate too
  };
  for (const Case& c : cases) expectOrder(c);
}

}  // namespace
}  // namespace fennick
