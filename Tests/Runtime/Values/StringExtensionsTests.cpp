// Identifiers, digests as text, trimming and the two URL escapings.
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

#include <gtest/gtest.h>

using namespace fennick;

namespace {

std::string text(const Ref<String>& s) { return s ? s->utf8() : "<nil>"; }

TEST(StringExtensionsTest, IdentifiersBelowTheBaseIdentifier) {
  EXPECT_EQ(text(String::baseBundleIdentifier()), "com.pellora.DesktopClient");
  EXPECT_EQ(text(String::baseBundleIdentifier()->identifier("updates")), "com.pellora.DesktopClient.updates");
  EXPECT_EQ(text(String::string("")->identifier("")), ".");
}

TEST(StringExtensionsTest, HashStringIsLowerCaseHexOfTheUTF8Bytes) {
  EXPECT_EQ(text(String::string("")->hashString(OVHashKindMD5)), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(text(String::string("abc")->hashString(OVHashKindSHA1)), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(text(String::string("\xC3\xA9")->hashString(OVHashKindMD5)), "66ddcd97cfdeabb2f6fb8a999b4bc76f");
  EXPECT_EQ(String::string("abc")->hashString(static_cast<OVHashKind>(9)), nullptr);
}

TEST(StringExtensionsTest, TrimmingTakesUnicodeSpacesAndLineBreaksAtBothEndsOnly) {
  EXPECT_EQ(text(String::string(" \t\r\n\v\f a \n b \xC2\xA0\xE2\x80\xA8\xC2\x85\xE3\x80\x80")
                     ->stringByTrimmingWhitespaces()),
            "a \n b");
  EXPECT_EQ(text(String::string(" \n ")->stringByTrimmingWhitespaces()), "");
  // A zero-width space is a format character, not white space.
  EXPECT_EQ(text(String::string("\xE2\x80\x8Bx ")->stringByTrimmingWhitespaces()), "\xE2\x80\x8Bx");
  auto untouched = String::string("plain");
  EXPECT_EQ(untouched->stringByTrimmingWhitespaces(), untouched);
}

TEST(StringExtensionsTest, URLEncodedStringEscapesWhatNoURLMayHoldAndEveryAmpersand) {
  EXPECT_EQ(text(String::string("a&b")->URLEncodedString()), "a%26b");
  EXPECT_EQ(text(String::string("/path?q=1+2;x:y@h$,#f-_.!~*'()")->URLEncodedString()),
            "/path?q=1+2;x:y@h$,#f-_.!~*'()");
  EXPECT_EQ(text(String::string(" \"%<>[\\]^`{|}\x7F\t")->URLEncodedString()),
            "%20%22%25%3C%3E%5B%5C%5D%5E%60%7B%7C%7D%7F%09");
  EXPECT_EQ(text(String::string("caf\xC3\xA9 \xF0\x9F\x98\x80")->URLEncodedString()), "caf%C3%A9%20%F0%9F%98%80");
  EXPECT_EQ(String::string("\xC3")->URLEncodedString(), nullptr);
}

TEST(StringExtensionsTest, URLParamsKeepAmpersandsAndEqualsInsideKeysAndValues) {
  auto one = Dictionary::dictionaryWithObjectsAndKeys({{String::string("q"), String::string("a&b")}});
  EXPECT_EQ(text(String::URLParamsStringWithDictionary(one)), "q=a&b");

  auto several = Dictionary::dictionary();
  several->setObject_forKey(String::string("x y"), String::string("first"));
  several->setObject_forKey(Number::numberWithInteger(42), String::string("k=v"));
  several->setObject_forKey(String::string("\xC3\xBC"), String::string("third"));
  std::vector<std::string> expected;
  several->enumerateKeysAndObjectsUsingBlock([&](const Id& key, const Id&, bool&) {
    const std::string k = key->description();
    expected.push_back(k == "first" ? "first=x%20y" : k == "k=v" ? "k=v=42" : "third=%C3%BC");
  });
  std::string joined;
  for (const auto& pair : expected) joined += (joined.empty() ? "" : "&") + pair;
  EXPECT_EQ(text(String::URLParamsStringWithDictionary(several)), joined);
  EXPECT_EQ(text(String::URLParamsStringWithDictionary(Dictionary::dictionary())), "");
}

}  // namespace
