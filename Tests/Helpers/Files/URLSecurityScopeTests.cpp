// Bookmarks through the transformer, secure access URLs, scoped blocks and the
// disk size read with resource values.
#include "Support/HelpersTestSupport.h"
#include "Support/FileTestSupport.h"

#include "fennick/Helpers/Files/OVBookmarkedURLTransformer.h"
#include "fennick/Helpers/Files/URLSecurityScope.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <future>

namespace fennick {
namespace {

using filetest::TemporaryFolder;

// Restores the shared controller's bookmarking switch.
class BookmarkingSwitch {
 public:
  explicit BookmarkingSwitch(bool enabled) { controller()->setIsBookmarkingEnabled(enabled); }
  ~BookmarkingSwitch() { controller()->setIsBookmarkingEnabled(true); }
  static const Ref<OVURLsAccessController>& controller() {
    return OVURLsAccessController::defaultURLsAccessController();
  }
};

struct ReadResult {
  Ref<Dictionary> values;
  Ref<Error> error;
};

ReadResult readValues(const Ref<URL>& url, std::initializer_list<Id> keys) {
  std::promise<ReadResult> done;
  getResourceValuesForKeys_completionBlock(url, Array::arrayWithObjects(keys),
                                           [&](const Ref<Dictionary>& values, const Ref<Error>& error) {
                                             done.set_value({values, error});
                                           });
  return done.get_future().get();
}

TEST(URLSecurityScopeTest, BookmarkDataRoundTripsToAMarkedURL) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "file", "x"));
  auto transformer = OVBookmarkedURLTransformer::init();
  auto data = Data::dynamicCastObject(transformer->transformedValue(URL::fileURLWithPath(folder / "file")));
  ASSERT_NE(data, nullptr);
  auto resolved = URL::dynamicCastObject(transformer->reverseTransformedValue(data));
  ASSERT_NE(resolved, nullptr);
  EXPECT_EQ(resolved->path(), folder / "file");
  EXPECT_TRUE(resolved->isBookmarked());
  EXPECT_EQ(secureAccessURL(resolved), resolved);

  // Bad input answers nil.
  EXPECT_EQ(transformer->transformedValue(String::string("/tmp")), nullptr);
  EXPECT_EQ(transformer->reverseTransformedValue(URL::fileURLWithPath("/")), nullptr);
  EXPECT_EQ(transformer->reverseTransformedValue(Data::dataWithBytes("not a bookmark", 14)), nullptr);
  EXPECT_EQ(OVBookmarkedURLTransformer::urlFromData(nullptr), nullptr);
  EXPECT_EQ(transformer->transformedValueClass(), Data::staticClass());

  // Nothing there: no bookmark.
  Ref<URL> bookmarked;
  Ref<Data> bookmarkData;
  EXPECT_FALSE(OVBookmarkedURLTransformer::url_getBookmarkedURL_bookmarkedData(URL::fileURLWithPath(folder / "missing"),
                                                                              &bookmarked, &bookmarkData));
  EXPECT_EQ(bookmarked, nullptr);
  EXPECT_EQ(bookmarkData, nullptr);
  // Bookmarking leaves no access open behind it.
  BookmarkingSwitch::controller()->internalQueue()->sync([&] {
    EXPECT_EQ(BookmarkingSwitch::controller()->fetchAccessInfoForURL(resolved), nullptr);
  });
}

TEST(URLSecurityScopeTest, StaleBookmarkIsBookmarkedAfresh) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "file", "x"));
  auto data = OVBookmarkedURLTransformer::dataFromURL(URL::fileURLWithPath(folder / "file"));
  ASSERT_NE(data, nullptr);
  // Another item takes the path (made before the first goes, so that it
  // cannot reuse its inode).
  ASSERT_TRUE(filetest::writeFile(folder / "replacement", "another item"));
  ASSERT_EQ(::rename((folder / "replacement").c_str(), (folder / "file").c_str()), 0);
  bool isStale = false;
  URL::URLByResolvingBookmarkData_options_relativeToURL_bookmarkDataIsStale_error(data, 0, nullptr, &isStale, nullptr);
  ASSERT_TRUE(isStale);

  auto resolved = OVBookmarkedURLTransformer::urlFromData(data);
  ASSERT_NE(resolved, nullptr);
  EXPECT_EQ(resolved->path(), folder / "file");
  EXPECT_TRUE(resolved->isBookmarked());
  EXPECT_EQ(secureAccessURL(resolved), resolved);
  // Its own bookmark names the new item, so it is not stale.
  isStale = true;
  auto fresh = OVBookmarkedURLTransformer::dataFromURL(URL::fileURLWithPath(folder / "file"));
  URL::URLByResolvingBookmarkData_options_relativeToURL_bookmarkDataIsStale_error(fresh, 0, nullptr, &isStale,
                                                                                   nullptr);
  EXPECT_FALSE(isStale);
}

TEST(URLSecurityScopeTest, SecureAccessURLDependsOnBookmarking) {
  auto url = URL::fileURLWithPath("/");
  EXPECT_EQ(secureAccessURL(url), nullptr);
  {
    BookmarkingSwitch off(false);
    EXPECT_EQ(secureAccessURL(url), url);
  }
  url->setTemporaryResourceValue_forKey(Number::numberWithBool(true), DXURLIsBookmarkedKey);
  EXPECT_EQ(secureAccessURL(url), url);
  auto other = URL::fileURLWithPath("/tmp");
  setSecureAccessURL(url, other);
  EXPECT_EQ(secureAccessURL(url), other);
  setSecureAccessURL(url, nullptr);
  EXPECT_EQ(secureAccessURL(url), url);
  EXPECT_EQ(secureAccessURL(nullptr), nullptr);
}

TEST(URLSecurityScopeTest, ScopedBlockRunsOnlyWithAccess) {
  int runs = 0;
  EXPECT_FALSE(accessSecurityScopedResourceForPropose_block(URL::fileURLWithPath("/"), "reading", [&] { ++runs; }));
  EXPECT_EQ(runs, 0);
  auto granted = bookmarkedURL(URL::fileURLWithPath("/"));
  ASSERT_NE(granted, nullptr);
  EXPECT_TRUE(accessSecurityScopedResourceForPropose_block(granted, "reading", [&] {
    ++runs;
    BookmarkingSwitch::controller()->internalQueue()->sync([&] {
      EXPECT_NE(BookmarkingSwitch::controller()->fetchAccessInfoForURL(granted), nullptr);
    });
  }));
  EXPECT_EQ(runs, 1);
  BookmarkingSwitch::controller()->internalQueue()->sync([&] {
    EXPECT_EQ(BookmarkingSwitch::controller()->fetchAccessInfoForURL(granted), nullptr);
  });
}

TEST(URLSecurityScopeTest, DiskSizeIsReadOnceAndKeptOnTheURL) {
  TemporaryFolder folder;
  ASSERT_EQ(::mkdir((folder / "tree").c_str(), 0755), 0);
  ASSERT_TRUE(filetest::writeFile(folder / "tree/a", std::string(10000, 'a')));
  ASSERT_TRUE(filetest::writeFile(folder / "tree/b", std::string(5000, 'b')));
  auto tree = bookmarkedURL(URL::fileURLWithPath(folder / "tree"));
  ASSERT_NE(tree, nullptr);

  auto first = readValues(tree, {String::string(DXURLDiskSizeKey), String::string(NSURLNameKey)});
  ASSERT_EQ(first.error, nullptr);
  auto size = Number::dynamicCastObject(first.values->objectForKey(DXURLDiskSizeKey));
  ASSERT_NE(size, nullptr);
  EXPECT_EQ(size->integerValue(), tree->fetchDirectorySize());
  EXPECT_GT(size->integerValue(), 0);
  EXPECT_EQ(first.values->objectForKey(NSURLNameKey)->description(), "tree");

  // The second read answers the kept size: the new file is not counted.
  ASSERT_TRUE(filetest::writeFile(folder / "tree/c", std::string(50000, 'c')));
  auto second = readValues(tree, {String::string(DXURLDiskSizeKey)});
  EXPECT_TRUE(second.values->objectForKey(DXURLDiskSizeKey)->isEqual(size));

  // A file's size is its allocated size, without access.
  auto file = URL::fileURLWithPath(folder / "tree/a");
  auto fileRead = readValues(file, {String::string(DXURLDiskSizeKey)});
  EXPECT_TRUE(fileRead.values->objectForKey(DXURLDiskSizeKey)->isEqual(file->resourceValueForKey(NSURLFileAllocatedSizeKey)));

  // A folder without access gets no size; a missing item gets the error.
  auto unbookmarked = readValues(URL::fileURLWithPath(folder / "tree"), {String::string(DXURLDiskSizeKey)});
  EXPECT_EQ(unbookmarked.values->objectForKey(DXURLDiskSizeKey), nullptr);
  EXPECT_NE(unbookmarked.values->objectForKey(NSURLIsDirectoryKey), nullptr);
  auto missing = readValues(URL::fileURLWithPath(folder / "missing"), {String::string(DXURLDiskSizeKey)});
  EXPECT_NE(missing.error, nullptr);
  EXPECT_EQ(missing.values->count(), 0u);
}

}  // namespace
}  // namespace fennick
