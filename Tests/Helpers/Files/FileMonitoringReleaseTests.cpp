// What monitoring holds lets go once nobody observes: folder monitors of
// recursive registrations go with the last registration that uses them, a
// file system that was observed can be unmounted, and a manager of one's own
// dies with its last owner.
#include "Helpers/Files/FileObserverRecorder.h"
#include "Support/HelpersTestSupport.h"
#include "Support/ChildTestRun.h"
#include "Support/FileTestSupport.h"

#include "fennick/Helpers/Files/OVFileMonitoringManager.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace fennick {
namespace {

using filetest::FileObserverRecorder;
using filetest::TemporaryFolder;

void settle(const Ref<OVFileMonitoringManager>& manager) { manager->internalQueue()->sync([] {}); }

// What the files subsystem holds now, to compare with after the observers left.
struct Holdings {
  int descriptors = filetest::descriptorBaseline();
  std::size_t watches = platform::vnodeWatchCount();

  // Teardown runs on the monitors' and the reactor's queues; a loaded
  // sanitizer run may take long.
  bool areBack() const {
    return testing::eventually(
        [&] { return platform::vnodeWatchCount() == watches && filetest::openDescriptorCount() == descriptors; },
        std::chrono::seconds(60));
  }
};

struct ShortLivedCase {
  const char* name;
  int items;
  bool sharedManager;
  bool recursive;
  bool blockObserver;
  bool movedBeforeRemoval;  // the item left the folders it was registered under
};

TEST(FileMonitoringReleaseTest, ShortLivedObservationsLeaveNothingBehind) {
  const ShortLivedCase cases[] = {
      {"shared manager, recursive", 100, true, true, false, false},
      {"shared manager, recursive block, moved away", 20, true, true, true, true},
      {"own manager, recursive block", 20, false, true, true, false},
      {"own manager, recursive, moved away", 20, false, true, false, true},
      {"own manager, plain", 20, false, false, false, false},
  };
  for (const ShortLivedCase& test : cases) {
    SCOPED_TRACE(test.name);
    TemporaryFolder folder;
    ASSERT_EQ(::mkdir((folder / "elsewhere").c_str(), 0755), 0);
    const Holdings before;
    Ref<OVFileMonitoringManager> manager =
        test.sharedManager ? OVFileMonitoringManager::defaultMonitor() : OVFileMonitoringManager::init();
    const std::size_t monitorsBefore = manager->monitorCount();
    for (int index = 0; index < test.items; ++index) {
      const std::string item = folder / ("d" + std::to_string(index));
      ASSERT_EQ(::mkdir(item.c_str(), 0755), 0);
      ASSERT_TRUE(filetest::writeFile(item + "/file", "x"));
      Ref<URL> url = URL::fileURLWithPath(item + "/file")->fileReferenceURL();
      auto observer = std::make_shared<FileObserverRecorder>();
      Ref<OVBlockBasedFileObserver> token;
      if (test.blockObserver) token = manager->addObserverOfURL_isRecursive_withBlock(url, test.recursive, [](auto) {});
      else manager->addObserver_url_isRecursive(observer, url, test.recursive);
      settle(manager);
      ASSERT_GT(manager->monitorCount(), monitorsBefore);
      if (test.movedBeforeRemoval) {
        const std::string movedTo = folder / ("elsewhere/f" + std::to_string(index));
        ASSERT_EQ(::rename((item + "/file").c_str(), movedTo.c_str()), 0);
      }
      if (token) manager->removeObserver(token);
      else manager->removeObserver_url_isRecursive(observer, url, test.recursive);
    }
    settle(manager);
    EXPECT_EQ(manager->monitorCount(), monitorsBefore);
    EXPECT_TRUE(before.areBack()) << platform::vnodeWatchCount() << " watches, "
                                  << filetest::openDescriptorCount() << " descriptors";
  }
}

// A folder watched for two reasons, as an observed item and as the folder
// above another recursive registration, keeps its monitor while either holds.
TEST(FileMonitoringReleaseTest, AFolderMonitorLastsWhileAnyRegistrationUsesIt) {
  TemporaryFolder folder;
  ASSERT_EQ(::mkdir((folder / "a").c_str(), 0755), 0);
  ASSERT_TRUE(filetest::writeFile(folder / "a/file", "x"));
  const Holdings before;
  auto manager = OVFileMonitoringManager::init();
  Ref<URL> folderURL = URL::fileURLWithPath(folder / "a")->fileReferenceURL();
  Ref<URL> fileURL = URL::fileURLWithPath(folder / "a/file")->fileReferenceURL();
  auto ofFolder = std::make_shared<FileObserverRecorder>();
  auto ofFile = std::make_shared<FileObserverRecorder>();
  manager->addObserver_url_isRecursive(ofFolder, folderURL, false);
  manager->addObserver_url_isRecursive(ofFile, fileURL, true);
  settle(manager);
  const std::size_t monitors = manager->monitorCount();

  // The folder's own observer leaves; the file's registration still hears
  // the folder move.
  manager->removeObserver_url_isRecursive(ofFolder, folderURL, false);
  EXPECT_EQ(manager->monitorCount(), monitors);
  ASSERT_EQ(::rename((folder / "a").c_str(), (folder / "b").c_str()), 0);
  EXPECT_TRUE(ofFile->waitFor("move " + folder / "a/file" + " -> " + folder / "b/file"));

  manager->removeObserver_url_isRecursive(ofFile, fileURL, true);
  EXPECT_EQ(manager->monitorCount(), 0u);
  folderURL = fileURL = nullptr;
  EXPECT_TRUE(before.areBack());
}

TEST(FileMonitoringReleaseTest, AManagerOfOnesOwnDiesWithItsLastOwner) {
  for (const bool removeFirst : {true, false}) {
    SCOPED_TRACE(removeFirst ? "observers removed first" : "dropped while observing");
    TemporaryFolder folder;
    ASSERT_EQ(::mkdir((folder / "a").c_str(), 0755), 0);
    ASSERT_TRUE(filetest::writeFile(folder / "a/file", "x"));
    const Holdings before;
    std::weak_ptr<OVFileMonitoringManager> weakManager;
    {
      auto manager = OVFileMonitoringManager::init();
      weakManager = manager;
      testing::Latch writes;
      auto token = manager->addObserverOfURL_isRecursive_flags_withBlock(
          URL::fileURLWithPath(folder / "a/file"), true, DISPATCH_VNODE_WRITE, [&](std::uintptr_t) { writes.signal(); });
      settle(manager);
      ASSERT_TRUE(filetest::appendToFile(folder / "a/file", "more"));
      ASSERT_TRUE(writes.waitFor(1));
      if (removeFirst) manager->removeObserver(token);
    }
    EXPECT_TRUE(testing::eventually([&] { return weakManager.expired(); }));
    EXPECT_TRUE(before.areBack());
  }
}

TEST(FileMonitoringReleaseTest, AnObservedFileSystemCanBeUnmountedOnceObserversLeave) {
  FENNICK_RUN_IN_CHILD("FileMonitoringReleaseTest.InsideUnmountAfterObserving", {.privateNamespace = true});
}

TEST(FileMonitoringReleaseTest, InsideUnmountAfterObserving) {
  FENNICK_ONLY_IN_CHILD();
  TemporaryFolder folder;
  if (::mount("tmpfs", folder.path().c_str(), "tmpfs", 0, "size=1m") != 0) {
    std::perror("mounting a tmpfs");
    ::_exit(filetest::kChildCannotSetUp);
  }
  ASSERT_EQ(::mkdir((folder / "a").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((folder / "a/b").c_str(), 0755), 0);
  ASSERT_TRUE(filetest::writeFile(folder / "a/b/file", "x"));
  const Holdings before;
  const auto& manager = OVFileMonitoringManager::defaultMonitor();
  {
    testing::Latch writes;
    auto token = manager->addObserverOfURL_isRecursive_withBlock(URL::fileURLWithPath(folder / "a/b/file"), true,
                                                                 [&](std::uintptr_t flags) {
                                                                   if (flags & DISPATCH_VNODE_WRITE) writes.signal();
                                                                 });
    auto observer = std::make_shared<FileObserverRecorder>();
    manager->addObserver_url_isRecursive(observer, URL::fileURLWithPath(folder / "a/b"), true);
    settle(manager);
    ASSERT_TRUE(filetest::appendToFile(folder / "a/b/file", "more"));
    ASSERT_TRUE(writes.waitFor(1));
    // Observed, the file system is busy.
    EXPECT_NE(::umount2(folder.path().c_str(), 0), 0);
    manager->removeObserver(token);
    manager->removeObserver_url_isRecursive(observer, URL::fileURLWithPath(folder / "a/b"), true);
    settle(manager);
  }
  ASSERT_TRUE(before.areBack());
  EXPECT_EQ(::umount2(folder.path().c_str(), 0), 0);
}

}  // namespace
}  // namespace fennick
