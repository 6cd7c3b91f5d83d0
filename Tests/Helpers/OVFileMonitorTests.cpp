// File monitors: renames followed by identity, the end of a watch, the order
// of observer calls, and the release of what a monitor holds.
#include "Helpers/FileObserverRecorder.h"
#include "Helpers/HelpersTestSupport.h"
#include "Platform/FileTestSupport.h"

#include "fennick/Helpers/OVFileMonitor.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

namespace fennick {
namespace {

using filetest::FileObserverRecorder;
using filetest::TemporaryFolder;

TEST(OVFileMonitorTest, NothingToWatchGivesNoMonitor) {
  TemporaryFolder folder;
  EXPECT_EQ(OVFileMonitor::initWithURL(URL::fileURLWithPath(folder / "missing")), nullptr);
  EXPECT_EQ(OVFileMonitor::initWithURL(URL::URLWithString("https://example.com/file")), nullptr);
  EXPECT_EQ(OVFileMonitor::initWithURL(nullptr), nullptr);
  EXPECT_EQ(OVFileMonitor::initWithURL_targetQueue(URL::fileURLWithPath(folder / "missing"),
                                                   dispatch::global(QOS_CLASS_UTILITY)),
            nullptr);
}

TEST(OVFileMonitorTest, FollowsARenameAcrossFolders) {
  TemporaryFolder folder;
  ASSERT_EQ(::mkdir((folder / "other").c_str(), 0755), 0);
  ASSERT_TRUE(filetest::writeFile(folder / "file", "x"));
  auto monitor = OVFileMonitor::initWithURL(URL::fileURLWithPath(folder / "file"));
  ASSERT_NE(monitor, nullptr);
  EXPECT_TRUE(monitor->fileReferenceURL()->isFileReferenceURL());
  auto observer = std::make_shared<FileObserverRecorder>();
  monitor->addObserver(observer);
  ASSERT_TRUE(monitor->hasObservers());

  ASSERT_EQ(::rename((folder / "file").c_str(), (folder / "other/moved").c_str()), 0);
  EXPECT_TRUE(observer->waitFor("move " + folder / "file" + " -> " + folder / "other/moved"));
  EXPECT_TRUE(observer->waitFor("change 32 " + folder / "other/moved"));
  EXPECT_EQ(monitor->filePathURL()->path(), folder / "other/moved");

  // Still watching: the monitor follows the item, not the path.
  ASSERT_TRUE(filetest::appendToFile(folder / "other/moved", "more"));
  EXPECT_TRUE(observer->waitFor("write " + folder / "other/moved"));
  EXPECT_NE(monitor->watcher(), nullptr);
}

TEST(OVFileMonitorTest, DeleteEndsTheWatchForGood) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "file", "x"));
  auto monitor = OVFileMonitor::initWithURL(URL::fileURLWithPath(folder / "file"));
  ASSERT_NE(monitor, nullptr);
  auto observer = std::make_shared<FileObserverRecorder>();
  monitor->addObserver(observer);

  ASSERT_EQ(::unlink((folder / "file").c_str()), 0);
  EXPECT_TRUE(observer->waitFor("delete " + folder / "file"));
  EXPECT_TRUE(observer->waitFor("change 1 (gone)"));
  // Invalidation names the path URL, which still answers the old path.
  EXPECT_TRUE(observer->waitFor("invalidate " + folder / "file"));
  EXPECT_EQ(monitor->watcher(), nullptr);

  // A new item at the same path is another item: silence. A second monitor
  // on the new item hears its write, which the kernel reported after the
  // creation.
  const std::size_t heard = observer->lines().size();
  ASSERT_TRUE(filetest::writeFile(folder / "file", "again"));
  auto second = OVFileMonitor::initWithURL(URL::fileURLWithPath(folder / "file"));
  ASSERT_NE(second, nullptr);
  auto secondObserver = std::make_shared<FileObserverRecorder>();
  second->addObserver(secondObserver);
  ASSERT_TRUE(second->hasObservers());
  ASSERT_TRUE(filetest::appendToFile(folder / "file", "and again"));
  EXPECT_TRUE(secondObserver->waitFor("write " + folder / "file"));
  EXPECT_EQ(observer->lines().size(), heard);
}

TEST(OVFileMonitorTest, ObserverCallsFollowTheBitsInAFixedOrder) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "file", "x"));
  auto url = URL::fileURLWithPath(folder / "file")->fileReferenceURL();
  FileObserverRecorder observer;
  notifyObserverOfChanges(observer, 0x7F, url, URL::fileURLWithPath(folder / "before"));
  const std::string path = folder / "file";
  EXPECT_EQ(observer.lines(), (std::vector<std::string>{"change 127 " + path, "delete " + folder / "before",
                                                        "write " + path, "extend " + path, "attributes " + path,
                                                        "links " + path, "move " + folder / "before" + " -> " + path,
                                                        "revoke " + path}));

  FileObserverRecorder writeOnly;
  notifyObserverOfChanges(writeOnly, DISPATCH_VNODE_EXTEND | DISPATCH_VNODE_WRITE, url, url);
  EXPECT_EQ(writeOnly.lines(), (std::vector<std::string>{"change 6 " + path, "write " + path, "extend " + path}));
}

TEST(OVFileMonitorTest, ReleasingTheMonitorReleasesItsWatch) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "file", "x"));
  struct stat item {};
  ASSERT_EQ(::stat((folder / "file").c_str(), &item), 0);
  auto observer = std::make_shared<FileObserverRecorder>();
  {
    auto monitor = OVFileMonitor::initWithURL(URL::fileURLWithPath(folder / "file"));
    ASSERT_NE(monitor, nullptr);
    monitor->addObserver(observer);
    EXPECT_EQ(filetest::descriptorsOnItem(item), 1);
    ASSERT_TRUE(monitor->hasObservers());
    ASSERT_TRUE(filetest::appendToFile(folder / "file", "more"));
    EXPECT_TRUE(observer->waitFor("write " + folder / "file"));
  }
  EXPECT_TRUE(testing::eventually([&] { return !filetest::isWatchedByInotify(item); }));
  EXPECT_TRUE(testing::eventually([&] { return filetest::descriptorsOnItem(item) == 0; }));
}

}  // namespace
}  // namespace fennick
