#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Coding/JSON.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Coding/PropertyList.h"
#include "fennick/Runtime/Values/String.h"

#include <gtest/gtest.h>

#include <cmath>

namespace fennick {
namespace {

Id parse(std::string_view text, Ref<Error>* error = nullptr, std::uint32_t options = 0) {
  return JSON::JSONObjectWithString_options_error(text, options, error);
}

std::string write(const Id& object, std::uint32_t options = JSONWritingSortedKeys, Ref<Error>* error = nullptr) {
  std::string text;
  JSON::writeJSONObject_toString_options_error(object, text, options, error);
  return text;
}

TEST(JSON, ReadsEveryTypeKeepingNumberKinds) {
  Ref<Error> error;
  auto object = Dictionary::dynamicCastObject(parse(
      R"({"i": -3, "u": 18446744073709551615, "max": 9223372036854775807, "r": 1.5, "e": 1e2,
          "huge": 123456789012345678901234567890, "t": true, "f": false, "n": null,
          "s": "caf\u00e9 \ud83d\ude00 \"q\"", "a": [1, [2]], "o": {}, "dup": 1, "dup": 2})",
      &error));
  ASSERT_TRUE(object) << error->description();
  auto number = [&](const char* key) { return Number::castObject(object->objectForKey(key)); };
  EXPECT_EQ(number("i")->kind(), Number::Kind::Signed);
  EXPECT_EQ(number("i")->integerValue(), -3);
  EXPECT_EQ(number("u")->kind(), Number::Kind::Unsigned);
  EXPECT_EQ(number("u")->unsignedIntegerValue(), UINT64_MAX);
  EXPECT_EQ(number("max")->kind(), Number::Kind::Signed);
  EXPECT_EQ(number("r")->kind(), Number::Kind::Double);
  EXPECT_EQ(number("e")->kind(), Number::Kind::Double);
  EXPECT_EQ(number("huge")->kind(), Number::Kind::Double);
  EXPECT_EQ(number("t")->kind(), Number::Kind::Bool);
  EXPECT_FALSE(number("f")->boolValue());
  EXPECT_EQ(object->objectForKey("n"), Null::null());
  EXPECT_TRUE(object->objectForKey("s")->isEqual("caf\u00e9 \U0001F600 \"q\""_s));
  EXPECT_TRUE(object->objectForKey("a")->isEqual(
      Array::arrayWithObjects({Number::of(1), Array::arrayWithObjects({Number::of(2)})}).get()));
  EXPECT_EQ(Dictionary::castObject(object->objectForKey("o"))->count(), 0u);
  EXPECT_EQ(number("dup")->integerValue(), 2);  // the last duplicate wins
}

TEST(JSON, MalformedTextFailsWithThePosition) {
  struct Case {
    std::string text;
    std::size_t index;
  };
  const Case cases[] = {
      {"[1,]", 3},
      {"{\"a\" 1}", 5},
      {"", 0},
      {"[1] x", 4},
      {"[\"ok\", \"\xff\"]", 8},
      {"[\"\\ud800\"]", 8},
      {"[tru]", 4},
  };
  for (const Case& c : cases) {
    Ref<Error> error;
    EXPECT_EQ(parse(c.text, &error), nullptr) << c.text;
    ASSERT_TRUE(error) << c.text;
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(error->code(), NSPropertyListReadCorruptError);
    auto index = Number::dynamicCastObject(error->userInfo()->objectForKey(JSONErrorIndexKey));
    ASSERT_TRUE(index) << c.text;
    EXPECT_EQ(index->integerValue(), static_cast<std::int64_t>(c.index)) << c.text << ": " << error->description();
  }

  // Fragments need the option; nesting has a limit.
  Ref<Error> error;
  EXPECT_EQ(parse("42", &error), nullptr);
  ASSERT_TRUE(error);
  EXPECT_TRUE(parse("42", nullptr, JSONReadingFragmentsAllowed)->isEqual(Number::of(42).get()));
  const std::string deep = std::string(JSON::maxDepth + 1, '[') + std::string(JSON::maxDepth + 1, ']');
  error = nullptr;
  EXPECT_EQ(parse(deep, &error), nullptr);
  ASSERT_TRUE(error);
  EXPECT_NE(error->description().find("nested"), std::string::npos);
  EXPECT_TRUE(parse(deep.substr(1, deep.size() - 2)));
}

TEST(JSON, WritesTextThatReadsBack) {
  auto object = Dictionary::dictionaryWithStringKeys({
      {"b", Array::arrayWithObjects({Number::of(1), Number::of(2.5), Number::numberWithBool(true), Null::null(),
                                     Number::of(UINT64_MAX)})},
      {"a", String::string("x/y\n\"\x01")},
      {"c", Dictionary::dictionary()},
  });
  EXPECT_EQ(write(object), R"({"a":"x\/y\n\"\u0001","b":[1,2.5,true,null,18446744073709551615],"c":{}})");
  EXPECT_EQ(write(object, JSONWritingSortedKeys | JSONWritingPrettyPrinted | JSONWritingWithoutEscapingSlashes),
            "{\n  \"a\" : \"x/y\\n\\\"\\u0001\",\n  \"b\" : [\n    1,\n    2.5,\n    true,\n    null,\n"
            "    18446744073709551615\n  ],\n  \"c\" : {}\n}");
  Ref<Error> error;
  Id back = parse(write(object, JSONWritingPrettyPrinted), &error);
  ASSERT_TRUE(back) << error->description();
  EXPECT_TRUE(back->isEqual(object.get()));
}

TEST(JSON, RefusesToWriteWhatJSONCannotHold) {
  auto cyclic = Array::array();
  cyclic->addObject(cyclic);
  const std::pair<const char*, Id> cases[] = {
      {"NaN", Array::arrayWithObjects({Number::of(std::nan(""))})},
      {"Date", Array::arrayWithObjects({Date::date()})},
      {"non-string", Dictionary::dictionaryWithObjectsAndKeys({{Number::of(1), "v"_s}})},
      {"holding themselves", cyclic},
      {"UTF-8", Array::arrayWithObjects({String::string("\xc3")})},
      {"top-level", "fragment"_s},
  };
  for (const auto& [culprit, object] : cases) {
    Ref<Error> error;
    EXPECT_EQ(JSON::dataWithJSONObject_options_error(object, 0, &error), nullptr) << culprit;
    ASSERT_TRUE(error) << culprit;
    EXPECT_EQ(error->code(), NSPropertyListWriteInvalidError);
    EXPECT_NE(error->description().find(culprit), std::string::npos) << error->description();
    EXPECT_FALSE(JSON::isValidJSONObject(object));
  }
  EXPECT_EQ(write("fragment"_s, JSONWritingFragmentsAllowed), "\"fragment\"");
  cyclic->removeAllObjects();
}

}  // namespace
}  // namespace fennick
