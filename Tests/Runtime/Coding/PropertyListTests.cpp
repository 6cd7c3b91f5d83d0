#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/ObjectModel/Log.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Coding/PropertyList.h"
#include "fennick/Runtime/Collections/Set.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"

#include "Runtime/Coding/PythonReader.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace fennick {
namespace {

using nlohmann::json;
using testing::runPython;
using testing::TemporaryFile;

constexpr PropertyListFormat kFormats[] = {PropertyListFormat::XML, PropertyListFormat::Binary};

Ref<Data> write(const Id& plist, PropertyListFormat format, Ref<Error>* error = nullptr) {
  return PropertyList::dataWithPropertyList_format_error(plist, format, error);
}

Id read(const Ref<Data>& data, PropertyListFormat* format = nullptr, Ref<Error>* error = nullptr) {
  return PropertyList::propertyListWithData_format_error(data, format, error);
}

json dumpWithPython(const Ref<Data>& data) {
  TemporaryFile file;
  file.write(data);
  int status = 0;
  const std::string output = runPython("property_list_tool.py", "dump '" + file.path() + "'", &status);
  EXPECT_EQ(status, 0) << output;
  return json::parse(output, nullptr, false);
}

Ref<Dictionary> sample() {
  return Dictionary::dictionaryWithStringKeys({
      {"integers", Array::arrayWithObjects({Number::of(-5), Number::of(INT64_MIN), Number::of(INT64_MAX),
                                            Number::of(UINT64_MAX), Number::of(std::uint64_t{1} << 63)})},
      {"real", Number::of(-2.5)},
      {"flags", Array::arrayWithObjects({Number::numberWithBool(true), Number::numberWithBool(false)})},
      {"text", String::string("caf\u00e9 \u2603 <&>")},
      {"bytes", Data::dataWithString(std::string("\x00\xff", 2))},
      {"past", Date::dateWithTimeIntervalSinceReferenceDate(-86400.25)},
      {"nested", Dictionary::dictionaryWithStringKeys({{"empty", Array::array()}})},
  });
}

TEST(PropertyList, RoundTripsEveryTypeInBothFormatsAndPythonAgrees) {
  for (PropertyListFormat format : kFormats) {
    const bool binary = format == PropertyListFormat::Binary;
    Ref<Error> error;
    Ref<Data> data = write(sample(), format, &error);
    ASSERT_TRUE(data) << error->description();

    PropertyListFormat found{};
    auto decoded = Dictionary::dynamicCastObject(read(data, &found, &error));
    ASSERT_TRUE(decoded) << error->description();
    EXPECT_EQ(found, format);
    // XML keeps whole seconds of dates (truncated); everything else is exact.
    auto past = Date::castObject(decoded->objectForKey("past"));
    EXPECT_DOUBLE_EQ(past->timeIntervalSinceReferenceDate(), binary ? -86400.25 : -86400);
    decoded->removeObjectForKey("past");
    auto expected = sample();
    expected->removeObjectForKey("past");
    EXPECT_TRUE(decoded->isEqual(expected.get())) << decoded->description();
    auto integers = Array::castObject(decoded->objectForKey("integers"));
    EXPECT_EQ(Number::castObject(integers->objectAtIndex(1))->kind(), Number::Kind::Signed);
    EXPECT_EQ(Number::castObject(integers->objectAtIndex(3))->kind(), Number::Kind::Unsigned);
    EXPECT_EQ(Number::castObject(integers->objectAtIndex(4))->unsignedIntegerValue(), std::uint64_t{1} << 63);

    const json python = dumpWithPython(data);
    ASSERT_TRUE(python.is_object()) << (binary ? "binary" : "xml");
    EXPECT_EQ(python["integers"][0], -5);
    EXPECT_EQ(python["integers"][1], INT64_MIN);
    EXPECT_EQ(python["integers"][2], INT64_MAX);
    EXPECT_EQ(python["integers"][3].get<std::uint64_t>(), UINT64_MAX);
    EXPECT_EQ(python["integers"][4].get<std::uint64_t>(), std::uint64_t{1} << 63);
    EXPECT_EQ(python["real"]["$real"], -2.5);
    EXPECT_EQ(python["flags"], json({true, false}));
    EXPECT_EQ(python["text"], "caf\u00e9 \u2603 <&>");
    EXPECT_EQ(python["bytes"]["$bytes"], "00ff");
    EXPECT_DOUBLE_EQ(python["past"]["$date"].get<double>(), binary ? -86400.25 : -86400);
  }
}

TEST(PropertyList, ReadsListsWrittenByPython) {
  for (const char* format : {"xml", "binary"}) {
    TemporaryFile file;
    int status = 0;
    runPython("property_list_tool.py", "write '" + file.path() + "' " + format, &status);
    ASSERT_EQ(status, 0);
    Ref<Error> error;
    auto plist = Dictionary::dynamicCastObject(read(file.read(), nullptr, &error));
    ASSERT_TRUE(plist) << format << ": " << error->description();
    auto integers = Array::castObject(plist->objectForKey("integers"));
    ASSERT_EQ(integers->count(), 6u) << format;
    auto number = [&](std::size_t i) { return Number::castObject(integers->objectAtIndex(i)); };
    EXPECT_EQ(number(0)->integerValue(), -5) << format;
    EXPECT_EQ(number(1)->kind(), Number::Kind::Unsigned) << format;
    EXPECT_EQ(number(1)->unsignedIntegerValue(), UINT64_MAX) << format;
    EXPECT_EQ(number(2)->kind(), Number::Kind::Unsigned) << format;
    EXPECT_EQ(number(3)->kind(), Number::Kind::Signed) << format;
    EXPECT_EQ(number(3)->integerValue(), INT64_MIN) << format;
    EXPECT_EQ(number(4)->integerValue(), INT64_MAX) << format;
    EXPECT_EQ(Date::castObject(plist->objectForKey("when"))->timeIntervalSinceReferenceDate(), -86400) << format;
    EXPECT_TRUE(plist->objectForKey("text")->isEqual("caf\u00e9 \u2603"_s)) << format;
    EXPECT_EQ(plist->objectForKey("flag"), Number::numberWithBool(false)) << format;
  }
}

TEST(PropertyList, MalformedDataGivesCorruptError) {
  const std::string inputs[] = {
      "",
      "not a property list",
      "<plist><array><integer>1</integer>",
      std::string("bplist00\xd1\x01\x02\x00\x00", 13),
      "<plist version=\"1.0\"><dict><string>no key</string></dict></plist>",
      "<plist version=\"1.0\"><unknown/></plist>",
      // Text that is not UTF-8 would change when written back.
      "<plist version=\"1.0\"><string>a\xff</string></plist>",
      "<plist version=\"1.0\"><dict><key>\xc0\x80</key><true/></dict></plist>",
  };
  for (const std::string& input : inputs) {
    Ref<Error> error;
    EXPECT_EQ(read(Data::dataWithString(input), nullptr, &error), nullptr) << input;
    ASSERT_TRUE(error) << input;
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(error->code(), NSPropertyListReadCorruptError);
  }
}

// libplist aborts on a dictionary key that holds U+0000 in its UTF-16 form;
// such a key must fail as corrupt, while the same text as a value still reads.
TEST(PropertyList, UTF16KeyHoldingNULIsCorruptButSuchAValueReads) {
  // {"a\0\u00e9": "x"} and {"k": "a\0\u00e9"} as Python's plistlib writes them.
  const std::string trailer(
      "\x00\x00\x00\x00\x00\x00\x01\x01\x00\x00\x00\x00\x00\x00\x00\x03"
      "\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x14",
      32);
  const std::string badKey =
      std::string("bplist00\xd1\x01\x02\x63\x00\x61\x00\x00\x00\xe9\x51\x78\x08\x0b\x12", 23) + trailer;
  const std::string value =
      std::string("bplist00\xd1\x01\x02\x51\x6b\x63\x00\x61\x00\x00\x00\xe9\x08\x0b\x0d", 23) + trailer;

  Ref<Error> error;
  EXPECT_EQ(read(Data::dataWithString(badKey), nullptr, &error), nullptr);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSPropertyListReadCorruptError);

  auto plist = Dictionary::dynamicCastObject(read(Data::dataWithString(value), nullptr, nullptr));
  ASSERT_TRUE(plist);
  EXPECT_TRUE(plist->objectForKey("k")->isEqual(String::string(std::string_view("a\0\xc3\xa9", 4))));
}

TEST(PropertyList, RefusesWhatAPropertyListCannotHold) {
  auto cyclic = Array::array();
  cyclic->addObject(cyclic);
  Id deep = Array::array();
  for (std::size_t i = 0; i <= PropertyList::maxDepth; ++i) deep = Array::arrayWithObjects({deep});
  const std::pair<const char*, Id> cases[] = {
      {"Null", Array::arrayWithObjects({Null::null()})},
      {"Set", Set::setWithObjects({"a"_s})},
      {"keys must be strings", Dictionary::dictionaryWithObjectsAndKeys({{Number::of(1), "v"_s}})},
      {"holds itself", cyclic},
      {"nested too deeply", deep},
      {"NUL", String::string(std::string_view("a\0b", 3))},
      {"date", Date::dateWithTimeIntervalSinceReferenceDate(1e12)},
  };
  for (const auto& [culprit, plist] : cases) {
    for (PropertyListFormat format : kFormats) {
      Ref<Error> error;
      EXPECT_EQ(write(plist, format, &error), nullptr) << culprit;
      ASSERT_TRUE(error) << culprit;
      EXPECT_EQ(error->code(), NSPropertyListWriteInvalidError);
      EXPECT_NE(error->description().find(culprit), std::string::npos) << error->description();
    }
    EXPECT_FALSE(PropertyList::propertyList_isValidForFormat(plist, PropertyListFormat::Binary));
  }
  cyclic->removeAllObjects();
}

// Values that cannot be written are often secrets (the keychain store writes
// passwords and logs the error): the error names the class and the reason,
// and neither it nor a log line made of it holds the value.
TEST(PropertyList, WriteErrorsNameTheClassButNeverTheValue) {
  const std::string secret = "hunter2-correct-horse";
  const std::string withNUL = secret + std::string(1, '\0');
  const std::pair<const char*, Id> cases[] = {
      {"String", String::string(withNUL)},
      {"String", Dictionary::dictionaryWithStringKeys({{withNUL, "v"_s}})},
      {"URL", Array::arrayWithObjects({URL::URLWithString("https://user:" + secret + "@example.com/")})},
      {"Error", Error::errorWithDomain_code_description("D", 1, secret)},
      {"Set", Set::setWithObjects({String::string(secret)})},
  };
  LogCapture log;
  for (const auto& [className, plist] : cases) {
    for (PropertyListFormat format : kFormats) {
      Ref<Error> error;
      EXPECT_EQ(write(plist, format, &error), nullptr) << className;
      ASSERT_TRUE(error) << className;
      const std::string description = error->description();
      EXPECT_EQ(description.find(secret), std::string::npos) << description;
      EXPECT_NE(description.find(className), std::string::npos) << description;
      OVLog("Plist serialization error: {}", description);
    }
  }
  EXPECT_EQ(log.lines().size(), 2 * std::size(cases));
  EXPECT_FALSE(log.contains(secret));
  EXPECT_TRUE(log.contains("Plist serialization error: "));
}

}  // namespace
}  // namespace fennick
