// File reference URLs: identity across renames, the current path asked anew,
// one shared descriptor per item.
#include "Support/FileTestSupport.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/Boxing.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace fennick {
namespace {

using filetest::TemporaryFolder;

TEST(FileReferenceURLTest, FollowsTheItemAcrossRenamesAndDirectories) {
  TemporaryFolder folder;
  ASSERT_EQ(::mkdir((folder / "a").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((folder / "b").c_str(), 0755), 0);
  ASSERT_TRUE(filetest::writeFile(folder / "a/one.txt", "12345"));

  Ref<URL> reference = URL::fileURLWithPath(folder / "a/one.txt")->fileReferenceURL();
  ASSERT_TRUE(reference);
  EXPECT_TRUE(reference->isFileReferenceURL());
  EXPECT_TRUE(reference->isFileURL());
  EXPECT_EQ(reference->fileReferenceURL(), reference);
  EXPECT_TRUE(reference->absoluteString().starts_with("file:///.file/id="));
  auto byItem = Dictionary::dictionary();
  byItem->setObject_forKey(String::string("value"), reference);

  ASSERT_EQ(::rename((folder / "a/one.txt").c_str(), (folder / "b/two.txt").c_str()), 0);
  EXPECT_EQ(reference->path(), folder / "b/two.txt");
  EXPECT_EQ(reference->filePathURL()->path(), folder / "b/two.txt");
  EXPECT_EQ(reference->lastPathComponent(), "two.txt");
  EXPECT_EQ(reference->pathExtension(), "txt");
  EXPECT_EQ(reference->URLByDeletingLastPathComponent()->path(), folder / "b");
  EXPECT_FALSE(reference->URLByDeletingLastPathComponent()->isFileReferenceURL());
  EXPECT_EQ(reference->pathComponents()->lastObject()->description(), "two.txt");
  EXPECT_EQ(unbox<std::int64_t>(reference->resourceValueForKey(NSURLFileSizeKey)), 5);

  // A reference made after the move is the same key.
  Ref<URL> again = URL::fileURLWithPath(folder / "b/two.txt")->fileReferenceURL();
  EXPECT_TRUE(again->isEqual(reference));
  EXPECT_EQ(again->hash(), reference->hash());
  EXPECT_TRUE(byItem->objectForKey(again));
  EXPECT_FALSE(URL::fileURLWithPath(folder / "b/two.txt")->isEqual(reference));

  // A directory's reference keeps its trailing slash in path URLs.
  Ref<URL> directory = URL::fileURLWithPath(folder / "b")->fileReferenceURL();
  EXPECT_TRUE(directory->hasDirectoryPath());
  EXPECT_TRUE(directory->filePathURL()->hasDirectoryPath());
}

TEST(FileReferenceURLTest, MissingDeletedAndNonFileItemsGiveNil) {
  TemporaryFolder folder;
  EXPECT_FALSE(URL::fileURLWithPath(folder / "missing")->fileReferenceURL());
  EXPECT_FALSE(URL::URLWithString("https://example.com/a")->fileReferenceURL());

  ASSERT_TRUE(filetest::writeFile(folder / "gone", "x"));
  Ref<URL> reference = URL::fileURLWithPath(folder / "gone")->fileReferenceURL();
  ASSERT_EQ(::unlink((folder / "gone").c_str()), 0);
  EXPECT_FALSE(reference->filePathURL());
  EXPECT_FALSE(reference->fileSystemRepresentation());
  EXPECT_EQ(reference->path(), "");
  EXPECT_FALSE(reference->URLByDeletingLastPathComponent());

  // A file whose own name ends like the kernel's marker of a removed name.
  ASSERT_TRUE(filetest::writeFile(folder / "odd (deleted)", "x"));
  EXPECT_EQ(URL::fileURLWithPath(folder / "odd (deleted)")->fileReferenceURL()->path(),
            folder / "odd (deleted)");
}

TEST(FileReferenceURLTest, SymbolicLinksAreFollowed) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "target", "x"));
  ASSERT_EQ(::symlink((folder / "target").c_str(), (folder / "link").c_str()), 0);
  Ref<URL> viaLink = URL::fileURLWithPath(folder / "link")->fileReferenceURL();
  EXPECT_EQ(viaLink->path(), folder / "target");
  EXPECT_TRUE(viaLink->isEqual(URL::fileURLWithPath(folder / "target")->fileReferenceURL()));
}

TEST(FileReferenceURLTest, ReferencesOfOneItemShareOneDescriptor) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "shared", "x"));
  const Ref<URL> path = URL::fileURLWithPath(folder / "shared");
  const int before = filetest::descriptorBaseline();
  {
    std::vector<Ref<URL>> references;
    for (int i = 0; i < 20000; ++i) references.push_back(path->fileReferenceURL());
    EXPECT_EQ(filetest::openDescriptorCount(), before + 1);
  }
  EXPECT_EQ(filetest::openDescriptorCount(), before);
}

TEST(FileReferenceURLTest, ConcurrentMakersAgreeAndLeaveNoDescriptor) {
  TemporaryFolder folder;
  for (int i = 0; i < 8; ++i) ASSERT_TRUE(filetest::writeFile(folder / std::to_string(i), "x"));
  const int before = filetest::descriptorBaseline();
  std::vector<std::thread> threads;
  std::atomic<int> mismatches{0};
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 300; ++round) {
        const std::string name = folder / std::to_string((t + round) % 8);
        Ref<URL> first = URL::fileURLWithPath(name)->fileReferenceURL();
        Ref<URL> second = URL::fileURLWithPath(name)->fileReferenceURL();
        if (!first || !first->isEqual(second) || first->path() != name) ++mismatches;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
  EXPECT_EQ(filetest::openDescriptorCount(), before);
}

}  // namespace
}  // namespace fennick
