// One thread's walk of a deep tree: never more descriptors than its window,
// and the way back up found again when a folder of the path was moved away
// meanwhile, so that ".." leads elsewhere.
#include "Support/FileTestSupport.h"

#include "fennick/Platform/Files/Internal/FolderBranch.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>

namespace fennick {
namespace {

using filetest::TemporaryFolder;

class RecordingSink final : public platform::FolderWalkSink {
 public:
  bool share(int) override { return false; }
  void add(std::int64_t addedBytes, std::uint64_t addedItems) override {
    bytes += addedBytes;
    if (afterFolderRead) afterFolderRead(addedItems);
    // The levels of the path, not their side folders, reach deepest.
    if (addedItems != 1) mostDescriptors = std::max(mostDescriptors, filetest::openDescriptorCount());
  }
  void unreadable(std::uint64_t count, int error) override {
    unreadableCount += count;
    lastError = error;
  }

  std::int64_t bytes = 0;
  std::uint64_t unreadableCount = 0;
  int lastError = 0;
  int mostDescriptors = 0;
  std::function<void(std::uint64_t items)> afterFolderRead;
};

TEST(FolderBranchTest, DeepWalksKeepToTheWindowAndFindTheirWayBack) {
  constexpr int kLevels = 30;
  constexpr std::size_t kWindow = 8;
  TemporaryFolder folder;
  // l0/l1/…/l29, each level with ten side folders holding a file; the
  // deepest level is empty.
  std::string level = folder.path();
  std::string tenth;
  for (int depth = 0; depth < kLevels; ++depth) {
    level += "/l" + std::to_string(depth);
    ASSERT_EQ(::mkdir(level.c_str(), 0755), 0);
    if (depth == 10) tenth = level;
    if (depth == kLevels - 1) break;
    for (int side = 0; side < 10; ++side) {
      const std::string sideFolder = level + "/s" + std::to_string(side);
      ASSERT_EQ(::mkdir(sideFolder.c_str(), 0755), 0);
      ASSERT_TRUE(filetest::writeFile(sideFolder + "/f", std::string(3000, 's')));
    }
  }
  struct stat file {};
  ASSERT_EQ(::stat((level.substr(0, level.rfind('/')) + "/s0/f").c_str(), &file), 0);
  const std::int64_t expected = static_cast<std::int64_t>(file.st_blocks) * 512 * 10 * (kLevels - 1);

  for (const bool moveAway : {false, true}) {
    SCOPED_TRACE(moveAway ? "l10 moved out of l9 while below it" : "still tree");
    RecordingSink sink;
    const int baseline = filetest::openDescriptorCount();
    if (moveAway) {
      // Once at the bottom, l10 leaves l9 for the root, which was read before.
      sink.afterFolderRead = [&, moved = false](std::uint64_t items) mutable {
        if (items != 0 || moved) return;
        moved = true;
        ASSERT_EQ(::rename(tenth.c_str(), (folder / "moved").c_str()), 0);
      };
    }
    platform::FolderBranch branch(sink, kWindow);
    branch.walk(::open(folder.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(sink.bytes, expected);
    EXPECT_EQ(sink.unreadableCount, 0u) << std::strerror(sink.lastError);
    EXPECT_LE(sink.mostDescriptors, baseline + static_cast<int>(kWindow));
    EXPECT_EQ(filetest::openDescriptorCount(), baseline);
    if (moveAway) {
      ASSERT_EQ(::rename((folder / "moved").c_str(), tenth.c_str()), 0);
    }
  }
}

}  // namespace
}  // namespace fennick
