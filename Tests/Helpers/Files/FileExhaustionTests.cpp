// The files subsystem when the kernel says no: at the inotify watch limit and
// out of descriptors, every public operation fails cleanly (nil, no
// registration, an unknown size with an error), nothing leaks, and all works
// again once the resource is back. Each case runs in a child process, the
// watch limit in a user namespace of its own, so the host keeps its limits.
#include "Helpers/Files/FileObserverRecorder.h"
#include "Support/HelpersTestSupport.h"
#include "Support/ChildTestRun.h"
#include "Support/FileTestSupport.h"

#include "fennick/Helpers/Files/OVFileMonitoringManager.h"
#include "fennick/Platform/Files/DirectorySizeWalker.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/ObjectModel/Log.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

namespace fennick {
namespace {

using filetest::FileObserverRecorder;
using filetest::TemporaryFolder;

void settle(const Ref<OVFileMonitoringManager>& manager) { manager->internalQueue()->sync([] {}); }

TEST(FileExhaustionTest, AtTheWatchLimitMonitoringFailsCleanlyAndRecovers) {
  FENNICK_RUN_IN_CHILD("FileExhaustionTest.InsideWatchLimit", {.privateNamespace = true});
}

TEST(FileExhaustionTest, InsideWatchLimit) {
  FENNICK_ONLY_IN_CHILD();
  std::FILE* limit = std::fopen("/proc/sys/user/max_inotify_watches", "w");
  if (!limit) ::_exit(filetest::kChildCannotSetUp);
  std::fputs("4", limit);
  if (std::fclose(limit) != 0) ::_exit(filetest::kChildCannotSetUp);

  TemporaryFolder folder;
  ASSERT_EQ(::mkdir((folder / "a").c_str(), 0755), 0);
  for (int index = 0; index < 5; ++index) ASSERT_TRUE(filetest::writeFile(folder / std::to_string(index), "x"));
  ASSERT_TRUE(filetest::writeFile(folder / "a/file", "x"));
  LogCapture log;

  std::vector<Ref<OVFileMonitor>> held;
  for (int index = 0; index < 5; ++index)
    if (auto monitor = OVFileMonitor::initWithURL(URL::fileURLWithPath(folder / std::to_string(index))))
      held.push_back(monitor);
  EXPECT_EQ(held.size(), 4u);

  auto manager = OVFileMonitoringManager::init();
  const Ref<URL> file = URL::fileURLWithPath(folder / "a/file");
  auto refused = std::make_shared<FileObserverRecorder>();
  manager->addObserver_url_isRecursive(refused, file, true);
  EXPECT_EQ(manager->monitorCount(), 0u);
  EXPECT_EQ(manager->observerCountForURL(file), 0u);
  manager->removeObserver_url_isRecursive(refused, file, true);  // never added: changes nothing

  // The refusals were logged without the items' names.
  const auto lines = log.lines();
  EXPECT_GE(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& line) { return line.find("max_user_watches") != std::string::npos; }),
            2);
  for (const std::string& line : lines) EXPECT_EQ(line.find(folder.path()), std::string::npos) << line;

  // Watches freed, the same registration works.
  held.clear();
  ASSERT_TRUE(testing::eventually([] { return platform::vnodeWatchCount() == 0; }));
  auto observer = std::make_shared<FileObserverRecorder>();
  manager->addObserver_url_isRecursive(observer, file, false);
  EXPECT_EQ(manager->monitorCount(), 1u);
  ASSERT_TRUE(filetest::appendToFile(folder / "a/file", "more"));
  EXPECT_TRUE(observer->waitFor("write " + folder / "a/file"));
  manager->removeObserver_url_isRecursive(observer, file, false);
  settle(manager);
  EXPECT_TRUE(testing::eventually([] { return platform::vnodeWatchCount() == 0; }));
}

TEST(FileExhaustionTest, OutOfDescriptorsEveryOperationFailsCleanlyAndRecovers) {
  FENNICK_RUN_IN_CHILD("FileExhaustionTest.InsideDescriptorLimit", {.exhaustsDescriptors = true});
}

// Holds every descriptor the limit leaves but `spare`.
class DescriptorFiller {
 public:
  DescriptorFiller() {
    for (;;) {
      const int descriptor = ::dup(STDIN_FILENO);
      if (descriptor < 0) break;
      held_.push_back(descriptor);
    }
  }
  ~DescriptorFiller() { leave(held_.size()); }
  void leave(std::size_t spare) {
    for (; spare > 0 && !held_.empty(); --spare) {
      ::close(held_.back());
      held_.pop_back();
    }
  }

 private:
  std::vector<int> held_;
};

TEST(FileExhaustionTest, InsideDescriptorLimit) {
  FENNICK_ONLY_IN_CHILD();
  TemporaryFolder folder;
  std::string deep = folder / "tree";
  for (int depth = 0; depth < 6; ++depth) {
    ASSERT_EQ(::mkdir(deep.c_str(), 0755), 0);
    ASSERT_TRUE(filetest::writeFile(deep + "/file", std::string(5000, 'x')));
    deep += "/next";
  }
  ASSERT_TRUE(filetest::writeFile(folder / "watched", "x"));
  const Ref<URL> tree = URL::fileURLWithPath(folder / "tree");
  const Ref<URL> watched = URL::fileURLWithPath(folder / "watched");
  const std::int64_t whole = tree->fetchDirectorySize();
  ASSERT_GT(whole, 0);
  auto manager = OVFileMonitoringManager::init();
  settle(manager);
  const int baseline = filetest::descriptorBaseline();
  const rlimit low{static_cast<rlim_t>(baseline) + 64, static_cast<rlim_t>(baseline) + 64};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);

  {
    DescriptorFiller filler;
    EXPECT_EQ(watched->fileReferenceURL(), nullptr);
    EXPECT_EQ(OVFileMonitor::initWithURL(watched), nullptr);
    auto observer = std::make_shared<FileObserverRecorder>();
    manager->addObserver_url_isRecursive(observer, watched, true);
    EXPECT_EQ(manager->monitorCount(), 0u);
    // With no descriptor, or too few for the path, the size is unknown; as
    // soon as it can be walked, it is whole. Never anything in between.
    for (std::size_t spare = 0; spare < 5; ++spare) {
      SCOPED_TRACE(std::to_string(spare) + " descriptors spare");
      if (spare) filler.leave(1);
      Ref<Error> error;
      const std::int64_t size = tree->fetchDirectorySize(&error);
      if (spare == 0) {
        EXPECT_EQ(size, platform::kDirectorySizeUnknown);
      }
      if (size == platform::kDirectorySizeUnknown) {
        EXPECT_TRUE(error && error->underlyingError() && error->underlyingError()->code() == EMFILE);
      } else {
        EXPECT_EQ(size, whole);
        EXPECT_EQ(error, nullptr);
      }
    }
  }

  // The descriptors back, all works again, and lets go again.
  {
    EXPECT_NE(watched->fileReferenceURL(), nullptr);
    EXPECT_NE(OVFileMonitor::initWithURL(watched), nullptr);
    auto observer = std::make_shared<FileObserverRecorder>();
    manager->addObserver_url_isRecursive(observer, watched, true);
    EXPECT_GT(manager->monitorCount(), 0u);
    ASSERT_TRUE(filetest::appendToFile(folder / "watched", "more"));
    EXPECT_TRUE(observer->waitFor("write " + folder / "watched"));
    manager->removeObserver_url_isRecursive(observer, watched, true);
    EXPECT_EQ(tree->fetchDirectorySize(), whole);
  }
  EXPECT_EQ(manager->monitorCount(), 0u);
  EXPECT_TRUE(testing::eventually([&] { return filetest::openDescriptorCount() == baseline; }));
}

}  // namespace
}  // namespace fennick
