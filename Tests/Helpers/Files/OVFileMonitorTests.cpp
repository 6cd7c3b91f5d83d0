// File monitors: renames followed by identity, the end of a watch, the order
// of observer calls, and the release of what a monitor holds.
#include "Helpers/Files/FileObserverRecorder.h"
#include "Support/HelpersTestSupport.h"
#include "Support/FileTestSupport.h"

#include "fennick/Helpers/Files/OVFileMonitor.h"

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

namespace fennick {
namespace {

// Names as hostile as a file system allows are watched and reported as they
// are; an item deeper than PATH_MAX cannot be named by a path, so it gives
// no monitor, cleanly.
TEST(OVFileMonitorTest, HostileNamesAndPathsAtTheLimit) {
  TemporaryFolder folder;
  std::string nearLimit = folder.path();
  while (nearLimit.size() + 2 * 256 < PATH_MAX) {
    nearLimit += "/" + std::string(200, 'p');
    ASSERT_EQ(::mkdir(nearLimit.c_str(), 0755), 0);
  }
  const std::string names[] = {folder / "bad\xff\xfe utf-8", folder / "new\nline", folder / std::string(255, 'n'),
                               folder / "caf\xc3\xa9", nearLimit + "/" + std::string(250, 'q')};
  for (const std::string& path : names) {
    SCOPED_TRACE(path.size());
    ASSERT_TRUE(filetest::writeFile(path, "x"));
    auto monitor = OVFileMonitor::initWithURL(URL::fileURLWithPath(path));
    ASSERT_NE(monitor, nullptr);
    auto observer = std::make_shared<FileObserverRecorder>();
    monitor->addObserver(observer);
    ASSERT_TRUE(monitor->hasObservers());
    ASSERT_TRUE(filetest::appendToFile(path, "more"));
    EXPECT_TRUE(observer->waitFor("write " + path));
    EXPECT_EQ(monitor->filePathURL()->path(), path);
  }

  // One level more and the path is longer than the system takes.
  const int deepest = ::open(nearLimit.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(deepest, 0);
  const std::string tooDeep = std::string(250, 'r');
  ASSERT_EQ(::mkdirat(deepest, tooDeep.c_str(), 0755), 0);
  const int inside = ::openat(deepest, tooDeep.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(inside, 0);
  const std::string longName(250, 's');
  ASSERT_EQ(::mkdirat(inside, longName.c_str(), 0755), 0);
  ::close(inside);
  ::close(deepest);
  const std::string beyond = nearLimit + "/" + tooDeep + "/" + longName;
  ASSERT_GT(beyond.size(), static_cast<std::size_t>(PATH_MAX));
  EXPECT_EQ(OVFileMonitor::initWithURL(URL::fileURLWithPath(beyond)), nullptr);
  EXPECT_EQ(URL::fileURLWithPath(beyond)->fileReferenceURL(), nullptr);
  // Removed by hand: the folder's own removal walks paths, which stop at PATH_MAX.
  const int parent = ::open((nearLimit + "/" + tooDeep).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  EXPECT_EQ(::unlinkat(parent, longName.c_str(), AT_REMOVEDIR), 0);
  ::close(parent);
}

}  // namespace
}  // namespace fennick
