#include "fennick/Helpers/Data/OVJSONParser.h"
#include "fennick/Runtime/Processes/Bundle.h"
#include "fennick/Runtime/Coding/JSON.h"
#include "fennick/Runtime/Values/Null.h"

#include "Runtime/Processes/BundleTestSupport.h"

#include <gtest/gtest.h>
#include <libintl.h>

#include <clocale>

namespace fennick {
namespace {

Ref<OVJSONParser> reader(std::string_view json) {
  auto document = Dictionary::dynamicCastObject(JSON::JSONObjectWithString_options_error(json, 0, nullptr));
  EXPECT_TRUE(document) << json;
  return OVJSONParser::initWithJSON(document);
}

void expectError(const Ref<OVJSONParser>& parser, std::int64_t code, const std::string& description) {
  Ref<Error> error = parser->lastError();
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain(), "com.orvane.OVJSONParserErrorDomain");
  EXPECT_EQ(error->code(), code);
  EXPECT_EQ(error->localizedDescription(), description);
}

TEST(OVJSONParser, TypedReadsByKey) {
  EXPECT_FALSE(OVJSONParser::initWithJSON(nullptr));
  auto parser = reader(R"({"n": 42, "big": 18446744073709551615, "x": 2.5, "s": "text", "d": {}, "a": [1],
                           "u": "https://example.com/a?b", "bad": "not a url", "t": 1.5})");
  EXPECT_EQ(parser->integerForKey("n"), 42);
  EXPECT_EQ(parser->unsignedIntegerForKey("big"), UINT64_MAX);
  EXPECT_EQ(parser->doubleForKey("x"), 2.5);
  EXPECT_EQ(parser->stringForKey("s")->utf8(), "text");
  EXPECT_TRUE(parser->dictionaryForKey("d"));
  EXPECT_EQ(parser->arrayForKey("a")->count(), 1u);
  EXPECT_EQ(parser->URLForKey("u")->host(), "example.com");
  EXPECT_FALSE(parser->URLForKey("bad"));  // not a URL: nil, but no error
  EXPECT_EQ(parser->unixtimeBasedDateForKey("t")->timeIntervalSince1970(), 1.5);
  EXPECT_FALSE(parser->lastError());
}

TEST(OVJSONParser, TheFirstFailureIsStickyAndNullIsAnIncorrectType) {
  auto parser = reader(R"({"name": null, "ok": "fine", "n": 1})");
  EXPECT_FALSE(parser->stringForKey("name"));
  expectError(parser, -1001, "Incorrect type of value for key name");
  EXPECT_FALSE(parser->stringForKey("ok"));  // valid, but an error is already there
  EXPECT_EQ(parser->integerForKey("missing"), 0);
  expectError(parser, -1001, "Incorrect type of value for key name");
  // Optional reads neither look at nor touch the error.
  EXPECT_FALSE(parser->objectForKeyPath_ofClass_isOptional("name", String::staticClass(), true));
  EXPECT_EQ(parser->objectForKeyPath_ofClass_isOptional("ok", String::staticClass(), true)->description(), "fine");
  expectError(parser, -1001, "Incorrect type of value for key name");

  parser->setLastError(nullptr);
  EXPECT_EQ(parser->integerForKey("missing"), 0);
  expectError(parser, -1000, "Missing value for key missing");
}

TEST(OVJSONParser, KeyPathsNameTheComponentThatFailed) {
  struct Case {
    const char* json;
    const char* path;
    std::int64_t code;
    const char* key;
  };
  const Case cases[] = {
      {R"({"a": "string"})", "a.b.c", -1001, "a"},
      {R"({})", "a.b.c", -1000, "a"},
      {R"({"a": {"b": {}}})", "a.b.c", -1000, "c"},
      {R"({"a": {"b": {"c": "x"}}})", "a.b.c", -1001, "c"},
      {R"({"a": {"": {"b": 1}}})", "a..c", -1000, "c"},
      {R"({"a": {"b": 1}})", "a..b", -1000, ""},
      {R"({"a.b": 1})", "a.b", -1000, "a"},
  };
  for (const Case& c : cases) {
    auto parser = reader(c.json);
    EXPECT_FALSE(parser->numberForKeyPath(c.path)) << c.json;
    ASSERT_TRUE(parser->lastError()) << c.json;
    EXPECT_EQ(parser->lastError()->code(), c.code) << c.json;
    EXPECT_EQ(parser->lastError()->localizedDescription(),
              std::string(c.code == -1000 ? "Missing value for key " : "Incorrect type of value for key ") + c.key)
        << c.json;
  }

  auto parser = reader(R"({"a": {"b": {"c": 7, "when": 86400, "home": "file:///tmp"}}, "plain": 3})");
  EXPECT_EQ(parser->numberForKeyPath("a.b.c")->integerValue(), 7);
  EXPECT_EQ(parser->numberForKeyPath("plain")->integerValue(), 3);
  EXPECT_EQ(parser->unixtimeBasedDateForKeyPath("a.b.when")->timeIntervalSince1970(), 86400);
  EXPECT_EQ(parser->URLForKeyPath("a.b.home")->path(), "/tmp");
  EXPECT_FALSE(parser->lastError());
}

TEST(OVJSONParser, TheClassWalkNeverRecordsErrors) {
  Id json = JSON::JSONObjectWithString_options_error(R"({"a": {"b": [1, 2]}, "s": "x"})", 0, nullptr);
  EXPECT_TRUE(OVJSONParser::validatedObjectFromJSON_forKeyPath_ofClass(json, "a.b", Array::staticClass()));
  EXPECT_FALSE(OVJSONParser::validatedObjectFromJSON_forKeyPath_ofClass(json, "a.b", String::staticClass()));
  EXPECT_FALSE(OVJSONParser::validatedObjectFromJSON_forKeyPath_ofClass(json, "s.b", String::staticClass()));
  EXPECT_FALSE(OVJSONParser::validatedObjectFromJSON_forKeyPath_ofClass(nullptr, "s", String::staticClass()));
  EXPECT_FALSE(OVJSONParser::validatedObjectFromJSON_forKeyPath_ofClass(Null::null(), "s", String::staticClass()));
}

TEST(OVJSONParser, KeysHoldingNulAreMatchedWhole) {
  using namespace std::string_literals;
  auto parser = reader(R"({"a\u0000b": 1, "a": "x", "p\u0000": {"q": 2}, "p": {"q": "no"}})");
  EXPECT_EQ(parser->integerForKey("a\0b"s), 1);
  EXPECT_EQ(parser->stringForKey("a")->utf8(), "x");
  EXPECT_EQ(parser->numberForKeyPath("p\0.q"s)->integerValue(), 2);
  EXPECT_EQ(parser->stringForKeyPath("p.q")->utf8(), "no");
  EXPECT_FALSE(parser->lastError());
  EXPECT_FALSE(parser->numberForKey("a\0"s));
  ASSERT_TRUE(parser->lastError());
  EXPECT_EQ(parser->lastError()->code(), OVJSONParserErrorCodeMissingValue);
}

TEST(OVJSONParser, MessagesAreTranslatedInTheMainBundlesTextDomain) {
  testing::TemporaryDirectory dir;
  const std::string domain = Bundle::mainBundle()->bundleIdentifier();
  testing::writeFile(dir.file("de.po"),
                     "msgid \"Missing value for key %@\"\nmsgstr \"Wert f\xc3\xbcr Schl\xc3\xbcssel %1$@ fehlt\"\n");
  const std::string command =
      "msgfmt -o '" + dir.file("de/LC_MESSAGES/" + domain + ".mo") + "' '" + dir.path() + "/de.po'";
  ASSERT_EQ(std::system(command.c_str()), 0);
  ::setenv("LANGUAGE", "de", 1);
  ASSERT_TRUE(std::setlocale(LC_MESSAGES, "C.UTF-8"));
  ::bindtextdomain(domain.c_str(), dir.path().c_str());

  auto parser = reader("{}");
  parser->stringForKey("user");
  expectError(parser, -1000, "Wert f\xc3\xbcr Schl\xc3\xbcssel user fehlt");
  EXPECT_EQ(parser->createIncorrectTypeErrorForKey("k")->localizedDescription(), "Incorrect type of value for key k");
  // gettext reads C strings: a key with a NUL after a known message is not
  // that message, and stays untranslated.
  const std::string spoiled("Missing value for key %@\0!", 26);
  EXPECT_EQ(Bundle::mainBundle()->localizedStringForKey_value_table(spoiled, "", ""), spoiled);
  std::setlocale(LC_MESSAGES, "C");
}

}  // namespace
}  // namespace fennick
