#include "fennick/Runtime/Processes/Bundle.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Processes/Internal/BundleELFSection.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"

#include "Runtime/Processes/BundleTestSupport.h"

#include <gtest/gtest.h>
#include <libintl.h>

#include <clocale>
#include <cstdlib>
#include <vector>

namespace fennick {
namespace {

using testing::elfImage;
using testing::executableWithInfoSection;
using testing::propertyListBytes;
using testing::TemporaryDirectory;
using testing::writeFile;

Ref<Dictionary> sampleInfo(std::string_view identifier) {
  return Dictionary::dictionaryWithStringKeys({
      {"CFBundleIdentifier", String::string(identifier)},
      {"CFBundleName", "Sample"_s},
      {"CFBundleShortVersionString", "1.2"_s},
      {"CFBundleVersion", Number::of(7)},
  });
}

std::string identifierAt(const std::string& path) {
  Ref<Dictionary> info = OVInfoDictionaryForBundleAtURL(URL::fileURLWithPath(path));
  if (!info) return "<nil>";
  auto identifier = String::dynamicCastObject(info->objectForKey("CFBundleIdentifier"));
  return identifier ? identifier->utf8() : "<none>";
}

TEST(Bundle, DirectoriesReadEitherListInEitherFormat) {
  TemporaryDirectory dir;
  writeFile(dir.file("App/Contents/Info.plist"), propertyListBytes(sampleInfo("a.xml"), PropertyListFormat::XML));
  writeFile(dir.file("Flat/Info.plist"), propertyListBytes(sampleInfo("a.binary"), PropertyListFormat::Binary));
  // Contents/Info.plist wins over a stray Info.plist beside it.
  writeFile(dir.file("Both/Contents/Info.plist"), propertyListBytes(sampleInfo("inner"), PropertyListFormat::XML));
  writeFile(dir.file("Both/Info.plist"), propertyListBytes(sampleInfo("outer"), PropertyListFormat::XML));

  EXPECT_EQ(identifierAt(dir.path() + "/App"), "a.xml");
  EXPECT_EQ(identifierAt(dir.path() + "/Flat"), "a.binary");
  EXPECT_EQ(identifierAt(dir.path() + "/Both"), "inner");
  Ref<Dictionary> info = OVInfoDictionaryForBundleAtURL(URL::fileURLWithPath(dir.path() + "/App"));
  ASSERT_TRUE(info);
  EXPECT_TRUE(info->isEqual(sampleInfo("a.xml")));

  Ref<Bundle> bundle = Bundle::bundleWithPath(dir.path() + "/Flat");
  ASSERT_TRUE(bundle);
  EXPECT_EQ(bundle->bundleIdentifier(), "a.binary");
  EXPECT_EQ(bundle->bundleURL()->path(), dir.path() + "/Flat");
  EXPECT_FALSE(bundle->executableURL());
}

TEST(Bundle, AnythingElseIsNoBundle) {
  TemporaryDirectory dir;
  writeFile(dir.file("ArrayTop/Info.plist"),
            propertyListBytes(Array::arrayWithObjects({"x"_s}), PropertyListFormat::XML));
  writeFile(dir.file("Garbage/Info.plist"), "<plist><dict><key>a</key>");
  writeFile(dir.file("text.txt"), "not an executable");
  std::filesystem::create_directories(dir.path() + "/Empty");

  for (const char* name : {"ArrayTop", "Garbage", "text.txt", "Empty", "missing"}) {
    EXPECT_FALSE(OVInfoDictionaryForBundleAtURL(URL::fileURLWithPath(dir.path() + "/" + name))) << name;
    EXPECT_FALSE(Bundle::bundleWithPath(dir.path() + "/" + name)) << name;
  }
  EXPECT_FALSE(OVInfoDictionaryForBundleAtURL(nullptr));
  EXPECT_FALSE(OVInfoDictionaryForBundleAtURL(URL::URLWithString("https://example.com/App")));
  // An executable without the section.
  EXPECT_FALSE(OVInfoDictionaryForBundleAtURL(URL::fileURLWithPath("/bin/true")));
}

TEST(Bundle, ExecutablesCarryTheirListInASection) {
  TemporaryDirectory dir;
  const std::string tool =
      executableWithInfoSection(dir, "tool", propertyListBytes(sampleInfo("com.example.tool"), PropertyListFormat::Binary));
  EXPECT_EQ(identifierAt(tool), "com.example.tool");
  Ref<Bundle> bundle = Bundle::bundleWithPath(tool);
  ASSERT_TRUE(bundle);
  EXPECT_EQ(bundle->executableURL()->path(), tool);
  EXPECT_TRUE(bundle->objectForInfoDictionaryKey("CFBundleVersion")->isEqual(Number::of(7)));

  const std::string broken = executableWithInfoSection(dir, "broken", "bplist00 but not really");
  EXPECT_FALSE(Bundle::bundleWithPath(broken));
}

TEST(BundleELFSection, BothClassesAndByteOrdersAndHostileHeaders) {
  const std::vector<std::pair<std::string, std::string>> sections = {
      {".text", "code"}, {"__info_plist_extra", "no"}, {"__info_plist", "LIST"}};
  for (bool is64 : {false, true})
    for (bool bigEndian : {false, true}) {
      const std::string image = elfImage(is64, bigEndian, sections);
      EXPECT_EQ(detail::readELFSection(image, "__info_plist"), "LIST") << is64 << bigEndian;
      EXPECT_EQ(detail::readELFSection(image, "__info"), std::nullopt);
      // Every truncation of a valid image is refused or still reads right.
      for (std::size_t length = 0; length < image.size(); ++length) {
        auto found = detail::readELFSection(std::string_view(image).substr(0, length), "__info_plist");
        EXPECT_TRUE(!found || *found == "LIST") << length;
      }
    }

  std::string image = elfImage(true, false, sections);
  const std::size_t table = image.size() - 5 * 64, listEntry = table + 3 * 64;
  std::string outside = image;
  outside[listEntry + 32 + 7] = '\x7f';  // size past the end of the file
  EXPECT_EQ(detail::readELFSection(outside, "__info_plist"), std::nullopt);
  std::string wrapping = image;
  for (int i = 0; i < 8; ++i) wrapping[listEntry + 24 + i] = '\xff';  // offset + size wraps around
  EXPECT_EQ(detail::readELFSection(wrapping, "__info_plist"), std::nullopt);
  std::string badNames = image;
  badNames[0x3E] = 9;  // names section index past the table
  EXPECT_EQ(detail::readELFSection(badNames, "__info_plist"), std::nullopt);
  std::string noBits = image;
  noBits[listEntry + 4] = 8;
  EXPECT_EQ(detail::readELFSection(noBits, "__info_plist"), std::nullopt);
}

TEST(Bundle, MainBundleIdentifierFallsBackToTheExecutableNameUntilSet) {
  Ref<Bundle> main = Bundle::mainBundle();
  ASSERT_TRUE(main);
  EXPECT_EQ(main, Bundle::mainBundle());
  EXPECT_EQ(main->bundleIdentifier(), main->executableURL()->lastPathComponent());
  EXPECT_EQ(main->executableURL()->lastPathComponent(), "fennick_runtime_tests");

  EXPECT_TRUE(Bundle::setMainBundleIdentifier("com.pellora.DesktopClient"));
  EXPECT_FALSE(Bundle::setMainBundleIdentifier("com.example.second"));
  EXPECT_EQ(main->bundleIdentifier(), "com.pellora.DesktopClient");
}

TEST(Bundle, LocalizedStringsComeFromTheIdentifiersTextDomain) {
  TemporaryDirectory dir;
  const std::string domain = "com.example.translated";
  writeFile(dir.file("strings.po"),
            "msgid \"Missing value for key %@\"\nmsgstr \"Valeur manquante pour la cl\xc3\xa9 %@\"\n");
  const std::string command = "msgfmt -o '" + dir.file("fr/LC_MESSAGES/" + domain + ".mo") + "' '" +
                              dir.path() + "/strings.po'";
  ASSERT_EQ(std::system(command.c_str()), 0);
  ::setenv("LANGUAGE", "fr", 1);
  ASSERT_TRUE(std::setlocale(LC_MESSAGES, "C.UTF-8"));
  ::bindtextdomain(domain.c_str(), dir.path().c_str());

  writeFile(dir.file("App/Info.plist"), propertyListBytes(sampleInfo(domain), PropertyListFormat::XML));
  Ref<Bundle> bundle = Bundle::bundleWithPath(dir.path() + "/App");
  ASSERT_TRUE(bundle);
  EXPECT_EQ(bundle->localizedStringForKey_value_table("Missing value for key %@", "", ""),
            "Valeur manquante pour la cl\xc3\xa9 %@");
  EXPECT_EQ(bundle->localizedStringForKey_value_table("Untranslated", "", ""), "Untranslated");
  EXPECT_EQ(bundle->localizedStringForKey_value_table("Untranslated", "Fallback", ""), "Fallback");
  // Another table is another domain, which has no catalogue here.
  EXPECT_EQ(bundle->localizedStringForKey_value_table("Missing value for key %@", "", "Errors"),
            "Missing value for key %@");
  std::setlocale(LC_MESSAGES, "C");
}

}  // namespace
}  // namespace fennick
