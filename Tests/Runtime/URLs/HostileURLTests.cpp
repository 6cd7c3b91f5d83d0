// URL text from outside, by family: "%00" in path components, invalid and
// overlong UTF-8 escapes, huge inputs and truncation. Decoded text is kept
// whole; a path that the system would read short ("%00") has no file-system
// path, and asking the disk about it answers for nothing.
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"

#include "Runtime/Processes/BundleTestSupport.h"

#include <gtest/gtest.h>

#include <string>

namespace fennick {
namespace {

using namespace std::string_literals;

std::string component(const Ref<URL>& url, std::size_t index) {
  return std::string(String::castObject(url->pathComponents()->objectAtIndex(index))->view());
}

TEST(HostileURL, NulEscapesAreKeptWholeButNameNoFile) {
  testing::TemporaryDirectory dir;
  std::filesystem::create_directories(dir.path() + "/victim");
  const std::string root = "file://" + URL::stringByAddingPercentEncoding(dir.path(), URLCharacterSet::Path);
  struct Case {
    std::string text;
    std::string lastComponent;
  };
  const Case cases[] = {
      {"/victim%00/Store.sqlite", "Store.sqlite"},
      {"/victim/Store.sqlite%00.bak", "Store.sqlite\0.bak"s},
      {"/victim%00", "victim\0"s},
      {"/victim/%00", "\0"s},
      {"/%00victim", "\0victim"s},
  };
  for (const Case& c : cases) {
    const Ref<URL> url = URL::URLWithString(root + c.text);
    ASSERT_TRUE(url) << c.text;
    EXPECT_NE(url->path().find('\0'), std::string::npos) << c.text;
    EXPECT_EQ(url->lastPathComponent(), c.lastComponent) << c.text;
    EXPECT_EQ(component(url, url->pathComponents()->count() - 1), c.lastComponent) << c.text;
    EXPECT_FALSE(url->fileSystemRepresentation()) << c.text;
    EXPECT_FALSE(url->fileReferenceURL()) << c.text;
    // Derived URLs carry the NUL along, and the disk is not asked about the
    // folder before it: a directory there would add a trailing slash.
    const Ref<URL> child = url->URLByAppendingPathComponent("x");
    ASSERT_TRUE(child) << c.text;
    EXPECT_FALSE(child->hasDirectoryPath()) << c.text;
    EXPECT_FALSE(child->fileSystemRepresentation()) << c.text;
    const Ref<URL> relative = URL::fileURLWithPath_relativeToURL("x", url);
    EXPECT_FALSE(relative && relative->hasDirectoryPath()) << c.text;
    EXPECT_FALSE(URL::fileURLWithPath(url->path())) << c.text;
    EXPECT_FALSE(url->fileURLWithFixedTrailingSlash()) << c.text;
  }
  EXPECT_EQ(URL::stringByRemovingPercentEncoding("a%00b"), "a\0b"s);
}

TEST(HostileURL, MalformedAndOverlongEscapesNeverBecomeSeparators) {
  // Overlong and invalid UTF-8 decodes to its bytes: never to "/" or "..".
  const Ref<URL> url = URL::URLWithString("file:///srv/%C0%AF..%C0%AFetc%E0%80%AFpasswd%FF%ED%A0%80");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->pathComponents()->count(), 3u);
  EXPECT_EQ(url->fileSystemRepresentation(), "/srv/\xC0\xAF..\xC0\xAF" "etc\xE0\x80\xAFpasswd\xFF\xED\xA0\x80");
  EXPECT_EQ(url->URLByStandardizingPath()->path(), url->path());

  const char* malformed[] = {"file:///a%", "file:///a%0", "file:///a%G0", "file:///a%%41", "file:///a%0G",
                             "http://h/\x80", "http://h/a b", "http://[::1/", "http://h:99999999999999999999/"};
  for (const char* text : malformed) EXPECT_FALSE(URL::URLWithString(text)) << text;
  EXPECT_FALSE(URL::URLWithString("file:///a\0b"s));  // a raw NUL is never URL text
  EXPECT_FALSE(URL::fileURLWithPath("/a\0b"s));
  EXPECT_FALSE(URL::stringByRemovingPercentEncoding("%"));
  EXPECT_FALSE(URL::stringByRemovingPercentEncoding("%zz"));
}

TEST(HostileURL, HugeAndTruncatedTextIsParsedOrRefusedWhole) {
  const std::string longPath = "file:///" + std::string(1 << 20, 'a') + "/" + std::string(1 << 10, '%');
  EXPECT_FALSE(URL::URLWithString(longPath));
  std::string components = "file://";
  for (int i = 0; i < 100'000; ++i) components += "/c%2E";
  const Ref<URL> deep = URL::URLWithString(components);
  ASSERT_TRUE(deep);
  EXPECT_EQ(deep->pathComponents()->count(), 100'001u);
  EXPECT_EQ(deep->lastPathComponent(), "c.");

  // Every cut of a URL parses or is refused, and what parses reads back as
  // the text it was made from.
  const std::string text = "https://us%40er:p%3Aw@[::1]:8080/a%20b/c%00d;e?q=%26&r#fr%23ag";
  ASSERT_TRUE(URL::URLWithString(text));
  for (std::size_t length = 1; length <= text.size(); ++length) {
    const std::string cut = text.substr(0, length);
    if (const Ref<URL> url = URL::URLWithString(cut)) {
      EXPECT_EQ(url->absoluteString(), cut);
      EXPECT_FALSE(url->fileSystemRepresentation()) << cut;  // not a file URL
    }
  }
}

}  // namespace
}  // namespace fennick
