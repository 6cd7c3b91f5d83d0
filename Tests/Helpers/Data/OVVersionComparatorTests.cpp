#include "fennick/Helpers/Data/OVBundleInformation.h"
#include "fennick/Helpers/Data/OVVersionComparator.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/URLs/URL.h"

#include "Runtime/Processes/BundleTestSupport.h"

#include <gtest/gtest.h>

namespace fennick {
namespace {

using testing::propertyListBytes;
using testing::TemporaryDirectory;
using testing::writeFile;

TEST(OVVersionComparator, ClassOperationsOnRuntimeStrings) {
  EXPECT_EQ(OVVersionComparator::compareVersion_toVersion("1.0b1"_s, "1.0"_s), -1);
  EXPECT_EQ(OVVersionComparator::compareVersion_toVersion(nullptr, ""_s), 0);
  EXPECT_EQ(OVVersionComparator::compareVersion_toVersion(nullptr, "0"_s), -1);
  EXPECT_EQ(OVVersionComparator::typeOfCharacter("."_s), 2);
  EXPECT_EQ(OVVersionComparator::typeOfCharacter("*"_s), 3);
  EXPECT_EQ(OVVersionComparator::typeOfCharacter("12"_s), 0);
  EXPECT_EQ(OVVersionComparator::typeOfCharacter("_"_s), 2);
  EXPECT_EQ(OVVersionComparator::typeOfCharacter("beta"_s), 1);

  Ref<Array> tokens = OVVersionComparator::splitVersionString("2.0-rc1 \u00e9t\u00e9"_s);
  EXPECT_TRUE(tokens->isEqual(Array::arrayWithObjects({"2"_s, "."_s, "0"_s, "-"_s, "rc"_s, "1"_s, " \u00e9t\u00e9"_s})));
  tokens->addObject("mutable"_s);
  EXPECT_EQ(OVVersionComparator::splitVersionString(nullptr)->count(), 0u);
}

TEST(OVBundleInformation, ReadsStringsOnlyFromDictionariesAndBundles) {
  auto info = Dictionary::dictionaryWithStringKeys({
      {"CFBundleShortVersionString", Number::of(2)},
      {"CFBundleVersion", "431"_s},
      {"CFBundleName", "Desktop Client"_s},
      {"CFBundleIdentifier", "com.pellora.DesktopClient"_s},
  });
  EXPECT_FALSE(OVShortVersionStringFromInfoDictionary(info));  // a number is not a version string
  EXPECT_EQ(OVVersionStringFromInfoDictionary(info)->utf8(), "431");
  EXPECT_EQ(OVNameFromInfoDictionary(info)->utf8(), "Desktop Client");
  EXPECT_EQ(OVBundleIDFromInfoDictionry(info)->utf8(), "com.pellora.DesktopClient");
  EXPECT_FALSE(OVNameFromInfoDictionary(nullptr));

  TemporaryDirectory dir;
  info->setObject_forKey("3.1"_s, "CFBundleShortVersionString");
  writeFile(dir.file("Client.app/Contents/Info.plist"), propertyListBytes(info, PropertyListFormat::Binary));
  auto bundle = URL::fileURLWithPath(dir.path() + "/Client.app");
  EXPECT_EQ(OVShortVersionStringFromBundleAtURL(bundle)->utf8(), "3.1");
  EXPECT_EQ(OVVersionStringFromBundleAtURL(bundle)->utf8(), "431");
  EXPECT_EQ(OVNameFromBundleAtURL(bundle)->utf8(), "Desktop Client");
  EXPECT_EQ(OVBundleIDFromBundleAtURL(bundle)->utf8(), "com.pellora.DesktopClient");
  auto missing = URL::fileURLWithPath(dir.path() + "/Missing.app");
  EXPECT_FALSE(OVVersionStringFromBundleAtURL(missing));
  EXPECT_FALSE(OVBundleIDFromBundleAtURL(missing));
}

}  // namespace
}  // namespace fennick
