// JSON text from outside, by family: deep nesting, NUL bytes, invalid UTF-8,
// broken \u escapes, numbers past every limit, truncation and trailing
// bytes. Each either decodes to what the text says or fails with the reading
// error (NSCocoaErrorDomain 3840); nothing is read short or crashes.
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Coding/JSON.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Coding/PropertyList.h"
#include "fennick/Runtime/Values/String.h"

#include <gtest/gtest.h>

#include <string>

namespace fennick {
namespace {

using namespace std::string_literals;

Id decode(std::string_view text, Ref<Error>* error = nullptr) {
  return JSON::JSONObjectWithString_options_error(text, JSONReadingFragmentsAllowed, error);
}

// Fails with the reading error; answers the error's byte offset (-1 if none).
std::int64_t failureIndex(std::string_view text) {
  Ref<Error> error;
  if (decode(text, &error) || !error || error->domain() != NSCocoaErrorDomain ||
      error->code() != NSPropertyListReadCorruptError)
    return -2;
  auto index = Number::dynamicCastObject(error->userInfo()->objectForKey(JSONErrorIndexKey));
  return index ? index->integerValue() : -1;
}

bool fails(std::string_view text) { return failureIndex(text) != -2; }

TEST(HostileJSON, BytesAfterACompleteValueAreRefused) {
  struct Case {
    std::string text;
    std::int64_t index;  // where the trailing text starts; -1: accepted
  };
  const Case cases[] = {
      {"123\0"s, 3},           {"[1]\0"s, 3},         {"{\"a\":1}\0{\"b\":2}"s, 7},
      {"\"ok\" \0 "s, 5},      {"null\0junk"s, 4},    {"[1] x", 4},
      {"[1] ]", 4},            {"[1]\xff", 3},        {"[1] [2]", 4},
      {"[1] \t\r\n ", -1},     {"\"\\u0000\"", -1},
  };
  for (const Case& c : cases) {
    if (c.index < 0) {
      EXPECT_TRUE(decode(c.text)) << c.text;
    } else {
      EXPECT_EQ(failureIndex(c.text), c.index) << c.text;
    }
  }
  // A NUL before any value is no value at all.
  EXPECT_TRUE(fails("\0[1]"s));
  EXPECT_TRUE(fails(""));
}

TEST(HostileJSON, NulAndInvalidUTF8InsideStringsAreExactOrRefused) {
  // An escaped NUL is a character of the string like any other.
  auto array = Array::dynamicCastObject(decode(R"(["a\u0000b", {"k\u0000": 1}])"));
  ASSERT_TRUE(array);
  EXPECT_TRUE(String::castObject(array->objectAtIndex(0))->isEqualToString("a\0b"s));
  auto object = Dictionary::castObject(array->objectAtIndex(1));
  EXPECT_TRUE(object->objectForKey("k\0"s));
  EXPECT_FALSE(object->objectForKey("k"));

  const std::string refused[] = {
      "[\"a\0b\"]"s,                  // a raw NUL must be escaped
      "{\"k\0\":1}"s,                 // ... in keys, too
      "[\"\xff\"]",                   // not UTF-8 at all
      "[\"\xc0\xaf\"]",               // overlong "/"
      "[\"\xe0\x80\xaf\"]",           // overlong, three bytes
      "[\"\xed\xa0\x80\"]",           // a surrogate encoded as UTF-8
      "[\"\xf4\x90\x80\x80\"]",       // past U+10FFFF
      "[\"\xe2\x82\"]",               // cut inside a character
      "{\"\xfe\":1}",                 // in a key
      "[\"\\ud800\"]",                // lone high surrogate
      "[\"\\udc00\"]",                // lone low surrogate
      "[\"\\ud800\\u0041\"]",         // high surrogate without its low half
      "[\"\\udc00\\ud800\"]",         // halves in the wrong order
      "[\"\\ud800\\ud800\"]",         // two high halves
      "[\"\\u12\"]",                  // escape cut short
      "[\"\\uZZZZ\"]",                // not hexadecimal
      "[\"\\x41\"]",                  // no such escape
  };
  for (const std::string& text : refused) EXPECT_TRUE(fails(text)) << text;
  auto emoji = Array::castObject(decode(R"(["\ud83d\ude00"])"));
  EXPECT_TRUE(String::castObject(emoji->objectAtIndex(0))->isEqualToString("\U0001F600"));
}

TEST(HostileJSON, NestingFarPastTheLimitFailsQuickly) {
  constexpr std::size_t kDepth = 100'000;
  auto repeated = [](std::string_view unit, std::size_t count) {
    std::string text;
    text.reserve(unit.size() * count);
    for (std::size_t i = 0; i < count; ++i) text += unit;
    return text;
  };
  const std::string documents[] = {
      repeated("[", kDepth),
      repeated("[", kDepth) + repeated("]", kDepth),
      repeated("{\"a\":", kDepth),
      repeated("[{\"a\":", kDepth / 2) + "1" + repeated("}]", kDepth / 2),
  };
  for (const std::string& text : documents) {
    Ref<Error> error;
    EXPECT_FALSE(decode(text, &error)) << text.substr(0, 16);
    ASSERT_TRUE(error);
    EXPECT_NE(error->description().find("nested"), std::string::npos) << error->description();
  }
  // At the limit itself the document is read.
  EXPECT_TRUE(decode(repeated("[", JSON::maxDepth) + repeated("]", JSON::maxDepth)));
}

TEST(HostileJSON, NumbersPastEveryLimit) {
  const std::string refused[] = {"1e999", "-1e999", "[" + std::string(400, '9') + "]",
                                 std::string(1 << 20, '7'), "01", "1.", ".5", "-", "+1", "0x10", "NaN", "Infinity"};
  for (const std::string& text : refused) EXPECT_TRUE(fails(text)) << text.substr(0, 20);

  auto number = [](const std::string& text) { return Number::dynamicCastObject(decode(text)); };
  ASSERT_TRUE(number("1e-999"));
  EXPECT_EQ(number("1e-999")->doubleValue(), 0.0);
  EXPECT_EQ(number("18446744073709551616")->kind(), Number::Kind::Double);
  EXPECT_EQ(number("-9223372036854775809")->kind(), Number::Kind::Double);
  EXPECT_EQ(number("-9223372036854775808")->integerValue(), INT64_MIN);
  ASSERT_TRUE(number(std::string(300, '9')));
  EXPECT_GT(number(std::string(300, '9'))->doubleValue(), 9e298);
  EXPECT_EQ(number("0." + std::string(100'000, '0') + "1")->doubleValue(), 0.0);
}

TEST(HostileJSON, EveryTruncationOrNulInsertionOfADocumentFails) {
  const std::string document =
      R"({"name":"caf\u00e9 \ud83d\ude00","list":[1,-2.5e3,true,false,null],"nested":{"k":"v"}})";
  ASSERT_TRUE(decode(document));
  for (std::size_t length = 0; length < document.size(); ++length)
    EXPECT_TRUE(fails(document.substr(0, length))) << "cut at " << length;
  for (std::size_t at = 0; at <= document.size(); ++at) {
    std::string spoiled = document;
    spoiled.insert(at, 1, '\0');
    EXPECT_TRUE(fails(spoiled)) << "NUL inserted at " << at;
    if (at < document.size()) {
      spoiled = document;
      spoiled[at] = '\0';
      EXPECT_TRUE(fails(spoiled)) << "NUL replacing byte " << at;
    }
  }
}

TEST(HostileJSON, HugeValuesAreReadWhole) {
  std::string big(4 << 20, 'x');
  big[big.size() / 2] = '\t';  // a raw tab is a control character
  EXPECT_TRUE(fails("[\"" + big + "\"]"));
  big[big.size() / 2] = 'y';
  auto array = Array::dynamicCastObject(decode("[\"" + big + "\"]"));
  ASSERT_TRUE(array);
  EXPECT_EQ(String::castObject(array->objectAtIndex(0))->view().size(), big.size());
}

}  // namespace
}  // namespace fennick
