// The file-monitoring manager: shared monitors, block filters, recursive
// registrations that hear about the folders above, and bad input.
#include "Helpers/Files/FileObserverRecorder.h"
#include "Support/HelpersTestSupport.h"
#include "Support/FileTestSupport.h"

#include "fennick/Helpers/Files/OVFileMonitoringManager.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>

namespace fennick {
namespace {

using filetest::FileObserverRecorder;
using filetest::TemporaryFolder;

// Everything queued on the manager before this call has run.
void settle(const Ref<OVFileMonitoringManager>& manager) { manager->internalQueue()->sync([] {}); }

TEST(OVFileMonitoringManagerTest, ObserversOfOneItemShareOneMonitor) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "file", "x"));
  const std::size_t watches = platform::vnodeWatchCount();
  auto manager = OVFileMonitoringManager::init();
  auto url = URL::fileURLWithPath(folder / "file");
  auto first = std::make_shared<FileObserverRecorder>();
  auto second = std::make_shared<FileObserverRecorder>();
  manager->addObserver_url_isRecursive(first, url, false);
  manager->addObserver_url_isRecursive(second, url, false);
  EXPECT_EQ(manager->monitorCount(), 1u);
  EXPECT_EQ(manager->observerCountForURL(url), 2u);

  // Both hear a write, with the reference URL in place of the path.
  ASSERT_TRUE(filetest::appendToFile(folder / "file", "more"));
  EXPECT_TRUE(first->waitFor("write " + folder / "file"));
  EXPECT_TRUE(second->waitFor("write " + folder / "file"));

  manager->removeObserver_url_isRecursive(first, url, false);
  EXPECT_EQ(manager->monitorCount(), 1u);
  manager->removeObserver_url_isRecursive(second, url, false);
  EXPECT_EQ(manager->monitorCount(), 0u);
  EXPECT_TRUE(testing::eventually([&] { return platform::vnodeWatchCount() == watches; }));

  // Removing what was never added changes nothing.
  manager->removeObserver_url_isRecursive(first, url, true);
  manager->removeObserver(nullptr);
  EXPECT_EQ(manager->monitorCount(), 0u);
}

TEST(OVFileMonitoringManagerTest, BlockObserversFilterByBitsAndGetAllBits) {
  std::vector<std::uintptr_t> calls;
  auto observer = OVBlockBasedFileObserver::initWithURL_isRecursive_flags_block(
      URL::fileURLWithPath("/tmp"), true, DISPATCH_VNODE_WRITE, [&](std::uintptr_t flags) { calls.push_back(flags); });
  observer->didChangeWithFlags_forURL(DISPATCH_VNODE_DELETE | DISPATCH_VNODE_WRITE, nullptr);
  observer->didChangeWithFlags_forURL(DISPATCH_VNODE_ATTRIB, nullptr);
  EXPECT_EQ(calls, std::vector<std::uintptr_t>{0x03});
  EXPECT_TRUE(observer->isRecursive());
  EXPECT_EQ(observer->flags(), DISPATCH_VNODE_WRITE);
}

TEST(OVFileMonitoringManagerTest, BlockObserverHearsItsItemUntilRemoved) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "file", "x"));
  auto manager = OVFileMonitoringManager::init();
  testing::Latch writes;
  std::atomic<std::uintptr_t> seen{0};
  auto token = manager->addObserverOfURL_isRecursive_withBlock(URL::fileURLWithPath(folder / "file"), false,
                                                                [&](std::uintptr_t flags) {
                                                                  seen |= flags;
                                                                  if (flags & DISPATCH_VNODE_WRITE) writes.signal();
                                                                });
  settle(manager);
  ASSERT_TRUE(filetest::appendToFile(folder / "file", "more"));
  EXPECT_TRUE(writes.waitFor(1));
  EXPECT_EQ(seen.load() & (DISPATCH_VNODE_WRITE | DISPATCH_VNODE_EXTEND), DISPATCH_VNODE_WRITE | DISPATCH_VNODE_EXTEND);
  manager->removeObserver(token);
  EXPECT_EQ(manager->monitorCount(), 0u);
}

TEST(OVFileMonitoringManagerTest, RecursiveObserverHearsAFolderTwoLevelsUpMove) {
  TemporaryFolder folder;
  ASSERT_EQ(::mkdir((folder / "a").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((folder / "a/b").c_str(), 0755), 0);
  ASSERT_TRUE(filetest::writeFile(folder / "a/b/file", "x"));
  const auto& manager = OVFileMonitoringManager::defaultMonitor();
  const std::size_t monitorsBefore = manager->monitorCount();
  // Registered by identity, so that the registrations can still be named
  // once the item is gone.
  auto url = URL::fileURLWithPath(folder / "a/b/file")->fileReferenceURL();
  auto observer = std::make_shared<FileObserverRecorder>();
  manager->addObserver_url_isRecursive(observer, url, true);
  std::atomic<std::uintptr_t> blockSaw{0};
  testing::Latch blockWrites;
  auto token = manager->addObserverOfURL_isRecursive_withBlock(url, true, [&](std::uintptr_t flags) {
    blockSaw |= flags;
    if (flags & DISPATCH_VNODE_WRITE) blockWrites.signal();
  });
  // The item, b, a and the temporary folder are new monitors; the folders
  // above it but "/" are monitored too (an earlier test may have made them).
  std::size_t levels = 0;
  for (auto path = URL::fileURLWithPath(folder / "a/b/file"); path->path() != "/";
       path = path->URLByDeletingLastPathComponent())
    ++levels;
  EXPECT_GE(manager->monitorCount(), monitorsBefore + 4);
  EXPECT_LE(manager->monitorCount(), monitorsBefore + levels);

  ASSERT_EQ(::rename((folder / "a").c_str(), (folder / "z").c_str()), 0);
  EXPECT_TRUE(observer->waitFor("move " + folder / "a/b/file" + " -> " + folder / "z/b/file"));

  // The block observer hears only its item's own events.
  ASSERT_TRUE(filetest::appendToFile(folder / "z/b/file", "more"));
  EXPECT_TRUE(blockWrites.waitFor(1));
  EXPECT_EQ(blockSaw.load() & DISPATCH_VNODE_RENAME, 0u);

  // Deleting the item's folder reaches the item's observer as the folder's
  // delete. Only a's monitor saw the move, so the others still name the
  // paths they had.
  ASSERT_EQ(::unlink((folder / "z/b/file").c_str()), 0);
  EXPECT_TRUE(observer->waitFor("delete " + folder / "a/b/file"));
  ASSERT_EQ(::rmdir((folder / "z/b").c_str()), 0);
  EXPECT_TRUE(observer->waitFor("delete " + folder / "a/b"));

  manager->removeObserver_url_isRecursive(observer, url, true);
  manager->removeObserver(token);
  settle(manager);
}

TEST(OVFileMonitoringManagerTest, ItemsThatCannotBeWatchedAreNotRegistered) {
  TemporaryFolder folder;
  auto manager = OVFileMonitoringManager::init();
  auto observer = std::make_shared<FileObserverRecorder>();
  manager->addObserver_url_isRecursive(observer, URL::fileURLWithPath(folder / "missing"), true);
  manager->addObserver_url_isRecursive(observer, URL::URLWithString("https://example.com/a"), true);
  manager->addObserver_url_isRecursive(observer, nullptr, true);
  manager->addObserver_url_isRecursive(nullptr, URL::fileURLWithPath(folder.path()), false);
  manager->addObserverOfURL_isRecursive_withBlock(URL::fileURLWithPath_isDirectory(folder / "bad\xff", false), true,
                                                  [](std::uintptr_t) {});
  EXPECT_EQ(manager->monitorCount(), 0u);
}

}  // namespace
}  // namespace fennick
