// Property lists from outside, by family. Every hostile case reads as nil with
// a corrupt error on a thread with a small stack, and the process lives on;
// the controls beside them show that nothing legitimate is refused.
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Coding/Internal/BinaryPropertyListScan.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Coding/PropertyList.h"
#include "fennick/Runtime/Values/String.h"

#include "Runtime/HostileInputSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace fennick {
namespace {

using testing::BinaryPlistBuilder;
using testing::nestedBinaryArrays;
using testing::repeated;
using testing::runOnSmallStack;
using testing::xmlList;

constexpr std::size_t kDeep = 100000;
constexpr std::size_t kLimit = PropertyList::maxDepth;

struct Case {
  std::string name;
  std::string bytes;
  bool reads = false;  // a control: must read
};

// Reads every case on a small stack; refused cases must fail as corrupt with
// a reason containing `reason` (when given).
void expectOutcomes(const std::vector<Case>& cases, std::string_view reason = {}) {
  runOnSmallStack([&] {
    for (const Case& c : cases) {
      Ref<Error> error;
      Id plist = PropertyList::propertyListWithBytes_format_error(c.bytes, nullptr, &error);
      if (c.reads) {
        EXPECT_TRUE(plist) << c.name << ": " << (error ? error->description() : "");
        continue;
      }
      EXPECT_FALSE(plist) << c.name;
      ASSERT_TRUE(error) << c.name;
      EXPECT_EQ(error->domain(), NSCocoaErrorDomain) << c.name;
      EXPECT_EQ(error->code(), NSPropertyListReadCorruptError) << c.name;
      if (!reason.empty()) {
        EXPECT_NE(error->description().find(reason), std::string::npos) << c.name;
      }
    }
  });
}

// Containers `levels` deep: dictionaries {"k": next}, the last empty.
std::string nestedBinaryDictionaries(std::uint64_t levels) {
  BinaryPlistBuilder list;
  list.offsetSize = list.referenceSize = 4;
  const std::uint64_t key = list.add(BinaryPlistBuilder::ascii("k"));
  for (std::uint64_t i = 0; i + 1 < levels; ++i) list.add(list.dictionary({key}, {i + 2}));
  list.add(list.dictionary({}, {}));
  list.top = 1;
  return list.build();
}

// A top-level array naming `chains` chains of arrays `length` deep, each
// ending in the one before it: every chain is first reached near the top,
// but the parser also builds it again below the next chain.
std::string chainsEndingInEachOther(std::uint64_t chains, std::uint64_t length) {
  BinaryPlistBuilder list;
  list.add({});
  std::vector<std::uint64_t> heads;
  for (std::uint64_t chain = 0; chain < chains; ++chain) {
    heads.push_back(list.objects.size());
    for (std::uint64_t level = 1; level < length; ++level) list.add(list.array({heads.back() + level}));
    list.add(chain ? list.array({heads[chain - 1]}) : list.array({}));
  }
  list.objects[0] = list.array(heads);
  return list.build();
}

// Each level opens one array and hides a closing tag where libplist does not
// act on it; a scan that counted the decoy would see no depth at all.
std::string decoyLevels(std::string_view level) { return xmlList(repeated(level, kDeep, "</array>")); }

TEST(HostilePropertyList, NestingPastTheLimitIsRefusedBeforeParsing) {
  const std::vector<Case> cases = {
      {"binary arrays 100,000 deep", nestedBinaryArrays(kDeep)},
      {"binary dictionaries 100,000 deep", nestedBinaryDictionaries(kDeep)},
      {"binary arrays one past the limit", nestedBinaryArrays(kLimit + 1)},
      {"binary nesting through shared chains", chainsEndingInEachOther(3, 200)},
      {"XML arrays 100,000 deep", xmlList(repeated("<array>", kDeep, "</array>"))},
      {"XML dictionaries 100,000 deep", xmlList(repeated("<dict><key>k</key>", kDeep, "</dict>"))},
      {"XML arrays one past the limit", xmlList(repeated("<array>", kLimit + 1, "</array>"))},
      {"XML nesting under an empty top-level array",
       xmlList("<array/>" + repeated("<array>", kDeep, "</array>"))},
      {"XML closing tags in comments", decoyLevels("<array><!-- </array> -->")},
      {"XML closing tags in attribute values", decoyLevels("<array a=\"</array>\">")},
      {"XML closing tags in processing instructions", decoyLevels("<array><? </array> ?>")},
      {"XML closing tags in CDATA", decoyLevels("<array><string><![CDATA[</array>]]></string>")},
      {"XML closing tags in comments inside strings", decoyLevels("<array><string>x<!--</array>--></string>")},
      {"XML closing tags in a DOCTYPE subset", decoyLevels("<array><!DOCTYPE a [ </array> ]>")},
      {"XML closing tags quoted in a DOCTYPE", decoyLevels("<array><!DOCTYPE a \"</array>\">")},
      {"XML plist elements between arrays", xmlList(repeated("<plist><array>", kDeep, "</array></plist>"))},
  };
  expectOutcomes(cases, "nested too deeply");
  // Refused by the scan, before the parser builds the 600 levels.
  EXPECT_STREQ(detail::binaryPropertyListHazard(chainsEndingInEachOther(3, 200), kLimit),
               "containers nested too deeply");
  EXPECT_EQ(detail::binaryPropertyListHazard(chainsEndingInEachOther(2, 200), kLimit), nullptr);

  // At the limit both formats read, as written, decoys and all.
  Id deepest = Array::array();
  for (std::size_t i = 1; i < kLimit; ++i) deepest = Array::arrayWithObjects({deepest});
  std::vector<Case> controls = {
      {"binary arrays at the limit", nestedBinaryArrays(kLimit), true},
      {"XML arrays at the limit", xmlList(repeated("<array>", kLimit, "</array>")), true},
      {"XML with every kind of decoy",
       xmlList("<!DOCTYPE plist \"]>\" [ <!ENTITY a \"]>\"> ]><array a=\"</array>\"><? </array> ?>"
               "<!-- </array> --><string>a<![CDATA[</array>]]><!--</array>--></string></array>"),
       true},
  };
  for (PropertyListFormat format : {PropertyListFormat::Binary, PropertyListFormat::XML}) {
    Ref<Data> written = PropertyList::dataWithPropertyList_format_error(deepest, format, nullptr);
    ASSERT_TRUE(written);
    controls.push_back({"as written at the limit", std::string(written->stringView()), true});
  }
  expectOutcomes(controls);
}

// A small valid list: {"a": 5, "b": ["c"]}, with its writer's choices
// overridable case by case.
BinaryPlistBuilder smallList() {
  BinaryPlistBuilder list;
  list.add(list.dictionary({1, 3}, {2, 4}));
  list.add(BinaryPlistBuilder::ascii("a"));
  list.add(BinaryPlistBuilder::integer(5));
  list.add(BinaryPlistBuilder::ascii("b"));
  list.add(list.array({5}));
  list.add(BinaryPlistBuilder::ascii("c"));
  return list;
}

template <class Change>
Case changed(std::string name, Change change, bool reads = false) {
  BinaryPlistBuilder list = smallList();
  change(list);
  return {std::move(name), list.build(), reads};
}

TEST(HostilePropertyList, DamagedBinaryStructureIsRefused) {
  using B = BinaryPlistBuilder;
  std::vector<Case> cases = {
      changed("no objects", [](B& l) { l.objectCount = 0; }),
      changed("object count past the offset table", [](B& l) { l.objectCount = std::uint64_t{1} << 63; }),
      changed("top object out of range", [](B& l) { l.top = l.objects.size(); }),
      changed("offset table inside the header", [](B& l) { l.offsetTable = 4; }),
      changed("offset table past the end", [](B& l) { l.offsetTable = std::uint64_t{1} << 62; }),
      changed("offsets 0 bytes wide", [](B& l) { l.offsetSize = 0; }),
      changed("offsets 9 bytes wide", [](B& l) { l.offsetSize = 9; }),
      changed("references 0 bytes wide", [](B& l) { l.referenceSize = 0; }),
      changed("references 9 bytes wide", [](B& l) { l.referenceSize = 9; }),
      changed("object offset past the objects", [](B& l) { l.offsetOverrides = {std::nullopt, 0xFFFF}; }),
      changed("reference out of range", [](B& l) { l.objects[4] = l.array({0xFFFF}); }),
      changed("count beyond the list", [](B& l) { l.objects[4] = B::marker(0xA, std::uint64_t{1} << 40); }),
      changed("count in a 16-byte integer", [](B& l) { l.objects[4] = "\xAF\x14" + std::string(16, '\x01'); }),
      changed("count that is not an integer", [](B& l) { l.objects[4] = "\xAF\x23" + std::string(8, '\0'); }),
      changed("ASCII string longer than the list", [](B& l) { l.objects[5] = B::marker(0x5, 1ull << 62); }),
      changed("UTF-16 length that overflows", [](B& l) { l.objects[5] = B::marker(0x6, 1ull << 63); }),
      changed("data longer than the list", [](B& l) { l.objects[5] = B::marker(0x4, 1ull << 40); }),
      changed("dictionary count beyond the list", [](B& l) { l.objects[0] = B::marker(0xD, 1ull << 61); }),
      changed("array holding itself", [](B& l) { l.objects[4] = l.array({4}); }),
      changed("arrays holding each other", [](B& l) { l.objects[4] = l.array({0}); }),
      changed("dictionary keyed by itself", [](B& l) { l.objects[0] = l.dictionary({0}, {2}); }),
      changed("dictionary keyed by an array", [](B& l) { l.objects[0] = l.dictionary({4}, {2}); }),
      changed("references 3 bytes wide", [](B& l) { l.referenceSize = 3; l.objects[0] = l.dictionary({1, 3}, {2, 4}); l.objects[4] = l.array({5}); }, true),
      changed("offsets 5 bytes wide", [](B& l) { l.offsetSize = 5; }, true),
      changed("offsets and references 8 bytes wide", [](B& l) { l.offsetSize = 8; l.referenceSize = 8; l.objects[0] = l.dictionary({1, 3}, {2, 4}); l.objects[4] = l.array({5}); }, true),
      changed("unchanged", [](B&) {}, true),
  };
  // Truncated at every length.
  const std::string whole = smallList().build();
  for (std::size_t length = 0; length < whole.size(); ++length)
    cases.push_back({"truncated to " + std::to_string(length), whole.substr(0, length)});
  expectOutcomes(cases);
}

// Chains of arrays that each name the next one twice: libplist parses an
// object once per reference, so n levels make 2^n nodes.
std::string doublingArrays(std::uint64_t levels) {
  BinaryPlistBuilder list;
  for (std::uint64_t i = 0; i + 1 < levels; ++i) list.add(list.array({i + 1, i + 1}));
  list.add(BinaryPlistBuilder::ascii("x"));
  return list.build();
}

TEST(HostilePropertyList, SharedObjectsCannotMultiplyTheWork) {
  BinaryPlistBuilder longString;
  longString.add(longString.array(std::vector<std::uint64_t>(4096, 1)));
  longString.add(BinaryPlistBuilder::ascii(std::string(64 << 10, 's')));

  // Legitimate sharing: keys named by every dictionary, and one dictionary
  // named by every member of an array (as Python's writer stores a list that
  // holds the same dictionary many times).
  BinaryPlistBuilder sharedKeys;
  sharedKeys.offsetSize = sharedKeys.referenceSize = 4;
  sharedKeys.add(sharedKeys.array({}));
  std::vector<std::uint64_t> members;
  for (std::uint64_t i = 0; i < 10000; ++i)
    members.push_back(sharedKeys.add(sharedKeys.dictionary({10001, 10002}, {10003, 10003})));
  sharedKeys.objects[0] = sharedKeys.array(members);
  for (const char* text : {"name", "kind", "value"}) sharedKeys.add(BinaryPlistBuilder::ascii(text));
  BinaryPlistBuilder sharedDictionary;
  sharedDictionary.add(sharedDictionary.array(std::vector<std::uint64_t>(1000, 1)));
  std::vector<std::uint64_t> keys, values;
  for (std::uint64_t i = 0; i < 10; ++i) {
    keys.push_back(2 + 2 * i);
    values.push_back(3 + 2 * i);
  }
  sharedDictionary.add(sharedDictionary.dictionary(keys, values));
  for (std::uint8_t i = 0; i < 10; ++i) {
    sharedDictionary.add(BinaryPlistBuilder::ascii("key" + std::to_string(i)));
    sharedDictionary.add(BinaryPlistBuilder::integer(i));
  }

  expectOutcomes({{"arrays doubling 22 times", doublingArrays(22)},
                  {"arrays doubling 64 times", doublingArrays(64)},
                  {"a 64 KiB string named 4096 times", longString.build()}},
                 "expand");
  expectOutcomes({{"key strings shared by 10,000 dictionaries", sharedKeys.build(), true},
                  {"one dictionary named 1000 times", sharedDictionary.build(), true}});
  auto shared = Array::dynamicCastObject(
      PropertyList::propertyListWithBytes_format_error(sharedDictionary.build(), nullptr, nullptr));
  ASSERT_TRUE(shared);
  EXPECT_EQ(shared->count(), 1000u);
  EXPECT_TRUE(shared->objectAtIndex(0)->isEqual(shared->objectAtIndex(999).get()));
}

// A list whose top object is one string, or a dictionary {key: 1}.
std::string binaryString(std::string object) {
  BinaryPlistBuilder list;
  list.add(list.array({1}));
  list.add(std::move(object));
  return list.build();
}
std::string binaryKey(std::string key) {
  BinaryPlistBuilder list;
  list.add(list.dictionary({1}, {2}));
  list.add(std::move(key));
  list.add(BinaryPlistBuilder::integer(1));
  return list.build();
}
std::string xmlString(std::string_view text) { return xmlList("<array><string>" + std::string(text) + "</string></array>"); }
std::string xmlKey(std::string_view text) { return xmlList("<dict><key>" + std::string(text) + "</key><true/></dict>"); }

TEST(HostilePropertyList, TextThatTheParserWouldChangeIsRefused) {
  using B = BinaryPlistBuilder;
  expectOutcomes({
      {"binary ASCII string with NUL", binaryString(B::ascii(std::string("a\0b", 3)))},
      {"binary ASCII key with NUL", binaryKey(B::ascii(std::string("k\0", 2)))},
      {"binary UTF-16 key with NUL", binaryKey(B::utf16({0x61, 0x0000, 0xE9}))},
      {"binary lone lead surrogate at the end", binaryString(B::utf16({0x61, 0xD83D}))},
      {"binary lone trail surrogate", binaryString(B::utf16({0xDE00, 0x61}))},
      {"binary lead surrogate before a lead", binaryString(B::utf16({0xD83D, 0xD83D, 0xDE00}))},
      {"binary lone surrogate in a key", binaryKey(B::utf16({0xD800}))},
      {"binary ASCII string not UTF-8", binaryString(B::ascii("a\xff"))},
      {"binary ASCII string with an overlong form", binaryString(B::ascii("\xc0\xaf"))},
      {"binary ASCII string with an encoded surrogate", binaryString(B::ascii("\xed\xa0\x80"))},
      {"XML key with NUL", xmlKey(std::string("k\0x", 3))},
      {"XML string with NUL", xmlString(std::string("a\0b", 3))},
      {"XML string with &#0;", xmlString("a&#0;b")},
      {"XML string not UTF-8", xmlString("a\xff")},
      {"XML key not UTF-8", xmlKey("\xfe")},
      {"XML string with an overlong form", xmlString("\xc0\xaf")},
      {"XML string with an encoded surrogate", xmlString("\xed\xa0\x80")},
      {"XML string with a surrogate reference", xmlString("&#xD800;")},
      {"XML string with a reference past Unicode", xmlString("&#x110000;")},
  });
  expectOutcomes({
      {"binary UTF-16 string with NUL", binaryString(B::utf16({0x61, 0x0000, 0xE9})), true},
      {"binary surrogate pair", binaryString(B::utf16({0xD83D, 0xDE00})), true},
      {"XML character reference past the BMP", xmlString("&#x1F600;"), true},
  });
  auto emoji = Array::dynamicCastObject(
      PropertyList::propertyListWithBytes_format_error(binaryString(B::utf16({0xD83D, 0xDE00})), nullptr, nullptr));
  ASSERT_TRUE(emoji);
  EXPECT_TRUE(emoji->objectAtIndex(0)->isEqual("\xf0\x9f\x98\x80"_s));
}

}  // namespace
}  // namespace fennick
