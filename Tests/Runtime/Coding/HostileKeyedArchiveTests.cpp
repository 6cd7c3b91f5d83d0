// Keyed archives from outside, by family. Structure built to harm the reader
// (nesting in the list or through UIDs, cycles, UIDs out of range, wrong
// classes, huge counts) gives nil and a corrupt error on a small stack, and
// the process lives on; counts the archive states are taken without being
// counted out one by one.
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Coding/KeyedUnarchiver.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Collections/Set.h"
#include "fennick/Runtime/Values/String.h"

#include "Runtime/HostileInputSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace fennick {
namespace {

using testing::bigEndian;
using testing::BinaryPlistBuilder;
using testing::nestedBinaryArrays;
using testing::repeated;
using testing::runOnSmallStack;

constexpr std::uint64_t kDeep = 100000;

const ClassList kAllowed{Array::staticClass(),  Dictionary::staticClass(), String::staticClass(),
                         Number::staticClass(), Data::staticClass(),       CountedSet::staticClass()};

std::string uid(std::uint64_t value) {
  const std::size_t width = value <= 0xFF ? 1 : value <= 0xFFFF ? 2 : value <= 0xFFFFFFFF ? 4 : 8;
  return static_cast<char>(0x80 | (width - 1)) + bigEndian(value, width);
}

// A binary archive with the root at `rootUID` under `rootKey` in "$top",
// and the "$objects" that `fill` adds (it answers their indexes in the list
// after UID 0, "$null").
std::string binaryArchive(const std::function<void(BinaryPlistBuilder&, std::vector<std::uint64_t>&)>& fill,
                          const std::string& rootKey = BinaryPlistBuilder::ascii("root"), std::uint64_t rootUID = 1) {
  BinaryPlistBuilder list;
  list.offsetSize = list.referenceSize = 4;
  list.add({});  // the archive's dictionary, filled in last
  auto text = [&](std::string_view t) { return list.add(BinaryPlistBuilder::ascii(t)); };
  const std::vector<std::uint64_t> keys = {text("$archiver"), text("$version"), text("$top"), text("$objects")};
  std::vector<std::uint64_t> values = {text("NSKeyedArchiver"), list.add("\x12" + bigEndian(100000, 4))};
  const std::uint64_t root = list.add(rootKey);
  values.push_back(list.add(list.dictionary({root}, {list.add(uid(rootUID))})));
  std::vector<std::uint64_t> objects = {text("$null")};
  fill(list, objects);
  values.push_back(list.add(list.array(objects)));
  list.objects[0] = list.dictionary(keys, values);
  return list.build();
}

// {"$classname": name, "$classes": [name]}
std::uint64_t classEntry(BinaryPlistBuilder& list, std::string_view name) {
  const std::uint64_t text = list.add(BinaryPlistBuilder::ascii(name));
  return list.add(list.dictionary({list.add(BinaryPlistBuilder::ascii("$classname")),
                                   list.add(BinaryPlistBuilder::ascii("$classes"))},
                                  {text, list.add(list.array({text}))}));
}

// Arrays holding each other through UIDs, `levels` deep.
std::string nestedThroughUIDs(std::uint64_t levels) {
  return binaryArchive([&](BinaryPlistBuilder& list, std::vector<std::uint64_t>& objects) {
    const std::uint64_t classKey = list.add(BinaryPlistBuilder::ascii("$class"));
    const std::uint64_t membersKey = list.add(BinaryPlistBuilder::ascii("NS.objects"));
    const std::uint64_t classUID = list.add(uid(levels + 1));
    for (std::uint64_t level = 1; level <= levels; ++level) {
      std::vector<std::uint64_t> members;
      if (level < levels) members.push_back(list.add(uid(level + 1)));
      objects.push_back(list.add(list.dictionary({classKey, membersKey}, {classUID, list.add(list.array(members))})));
    }
    objects.push_back(classEntry(list, "NSArray"));
  });
}

// An XML archive with the root at UID 1 and these "$objects" after "$null".
std::string xmlArchive(std::string_view objects) {
  return "<plist><dict><key>$archiver</key><string>NSKeyedArchiver</string><key>$version</key>"
         "<integer>100000</integer><key>$top</key><dict><key>root</key><dict><key>CF$UID</key><integer>1"
         "</integer></dict></dict><key>$objects</key><array><string>$null</string>" +
         std::string(objects) + "</array></dict></plist>";
}
std::string xmlUID(std::uint64_t value) {
  return "<dict><key>CF$UID</key><integer>" + std::to_string(value) + "</integer></dict>";
}
std::string xmlClass(std::string_view name) {
  return "<dict><key>$classname</key><string>" + std::string(name) + "</string><key>$classes</key><array><string>" +
         std::string(name) + "</string></array></dict>";
}
// An object of the class at UID 2 whose other fields are `fields`, then that class.
std::string xmlObject(std::string_view fields, std::string_view className) {
  return "<dict><key>$class</key>" + xmlUID(2) + std::string(fields) + "</dict>" + xmlClass(className);
}

struct Case {
  const char* name;
  std::string archive;
};

TEST(HostileKeyedArchive, StructureBuiltToHarmTheReaderIsRefused) {
  const std::vector<Case> cases = {
      {"list nesting 100,000 deep in $objects",
       binaryArchive([](auto& list, auto& objects) {
         const std::uint64_t first = list.objects.size();
         for (std::uint64_t level = 1; level < kDeep; ++level) list.add(list.array({first + level}));
         list.add(list.array({}));
         objects.push_back(first);
       })},
      {"list nesting 100,000 deep in $objects, XML",
       xmlArchive(xmlObject("<key>NS.objects</key>" + repeated("<array>", kDeep, "</array>"), "NSArray"))},
      {"objects nested 100,000 deep through UIDs", nestedThroughUIDs(kDeep)},
      {"objects one level past the limit", nestedThroughUIDs(KeyedUnarchiver::maxDepth + 1)},
      {"a top-level key holding U+0000",
       binaryArchive([](auto& list, auto& objects) { objects.push_back(list.add(BinaryPlistBuilder::ascii("x"))); },
                     BinaryPlistBuilder::utf16({'r', 0, 'o', 't'}))},
      {"$objects holding itself in the list",
       binaryArchive([](auto& list, auto& objects) { objects.push_back(list.objects.size()); })},
      {"root UID at 2^32 - 1", binaryArchive([](auto&, auto&) {}, BinaryPlistBuilder::ascii("root"), 0xFFFFFFFF)},
      {"$class UID out of range", xmlArchive("<dict><key>$class</key>" + xmlUID(0xFFFFFFFF) + "</dict>")},
      {"$classname that is a number",
       xmlArchive("<dict><key>$class</key>" + xmlUID(2) + "</dict><dict><key>$classname</key><integer>7</integer></dict>")},
      {"class outside the allowed set", xmlArchive(xmlObject("<key>NS.time</key><real>1</real>", "NSDate"))},
      {"NS.objects that is a dictionary", xmlArchive(xmlObject("<key>NS.objects</key><dict/>", "NSArray"))},
      {"member UID out of range", xmlArchive(xmlObject("<key>NS.objects</key><array>" + xmlUID(1u << 31) + "</array>", "NSArray"))},
      {"dictionary with more keys than objects",
       xmlArchive(xmlObject("<key>NS.keys</key><array>" + xmlUID(3) + xmlUID(3) + "</array><key>NS.objects</key><array>" +
                                xmlUID(3) + "</array>",
                            "NSDictionary") +
                  "<string>k</string>")},
      {"a string that is not UTF-8", xmlArchive("<string>\xff\xfe</string>")},
      {"a mutable string that is not UTF-8",
       xmlArchive(xmlObject("<key>NS.string</key><string>\xc0\xaf</string>", "NSMutableString"))},
      {"an entry declaring 2^40 members",
       binaryArchive([](auto& list, auto& objects) {
         list.add(BinaryPlistBuilder::marker(0xA, std::uint64_t{1} << 40));
         objects.push_back(list.objects.size() - 1);
       })},
  };
  runOnSmallStack([&] {
    for (const Case& c : cases) {
      Ref<Error> error;
      EXPECT_FALSE(KeyedUnarchiver::unarchivedObjectOfClasses_fromData_error(
          kAllowed, Data::dataWithString(c.archive), &error))
          << c.name;
      ASSERT_TRUE(error) << c.name;
      EXPECT_EQ(error->domain(), NSCocoaErrorDomain) << c.name;
      EXPECT_EQ(error->code(), NSCoderReadCorruptError) << c.name << ": " << error->description();
    }
    // The deepest graph accepted decodes on the same stack.
    Ref<Error> error;
    EXPECT_TRUE(KeyedUnarchiver::unarchivedObjectOfClasses_fromData_error(
        kAllowed, Data::dataWithString(nestedThroughUIDs(KeyedUnarchiver::maxDepth)), &error))
        << error->description();
  });
}

TEST(HostileKeyedArchive, CountsAreTakenAtTheirWord) {
  const std::uint64_t huge = std::uint64_t{1} << 62;
  const std::string archive = xmlArchive(
      xmlObject("<key>NS.objects</key><array>" + xmlUID(3) + "</array><key>NS.count.0</key><integer>" +
                    std::to_string(huge) + "</integer>",
                "NSCountedSet") +
      "<string>member</string>");
  Ref<Error> error;
  auto set = CountedSet::dynamicCastObject(
      KeyedUnarchiver::unarchivedObjectOfClasses_fromData_error(kAllowed, Data::dataWithString(archive), &error));
  ASSERT_TRUE(set) << error->description();
  EXPECT_EQ(set->countForObject("member"_s), huge);
}

}  // namespace
}  // namespace fennick
