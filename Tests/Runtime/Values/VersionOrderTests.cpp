#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/Values/VersionOrder.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace fennick {
namespace {

int compare(std::string_view a, std::string_view b) { return String::string(a)->compareVersion(b); }

TEST(VersionOrder, ReadsVersionsAsAPersonDoes) {
  struct Case {
    const char* a;
    const char* b;
    int expected;
  };
  const Case cases[] = {
      {"1.2", "1.2.0", 0},     {"1.2", "1.2.1", -1},      {"1.2.1", "1.2", 1},     {"10.0", "9.9", 1},
      {"1.01", "1.1", 0},      {"1.10", "1.9", 1},        {"1.0b2", "1.0b10", -1}, {"1.0B2", "1.0b2", 0},
      {"1.0b1", "1.0", -1},    {"1.0", "1.0b1", 1},       {"1.0b1", "1.0.1", -1},  {"1.0b1", "1.0rc1", -1},
      {"1.0-1", "1.0.1", 0},   {"1.*", "1.5", 1},         {"1.5", "1.*", -1},      {"*", "*", 0},
      {"2.*", "2.99", 1},      {" 2.0\n", "2.0", 0},      {"", "", 0},             {"", "1", -1},
      {"1..2", "1.0.2", -1},   {"1.**", "1.*", -1},       {"1.**", "1.-", 0},      {"alpha", "beta", -1},
      {"1 beta", "1 alpha", 1}, {"1+2", "1.2", -1},       {"99999999999999999999", "9223372036854775807", 0},
      {"2.0 final", "2.0 rc", -1},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(compare(c.a, c.b), c.expected) << '"' << c.a << "\" vs \"" << c.b << '"';
    EXPECT_EQ(compare(c.b, c.a), -c.expected) << '"' << c.b << "\" vs \"" << c.a << '"';
    EXPECT_EQ(VersionOrder::compareVersionsByTokens(VersionOrder::toUTF16(c.a), VersionOrder::toUTF16(c.b)),
              c.expected)
        << c.a << " vs " << c.b;
  }
}

TEST(VersionOrder, UnicodeDigitsPunctuationAndCase) {
  // Arabic-Indic digits are decimal digits with their values; the ideographic
  // full stop is punctuation; no-break space is trimmed like a space.
  EXPECT_EQ(compare("\u0661.\u0662", "1.2"), 0);
  EXPECT_EQ(compare("1\u30022", "1.2"), 0);
  EXPECT_EQ(compare("\u00a01.2\u2028", "1.2"), 0);
  EXPECT_EQ(compare("1.0\u00c9", "1.0\u00e9"), 0);        // case-blind beyond ASCII
  EXPECT_EQ(compare("1.0\u00e9", "1.0f"), 1);              // by UTF-16 units
  EXPECT_EQ(compare("1.0b\u00e9", "1.0b"), 1);             // the ASCII prefix alone does not decide
  EXPECT_EQ(compare("1.0\xff", "1.0\xef\xbf\xbd"), 0);     // malformed bytes read as U+FFFD

  EXPECT_EQ(VersionOrder::typeOfCharacter(u"."), VersionTokenClass::Separator);
  EXPECT_EQ(VersionOrder::typeOfCharacter(u"*"), VersionTokenClass::Wildcard);
  EXPECT_EQ(VersionOrder::typeOfCharacter(u"**"), VersionTokenClass::Separator);
  EXPECT_EQ(VersionOrder::typeOfCharacter(u"a-1"), VersionTokenClass::Number);
  EXPECT_EQ(VersionOrder::typeOfCharacter(u"\U0001D7CF"), VersionTokenClass::Number);  // outside the BMP
  EXPECT_EQ(VersionOrder::typeOfCharacter(u"+"), VersionTokenClass::String);
  EXPECT_EQ(VersionOrder::typeOfCharacter(u""), VersionTokenClass::String);
}

TEST(VersionOrder, SplitsPerUnitAndKeepsEverySeparatorAlone) {
  using Tokens = std::vector<std::u16string>;
  EXPECT_EQ(VersionOrder::splitVersionString(u"1.10b2"), (Tokens{u"1", u".", u"10", u"b", u"2"}));
  EXPECT_EQ(VersionOrder::splitVersionString(u"2.0-rc1"), (Tokens{u"2", u".", u"0", u"-", u"rc", u"1"}));
  EXPECT_EQ(VersionOrder::splitVersionString(u"1..2"), (Tokens{u"1", u".", u".", u"2"}));
  EXPECT_EQ(VersionOrder::splitVersionString(u" 3.** beta 2\t"),
            (Tokens{u"3", u".", u"**", u" beta ", u"2"}));
  EXPECT_EQ(VersionOrder::splitVersionString(u" \n"), Tokens{});
  // A character outside the BMP is two units, each a word character alone.
  EXPECT_EQ(VersionOrder::splitVersionString(u"1\U0001D7CF"), (Tokens{u"1", u"\U0001D7CF"}));
}

// The ASCII fast path must agree with the token-by-token rules on any text.
TEST(VersionOrder, FastPathAgreesWithTheTokenRules) {
  std::mt19937 random(20240611);
  const std::string alphabet = "0123456789..--*+ abAB_\t\u00e9";
  auto randomVersion = [&] {
    std::string text;
    const int length = static_cast<int>(random() % 9);
    for (int i = 0; i < length; ++i) text += alphabet[random() % alphabet.size()];
    return text;
  };
  for (int i = 0; i < 20000; ++i) {
    const std::string a = randomVersion(), b = randomVersion();
    ASSERT_EQ(VersionOrder::compareVersions(a, b),
              VersionOrder::compareVersionsByTokens(VersionOrder::toUTF16(a), VersionOrder::toUTF16(b)))
        << '"' << a << "\" vs \"" << b << '"';
  }
}

}  // namespace
}  // namespace fennick
