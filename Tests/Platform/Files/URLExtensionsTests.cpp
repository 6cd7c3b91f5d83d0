// The file helpers and locations of URLs on Linux.
#include "Support/ChildTestRun.h"
#include "Support/FileTestSupport.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URLQueryItem.h"

#include <gtest/gtest.h>

#include <pwd.h>

#include <cstdlib>

namespace fennick {
namespace {

using filetest::TemporaryFolder;

// Sets an environment variable for one scope.
class ScopedVariable {
 public:
  ScopedVariable(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    value ? ::setenv(name, value, 1) : ::unsetenv(name);
  }
  ~ScopedVariable() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(URLExtensionsTest, PathsRelativeToABase) {
  TemporaryFolder folder;
  ASSERT_EQ(::mkdir((folder / "sub").c_str(), 0755), 0);
  const Ref<URL> base = URL::fileURLWithPath(folder.path());
  EXPECT_FALSE(URL::ovFileURLWithPath_relativeToURL("a", nullptr));
  EXPECT_EQ(URL::ovFileURLWithPath_relativeToURL("sub", base)->absoluteString(),
            URL::fileURLWithPath(folder / "sub")->absoluteString());
  EXPECT_TRUE(URL::ovFileURLWithPath_isDirectory_relativeToURL("x", true, base)->hasDirectoryPath());
  auto components = Array::arrayWithObjects({String::string("sub"), String::string("file")});
  EXPECT_EQ(URL::ovFileURLWithPathComponents_relativeToURL(components, base)->path(), folder / "sub/file");
  EXPECT_FALSE(URL::ovFileURLWithPathComponents_isDirectory_relativeToURL(components, false, nullptr));

  // The trailing slash follows the disk, not the text.
  EXPECT_TRUE(URL::fileURLWithPath_isDirectory(folder / "sub", false)->fileURLWithFixedTrailingSlash()->hasDirectoryPath());
  EXPECT_FALSE(URL::URLWithString("https://example.com/")->fileURLWithFixedTrailingSlash());
}

TEST(URLExtensionsTest, TrashVolumeKindAndBookmarkMarks) {
  EXPECT_TRUE(URL::fileURLWithPath("/Users/x/.Trash/file")->inTrash());
  EXPECT_TRUE(URL::fileURLWithPath("/Volumes/v/.Trashes/501/file")->inTrash());
  EXPECT_TRUE(URL::fileURLWithPath("/media/usb/.Trash-1000/files/a")->inTrash());
  EXPECT_FALSE(URL::fileURLWithPath("/home/x/Trash/file")->inTrash());
  {
    ScopedVariable data("XDG_DATA_HOME", "/home/x/data");
    EXPECT_TRUE(URL::fileURLWithPath("/home/x/data/Trash/files/a")->inTrash());
    EXPECT_FALSE(URL::fileURLWithPath("/home/x/data/Trashy")->inTrash());
  }
  EXPECT_FALSE(URL::URLWithString("https://example.com/.Trash/")->inTrash());

  EXPECT_TRUE(URL::fileURLWithPath("/")->onRootVolume());
  EXPECT_FALSE(URL::fileURLWithPath("/no/such/item")->onRootVolume());
  EXPECT_FALSE(URL::URLWithString("https://example.com/")->onRootVolume());

  TemporaryFolder folder;
  Ref<URL> url = URL::fileURLWithPath(folder.path());
  EXPECT_TRUE(url->isDirectory());
  EXPECT_FALSE(URL::fileURLWithPath(folder / "missing")->isDirectory());
  EXPECT_FALSE(url->isBookmarked());
  url->setTemporaryResourceValue_forKey(Number::numberWithBool(true), DXURLIsBookmarkedKey);
  EXPECT_TRUE(url->isBookmarked());
}

TEST(URLExtensionsTest, DisplayNames) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "report.txt", "x"));
  ASSERT_TRUE(filetest::writeFile(folder / "notes", "x"));
  EXPECT_EQ(URL::fileURLWithPath(folder / "report.txt")->localizedNameWithExtension(), "report.txt");
  EXPECT_EQ(URL::fileURLWithPath(folder / "notes")->localizedNameWithExtension(), "notes");
  EXPECT_EQ(URL::URLWithString("https://example.com")->localizedNameWithExtension(), "<unknown>");
}

TEST(URLExtensionsTest, QueryItemsGoFirstAndAreNotEncodedTwice) {
  const Ref<URL> url = URL::URLWithString("https://example.com/path?old=1&flag");
  EXPECT_EQ(url->ovURLByAddingPercentEncdodedQueryItems(Array::array()), url);
  auto items = Array::arrayWithObjects({URLQueryItem::queryItemWithName_value("q", "a%20b"),
                                        URLQueryItem::queryItemWithName_value("empty", std::nullopt)});
  EXPECT_EQ(url->ovURLByAddingPercentEncdodedQueryItems(items)->absoluteString(),
            "https://example.com/path?q=a%20b&empty&old=1&flag");
  // Existing items are read decoded, and what a query cannot hold is encoded.
  EXPECT_EQ(URL::URLWithString("https://x/?a=%20b#f")->ovURLByAddingPercentEncdodedQueryItems(items)->absoluteString(),
            "https://x/?q=a%20b&empty&a=%20b#f");
  EXPECT_EQ(URL::URLWithString("https://x/")->ovURLByAddingPercentEncdodedQueryItems(items)->query(), "q=a%20b&empty");
}

TEST(URLExtensionsTest, LocationsFollowTheXDGBaseDirectories) {
  const std::string home = ::getpwuid(::getuid())->pw_dir;
  EXPECT_EQ(URL::realHome()->path(), home);
  EXPECT_TRUE(URL::realHome()->hasDirectoryPath());

  ScopedVariable homeVariable("HOME", "/home/elsewhere");
  ScopedVariable config("XDG_CONFIG_HOME", nullptr);
  ScopedVariable cache("XDG_CACHE_HOME", "relative/is/ignored");
  ScopedVariable runtime("XDG_RUNTIME_DIR", nullptr);
  EXPECT_EQ(URL::ovUserHomeURL()->path(), "/home/elsewhere");
  EXPECT_EQ(URL::ovUserPreferencesURL()->path(), "/home/elsewhere/.config");
  EXPECT_EQ(URL::ovUserCachesURL()->path(), "/home/elsewhere/.cache");
  EXPECT_EQ(URL::ovSandboxContainerURL()->path(), "/home/elsewhere/.var/app");
  EXPECT_EQ(URL::ovSandboxGroupContainerURL()->path(), "/home/elsewhere/.var/app");
  EXPECT_FALSE(URL::ovDarwinUserCachesURL());
  ASSERT_EQ(URL::ovAllUserCachesURLs()->count(), 1u);
  auto preferences = URL::ovAllPreferencesURLs();
  ASSERT_EQ(preferences->count(), 2u);
  EXPECT_EQ(URL::castObject(preferences->objectAtIndex(0))->path(), "/etc/xdg");

  ScopedVariable setConfig("XDG_CONFIG_HOME", "/srv/config");
  ScopedVariable setRuntime("XDG_RUNTIME_DIR", "/run/user/1000");
  EXPECT_EQ(URL::ovUserPreferencesURL()->path(), "/srv/config");
  EXPECT_EQ(URL::ovDarwinUserCachesURL()->path(), "/run/user/1000");
  EXPECT_EQ(URL::castObject(URL::ovAllUserCachesURLs()->objectAtIndex(0))->path(), "/run/user/1000");
}

TEST(URLExtensionsTest, ASandboxedProcessUsesTheRealHome) {
  FENNICK_RUN_IN_CHILD("URLExtensionsTest.InsideSandbox",
                       {.environment = {"APP_SANDBOX_CONTAINER_ID=com.example", "HOME=/home/container"}});
}

TEST(URLExtensionsTest, InsideSandbox) {
  FENNICK_ONLY_IN_CHILD();
  EXPECT_TRUE(URL::_isSandboxed());
  EXPECT_EQ(URL::ovUserHomeURL()->path(), std::string(::getpwuid(::getuid())->pw_dir));
}

}  // namespace
}  // namespace fennick
