// Vnode sources where the test needs a namespace of its own: a file system
// lazily unmounted under a watch, and the kernel's watch limit.
#include "Support/FileTestSupport.h"
#include "Support/ChildTestRun.h"
#include "Platform/Files/VnodeEventRecorder.h"

#include "fennick/Runtime/ObjectModel/Log.h"

#include <gtest/gtest.h>

#include <sys/mount.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace fennick {
namespace {

using filetest::TemporaryFolder;
using filetest::VnodeEventRecorder;

// Descriptors of this process whose item lives on device `device`. Their
// links under /proc are read rather than the descriptors themselves: the
// library closes them on its own queue after the unmount, an order the kernel
// keeps but a race detector cannot see.
int descriptorsOnDevice(dev_t device) {
  int count = 0;
  for (int descriptor = 0; descriptor < 4096; ++descriptor) {
    struct stat status {};
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    if (::stat(link.c_str(), &status) == 0 && status.st_dev == device) ++count;
  }
  return count;
}

TEST(VnodeNamespaceTest, LazyUnmountRevokesAndReleasesTheFileSystem) {
  FENNICK_RUN_IN_CHILD("VnodeNamespaceTest.InsideLazyUnmount", {.privateNamespace = true});
}

TEST(VnodeNamespaceTest, InsideLazyUnmount) {
  FENNICK_ONLY_IN_CHILD();
  TemporaryFolder folder;
  if (::mount("tmpfs", folder.path().c_str(), "tmpfs", 0, "size=1m") != 0) {
    std::perror("mounting a tmpfs");
    ::_exit(filetest::kChildCannotSetUp);
  }
  ASSERT_TRUE(filetest::writeFile(folder / "file", "x"));
  ASSERT_EQ(::mkdir((folder / "folder").c_str(), 0755), 0);
  struct stat mounted {};
  ASSERT_EQ(::stat(folder.path().c_str(), &mounted), 0);

  VnodeEventRecorder fileEvents(URL::fileURLWithPath(folder / "file"));
  VnodeEventRecorder folderEvents(URL::fileURLWithPath(folder / "folder"));
  Ref<URL> reference = URL::fileURLWithPath(folder / "file")->fileReferenceURL();
  ASSERT_TRUE(fileEvents.valid() && folderEvents.valid() && reference);
  EXPECT_GT(descriptorsOnDevice(mounted.st_dev), 0);

  // Held items keep a plain unmount from succeeding.
  EXPECT_NE(::umount2(folder.path().c_str(), 0), 0);
  ASSERT_EQ(::umount2(folder.path().c_str(), MNT_DETACH), 0);

  EXPECT_TRUE(fileEvents.waitFor(DISPATCH_VNODE_REVOKE));
  EXPECT_TRUE(folderEvents.waitFor(DISPATCH_VNODE_REVOKE));
  EXPECT_EQ(descriptorsOnDevice(mounted.st_dev), 0);
  EXPECT_FALSE(reference->filePathURL());
  EXPECT_FALSE(reference->resourceValueForKey(NSURLFileSizeKey));
}

TEST(VnodeNamespaceTest, TheWatchLimitGivesNilAndOneLogLine) {
  FENNICK_RUN_IN_CHILD("VnodeNamespaceTest.InsideWatchLimit", {.privateNamespace = true});
}

TEST(VnodeNamespaceTest, InsideWatchLimit) {
  FENNICK_ONLY_IN_CHILD();
  if (std::FILE* limit = std::fopen("/proc/sys/user/max_inotify_watches", "w")) {
    std::fputs("3", limit);
    if (std::fclose(limit) != 0) ::_exit(filetest::kChildCannotSetUp);
  } else {
    ::_exit(filetest::kChildCannotSetUp);
  }
  TemporaryFolder folder;
  LogCapture log;
  std::vector<std::unique_ptr<VnodeEventRecorder>> recorders;
  int watched = 0;
  for (int i = 0; i < 6; ++i) {
    ASSERT_TRUE(filetest::writeFile(folder / std::to_string(i), "x"));
    recorders.push_back(std::make_unique<VnodeEventRecorder>(URL::fileURLWithPath(folder / std::to_string(i))));
    watched += recorders.back()->valid() ? 1 : 0;
  }
  EXPECT_EQ(watched, 3);
  // One line for each refused watch.
  const auto lines = log.lines();
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& line) { return line.find("fs.inotify.max_user_watches") != std::string::npos; }),
            3);
}

}  // namespace
}  // namespace fennick
