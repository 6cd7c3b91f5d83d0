// Bookmark data on Linux: the item found again by path, staleness by
// identity, and data from outside refused without harm.
#include "Support/FileTestSupport.h"

#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Coding/PropertyList.h"
#include "fennick/Runtime/Values/String.h"

#include "Runtime/HostileInputSupport.h"

#include <gtest/gtest.h>

namespace fennick {
namespace {

using filetest::TemporaryFolder;

Ref<URL> resolve(const Ref<Data>& data, bool* stale, Ref<Error>* error = nullptr) {
  return URL::URLByResolvingBookmarkData_options_relativeToURL_bookmarkDataIsStale_error(data, 0x700, nullptr,
                                                                                          stale, error);
}

Ref<Data> bookmark(const Ref<URL>& url, Ref<Error>* error = nullptr) {
  return url->bookmarkDataWithOptions_includingResourceValuesForKeys_relativeToURL_error(
      NSURLBookmarkCreationWithSecurityScope, nullptr, nullptr, error);
}

TEST(BookmarkTest, ResolvesByPathAndTellsWhenTheItemThereChanged) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "item", "x"));
  Ref<Data> data = bookmark(URL::fileURLWithPath(folder / "item"));
  ASSERT_TRUE(data);

  bool stale = true;
  Ref<URL> resolved = resolve(data, &stale);
  ASSERT_TRUE(resolved);
  EXPECT_EQ(resolved->path(), folder / "item");
  EXPECT_FALSE(stale);

  // Another item at the same path: found, but stale. (The old item is kept
  // under another name so that its inode number is not handed out again.)
  ASSERT_EQ(::rename((folder / "item").c_str(), (folder / "kept").c_str()), 0);
  ASSERT_EQ(::mkdir((folder / "item").c_str(), 0755), 0);
  resolved = resolve(data, &stale);
  ASSERT_TRUE(resolved);
  EXPECT_TRUE(stale);
  EXPECT_TRUE(resolved->hasDirectoryPath());

  ASSERT_EQ(::rmdir((folder / "item").c_str()), 0);
  Ref<Error> error;
  EXPECT_FALSE(resolve(data, &stale, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 4);
  EXPECT_FALSE(URL::fileURLWithPath(folder / "item")->checkResourceIsReachableAndReturnError(nullptr));
}

TEST(BookmarkTest, ReferenceURLsBookmarkTheCurrentPath) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "before", "x"));
  Ref<URL> reference = URL::fileURLWithPath(folder / "before")->fileReferenceURL();
  ASSERT_EQ(::rename((folder / "before").c_str(), (folder / "after").c_str()), 0);
  EXPECT_TRUE(reference->checkResourceIsReachableAndReturnError(nullptr));
  bool stale = true;
  EXPECT_EQ(resolve(bookmark(reference), &stale)->path(), folder / "after");
  EXPECT_FALSE(stale);
}

TEST(BookmarkTest, DataThatIsNotABookmarkIsRefused) {
  auto plist = [](const Ref<Dictionary>& dictionary, PropertyListFormat format) {
    return PropertyList::dataWithPropertyList_format_error(dictionary, format, nullptr);
  };
  auto fields = [](Id path, Id device) {
    return Dictionary::dictionaryWithStringKeys({{"Kind", String::string("com.orvane.fennick.bookmark")},
                                                 {"Version", Number::numberWithInteger(1)},
                                                 {"Path", path},
                                                 {"Device", device},
                                                 {"Inode", Number::numberWithInteger(1)}});
  };
  const Ref<Data> refused[] = {
      nullptr,
      Data::data(),
      Data::dataWithString("not a bookmark at all"),
      Data::dataWithString("bplist00\xff\xff\xff"),
      plist(fields(Data::dataWithString("/tmp"), Number::numberWithInteger(1)), PropertyListFormat::XML),
      plist(fields(String::string("/tmp"), Number::numberWithInteger(1)), PropertyListFormat::Binary),
      plist(fields(Data::dataWithString("relative"), Number::numberWithInteger(1)), PropertyListFormat::Binary),
      plist(fields(Data::dataWithBytes("/tmp\0x", 6), Number::numberWithInteger(1)), PropertyListFormat::Binary),
      plist(fields(Data::dataWithString("/tmp"), String::string("1")), PropertyListFormat::Binary),
      plist(Dictionary::dictionary(), PropertyListFormat::Binary),
  };
  for (const Ref<Data>& data : refused) {
    Ref<Error> error;
    bool stale = true;
    EXPECT_FALSE(resolve(data, &stale, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 259);
    EXPECT_FALSE(stale);
  }
  // The same fields, well formed, do resolve.
  bool stale = false;
  EXPECT_TRUE(resolve(plist(fields(Data::dataWithString("/tmp"), Number::numberWithInteger(1)),
                            PropertyListFormat::Binary),
                      &stale));
  EXPECT_TRUE(stale);
}

// Bookmark data is read from preferences and files that others can write.
TEST(BookmarkTest, HostileDataIsRefusedWithoutHarm) {
  using testing::BinaryPlistBuilder;
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "item", "x"));
  const std::string good(bookmark(URL::fileURLWithPath(folder / "item"))->stringView());
  auto fields = [&](Id version, Id device) {
    return std::string(PropertyList::dataWithPropertyList_format_error(
                           Dictionary::dictionaryWithStringKeys({{"Kind", "com.orvane.fennick.bookmark"_s},
                                                                 {"Version", version},
                                                                 {"Path", Data::dataWithString(folder / "item")},
                                                                 {"Device", device},
                                                                 {"Inode", Number::numberWithInteger(1)}}),
                           PropertyListFormat::Binary, nullptr)
                           ->stringView());
  };
  BinaryPlistBuilder doubling;
  for (std::uint64_t level = 1; level < 40; ++level) doubling.add(doubling.array({level, level}));
  doubling.add(doubling.array({}));
  const Id one = Number::numberWithInteger(1);
  std::vector<std::pair<std::string, std::string>> cases = {
      {"arrays 100,000 deep", testing::nestedBinaryArrays(100000)},
      {"arrays doubling 40 times", doubling.build()},
      {"XML arrays 100,000 deep", testing::xmlList(testing::repeated("<array>", 100000, "</array>"))},
      {"version that is a real", fields(Number::numberWithDouble(1.5), one)},
      {"version that is a boolean", fields(Number::numberWithBool(true), one)},
      {"device that is a real", fields(one, Number::numberWithDouble(1.5))},
      {"device that is negative", fields(one, Number::numberWithInteger(-1))},
  };
  for (std::size_t length = 0; length < good.size(); ++length)
    cases.push_back({"truncated to " + std::to_string(length), good.substr(0, length)});
  testing::runOnSmallStack([&] {
    for (const auto& [name, bytes] : cases) {
      Ref<Error> error;
      bool stale = true;
      EXPECT_FALSE(resolve(Data::dataWithString(bytes), &stale, &error)) << name;
      ASSERT_TRUE(error) << name;
      EXPECT_EQ(error->code(), 259) << name;
      EXPECT_FALSE(stale) << name;
    }
    bool stale = true;
    EXPECT_TRUE(resolve(Data::dataWithString(good), &stale));
  });
}

TEST(BookmarkTest, OnlyExistingFileItemsCanBeBookmarked) {
  Ref<Error> error;
  EXPECT_FALSE(bookmark(URL::URLWithString("https://example.com/"), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), 262);
  EXPECT_FALSE(bookmark(URL::fileURLWithPath("/no/such/item"), &error));
  EXPECT_EQ(error->code(), 4);
  EXPECT_TRUE(URL::fileURLWithPath("/")->startAccessingSecurityScopedResource());
  EXPECT_FALSE(URL::URLWithString("https://example.com/")->startAccessingSecurityScopedResource());
}

}  // namespace
}  // namespace fennick
