// Bundles from outside, by family: information property lists built to harm
// the reader, in a bundle directory and in an executable's section, give no
// bundle; ELF images with damaged headers give no section. All on a small
// stack, and the process lives on.
#include "fennick/Runtime/Processes/Bundle.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Processes/Internal/BundleELFSection.h"
#include "fennick/Runtime/Coding/PropertyList.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"

#include "Runtime/Processes/BundleTestSupport.h"
#include "Runtime/HostileInputSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace fennick {
namespace {

using testing::BinaryPlistBuilder;
using testing::elfImage;
using testing::executableWithInfoSection;
using testing::repeated;
using testing::runOnSmallStack;
using testing::TemporaryDirectory;
using testing::writeFile;
using testing::xmlList;

constexpr std::uint64_t kDeep = 100000;

// {"CFBundleIdentifier": "x", "Extra": what `extra` adds} as a binary list.
std::string binaryInfo(const std::function<std::uint64_t(BinaryPlistBuilder&)>& extra) {
  BinaryPlistBuilder list;
  list.offsetSize = list.referenceSize = 4;
  list.add({});
  const std::uint64_t identifierKey = list.add(BinaryPlistBuilder::ascii("CFBundleIdentifier"));
  const std::uint64_t identifier = list.add(BinaryPlistBuilder::ascii("x"));
  const std::uint64_t extraKey = list.add(BinaryPlistBuilder::ascii("Extra"));
  const std::uint64_t value = extra(list);
  list.objects[0] = list.dictionary({identifierKey, extraKey}, {identifier, value});
  return list.build();
}
std::string xmlInfo(std::string_view extra) {
  return xmlList("<dict><key>CFBundleIdentifier</key><string>x</string><key>Extra</key>" + std::string(extra) +
                 "</dict>");
}

// Arrays `levels` deep, or arrays naming the next one twice `levels` times.
std::uint64_t chain(BinaryPlistBuilder& list, std::uint64_t levels, std::size_t references) {
  const std::uint64_t first = list.objects.size();
  for (std::uint64_t level = 1; level < levels; ++level)
    list.add(list.array(std::vector<std::uint64_t>(references, first + level)));
  list.add(list.array({}));
  return first;
}

std::string identifierOf(const std::string& path) {
  Ref<Dictionary> info = OVInfoDictionaryForBundleAtURL(URL::fileURLWithPath(path));
  auto identifier = info ? String::dynamicCastObject(info->objectForKey("CFBundleIdentifier")) : nullptr;
  return identifier ? identifier->utf8() : "<none>";
}

TEST(HostileBundle, InformationListsBuiltToHarmTheReaderGiveNoBundle) {
  const std::string control = binaryInfo([](auto& list) { return list.add(BinaryPlistBuilder::ascii("y")); });
  const std::pair<std::string, std::string> cases[] = {
      {"binary nested 100,000 deep", binaryInfo([](auto& list) { return chain(list, kDeep, 1); })},
      {"binary doubling 40 times", binaryInfo([](auto& list) { return chain(list, 40, 2); })},
      {"binary lone surrogate", binaryInfo([](auto& list) { return list.add(BinaryPlistBuilder::utf16({0xD800})); })},
      {"binary truncated", control.substr(0, control.size() / 2)},
      {"XML nested 100,000 deep", xmlInfo(repeated("<array>", kDeep, "</array>"))},
      {"XML nested behind comments", xmlInfo(repeated("<array><!-- </array> -->", kDeep, "</array>"))},
      {"XML key with NUL", xmlInfo(std::string("<true/><key>a\0b", 15) + "</key><true/>")},
      {"empty", ""},
  };
  TemporaryDirectory dir;
  std::vector<std::string> paths;
  for (const auto& [name, bytes] : cases) {
    writeFile(dir.file(name + "/Contents/Info.plist"), bytes);
    paths.push_back(dir.path() + "/" + name);
    paths.push_back(executableWithInfoSection(dir, name + " tool", bytes));
  }
  writeFile(dir.file("control/Info.plist"), control);
  const std::string controlTool = executableWithInfoSection(dir, "control tool", xmlInfo("<string>y</string>"));

  runOnSmallStack([&] {
    for (const std::string& path : paths) {
      EXPECT_FALSE(OVInfoDictionaryForBundleAtURL(URL::fileURLWithPath(path))) << path;
      EXPECT_FALSE(Bundle::bundleWithPath(path)) << path;
    }
    EXPECT_EQ(identifierOf(dir.path() + "/control"), "x");
    EXPECT_EQ(identifierOf(controlTool), "x");
  });
}

// Little-endian writes into a 64-bit image made by elfImage().
void put(std::string& image, std::size_t at, std::uint64_t value, std::size_t width) {
  for (std::size_t i = 0; i < width; ++i) image[at + i] = static_cast<char>((value >> (8 * i)) & 0xFF);
}

TEST(HostileBundle, DamagedELFHeadersGiveNoSection) {
  // Sections: 0 null, 1 "__info_plist", 2 the names; entries of 64 bytes.
  const std::string image = elfImage(true, false, {{"__info_plist", "LIST"}});
  const std::size_t table = image.size() - 3 * 64;
  auto entry = [&](std::size_t index, std::size_t field) { return table + index * 64 + field; };
  constexpr std::size_t kName = 0, kType = 4, kOffset = 24, kSize = 32, kLink = 40;
  auto changed = [&](std::function<void(std::string&)> change) {
    std::string copy = image;
    change(copy);
    return copy;
  };
  const std::pair<const char*, std::string> cases[] = {
      {"header cut at 16 bytes", image.substr(0, 16)},
      {"header cut at 52 bytes", image.substr(0, 52)},
      {"header cut at 63 bytes", image.substr(0, 63)},
      {"no magic", changed([](auto& i) { i[1] = 'X'; })},
      {"unknown class", changed([](auto& i) { i[4] = 3; })},
      {"unknown byte order", changed([](auto& i) { i[5] = 0; })},
      {"section table at 0", changed([](auto& i) { put(i, 0x28, 0, 8); })},
      {"section table past the end", changed([&](auto& i) { put(i, 0x28, image.size() + 64, 8); })},
      {"entries smaller than the class's", changed([](auto& i) { put(i, 0x3A, 16, 2); })},
      {"more entries than the file holds", changed([](auto& i) { put(i, 0x3C, 0xFFFF, 2); })},
      {"extended count of 2^40", changed([&](auto& i) { put(i, 0x3C, 0, 2); put(i, entry(0, kSize), 1ull << 40, 8); })},
      {"extended names index past the table",
       changed([&](auto& i) { put(i, 0x3E, 0xFFFF, 2); put(i, entry(0, kLink), 1000, 4); })},
      {"names past the end", changed([&](auto& i) { put(i, entry(2, kOffset), 1ull << 40, 8); })},
      {"names without bits", changed([&](auto& i) { put(i, entry(2, kType), 8, 4); })},
      {"name offset past the names", changed([&](auto& i) { put(i, entry(1, kName), 0x7FFFFFFF, 4); })},
      {"name running off the end of the names", changed([&](auto& i) { put(i, entry(2, kSize), 1 + 12, 8); })},
      {"section past the end", changed([&](auto& i) { put(i, entry(1, kOffset), image.size(), 8); })},
      {"section size past the end", changed([&](auto& i) { put(i, entry(1, kSize), 1ull << 40, 8); })},
      {"section past the size limit",
       changed([&](auto& i) { put(i, entry(1, kSize), detail::maxELFSectionSize + 1, 8); })},
  };
  for (const auto& [name, bytes] : cases) EXPECT_EQ(detail::readELFSection(bytes, "__info_plist"), std::nullopt) << name;
  EXPECT_EQ(detail::readELFSection(image, "__info_plist"), "LIST");

  // A well-formed image whose list nests far too deep: the section reads,
  // the list inside does not, from memory or from a file.
  const std::string deep = xmlInfo(repeated("<array>", kDeep, "</array>"));
  const std::string carrier = elfImage(true, false, {{"__info_plist", deep}});
  EXPECT_EQ(detail::readELFSection(carrier, "__info_plist"), deep);
  TemporaryDirectory dir;
  writeFile(dir.file("carrier"), carrier);
  runOnSmallStack([&] {
    EXPECT_FALSE(PropertyList::propertyListWithBytes_format_error(deep, nullptr, nullptr));
    EXPECT_FALSE(OVInfoDictionaryForBundleAtURL(URL::fileURLWithPath(dir.path() + "/carrier")));
  });
}

}  // namespace
}  // namespace fennick
