// The folder-size walk: the same sum as a plain nftw walk over every kind of
// entry, on trees wide enough to be shared among threads, and unreadable
// folders skipped.
#include "Platform/ChildTestRun.h"
#include "Platform/FileTestSupport.h"

#include "fennick/Platform/DirectorySizeWalker.h"

#include <gtest/gtest.h>

#include <ftw.h>

#include <string>

namespace fennick {
namespace {

using filetest::TemporaryFolder;

std::int64_t referenceSum = 0;

// What the walk must find: every entry below the root that is not a folder.
std::int64_t sumWithNftw(const std::string& root) {
  referenceSum = 0;
  ::nftw(root.c_str(),
         [](const char*, const struct stat* status, int type, struct FTW* where) {
           if (where->level > 0 && type != FTW_D && type != FTW_DP && type != FTW_DNR)
             referenceSum += static_cast<std::int64_t>(status->st_blocks) * 512;
           return 0;
         },
         64, FTW_PHYS);
  return referenceSum;
}

void makeTree(const TemporaryFolder& folder, int folders, int filesPerFolder) {
  for (int d = 0; d < folders; ++d) {
    const std::string dir = folder / ("d" + std::to_string(d));
    ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((dir + "/nested").c_str(), 0755), 0);
    for (int f = 0; f < filesPerFolder; ++f)
      ASSERT_TRUE(filetest::writeFile(dir + "/nested/f" + std::to_string(f), std::string(100 * f + 1, 'x')));
  }
}

TEST(DirectorySizeWalkerTest, SumsEveryEntryThatIsNotAFolderAsNftwDoes) {
  TemporaryFolder folder;
  makeTree(folder, 100, 8);
  ASSERT_TRUE(filetest::writeFile(folder / "top", std::string(70000, 'y')));
  ASSERT_EQ(::symlink("/a/rather/long/target/that/a/fast/symbolic/link/would/not/hold/"
                      "0123456789012345678901234567890123456789012345678901234567890123456789",
                      (folder / "link").c_str()),
            0);
  ASSERT_EQ(::symlink(folder.path().c_str(), (folder / "d0/loop").c_str()), 0);  // not followed
  ASSERT_EQ(::link((folder / "top").c_str(), (folder / "d1/hard").c_str()), 0);  // counted at each name

  platform::DirectorySizeWalker walker(folder.path());
  const std::int64_t size = walker.run();
  EXPECT_EQ(size, sumWithNftw(folder.path()));
  EXPECT_GT(size, 70000);
  EXPECT_EQ(walker.itemsVisited(), 100u * (2 + 8) + 4);
  EXPECT_EQ(URL::fileURLWithPath(folder.path())->fetchDirectorySize(), size);
  // A link to the folder measures the folder.
  ASSERT_EQ(::symlink(folder.path().c_str(), (folder.path() + "-link").c_str()), 0);
  EXPECT_EQ(platform::DirectorySizeWalker(folder.path() + "-link").run(), size);
  ::unlink((folder.path() + "-link").c_str());
}

TEST(DirectorySizeWalkerTest, WhatIsNotAReadableFolderMeasuresZero) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "file", "x"));
  EXPECT_EQ(platform::DirectorySizeWalker(folder / "file").run(), 0);
  EXPECT_EQ(platform::DirectorySizeWalker(folder / "missing").run(), 0);
  EXPECT_EQ(URL::URLWithString("https://example.com/")->fetchDirectorySizeFromNodes(), 0);
  EXPECT_FALSE(URL::fileURLWithPath(folder.path())->fetchDirectorySizeFromMetadata());
}

TEST(DirectorySizeWalkerTest, UnreadableFoldersAreSkipped) {
  FENNICK_RUN_IN_CHILD("DirectorySizeWalkerTest.InsideUnreadableFolders", {.unprivileged = true});
}

TEST(DirectorySizeWalkerTest, InsideUnreadableFolders) {
  FENNICK_ONLY_IN_CHILD();
  TemporaryFolder folder;
  ASSERT_EQ(::mkdir((folder / "closed").c_str(), 0755), 0);
  ASSERT_TRUE(filetest::writeFile(folder / "closed/hidden", std::string(50000, 'x')));
  ASSERT_TRUE(filetest::writeFile(folder / "open", std::string(50000, 'x')));
  const std::int64_t everything = platform::DirectorySizeWalker(folder.path()).run();
  ASSERT_EQ(::chmod((folder / "closed").c_str(), 0), 0);
  if (::access((folder / "closed/hidden").c_str(), F_OK) == 0) ::_exit(filetest::kChildCannotSetUp);
  const std::int64_t readable = platform::DirectorySizeWalker(folder.path()).run();
  ::chmod((folder / "closed").c_str(), 0755);
  EXPECT_LT(readable, everything);
  EXPECT_EQ(readable, sumWithNftw(folder.path()) - (everything - readable));
  EXPECT_GT(readable, 0);
}

}  // namespace
}  // namespace fennick
