// The folder-size walk: the same sum as a plain nftw walk over every kind of
// entry and name, on trees wide enough to be shared among threads and deeper
// than PATH_MAX under a low descriptor limit; what cannot be read reported,
// never left out; entries that vanish meanwhile no error.
#include "Support/ChildTestRun.h"
#include "Support/FileTestSupport.h"

#include "fennick/Helpers/Files/OVURLsAccessController.h"
#include "fennick/Helpers/Files/URLSecurityScope.h"
#include "fennick/Platform/Files/DirectorySizeWalker.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

#include <gtest/gtest.h>

#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>
#include <sys/un.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <future>
#include <string>
#include <thread>

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
  ASSERT_EQ(::link((folder / "top").c_str(), (folder / "d1/hard").c_str()), 0);  // counted at each name

  const int descriptors = filetest::openDescriptorCount();
  platform::DirectorySizeWalker walker(folder.path());
  Ref<Error> error;
  const std::int64_t size = walker.run(&error);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(size, sumWithNftw(folder.path()));
  EXPECT_GT(size, 70000);
  EXPECT_EQ(walker.itemsVisited(), 100u * (2 + 8) + 3);
  EXPECT_EQ(walker.unreadableItems(), 0u);
  EXPECT_EQ(filetest::openDescriptorCount(), descriptors);
  EXPECT_EQ(URL::fileURLWithPath(folder.path())->fetchDirectorySize(), size);
  // A link to the folder measures the folder.
  ASSERT_EQ(::symlink(folder.path().c_str(), (folder.path() + "-link").c_str()), 0);
  EXPECT_EQ(platform::DirectorySizeWalker(folder.path() + "-link").run(), size);
  ::unlink((folder.path() + "-link").c_str());
}

// Names as hostile as a file system allows, loops of links, and special
// files, which are measured by their status and never opened (a FIFO opened
// for reading would hang the walk).
TEST(DirectorySizeWalkerTest, HostileNamesLinksAndSpecialFiles) {
  TemporaryFolder folder;
  const std::string names[] = {"bad\xff\xfe utf-8", "new\nline", std::string(255, 'n'), "-dash", " ", "\x01\x7f",
                               "caf\xc3\xa9"};
  for (const std::string& name : names) {
    ASSERT_EQ(::mkdir((folder / name).c_str(), 0755), 0) << name;
    ASSERT_TRUE(filetest::writeFile(folder / name + "/" + name, std::string(5000, 'z')));
  }
  // Loops of links, and a link up to the root: not followed.
  ASSERT_EQ(::symlink(".", (folder / "self").c_str()), 0);
  ASSERT_EQ(::symlink("b", (folder / "a").c_str()), 0);
  ASSERT_EQ(::symlink("a", (folder / "b").c_str()), 0);
  ASSERT_EQ(::symlink("../..", (folder / (names[2] + "/up")).c_str()), 0);

  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0644), 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string socketPath = folder / "socket";
  ASSERT_LT(socketPath.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  // A device node only where the system lets us make one (as root).
  const bool hasDevice = ::mknod((folder / "null").c_str(), S_IFCHR | 0666, makedev(1, 3)) == 0;

  // Any opening of a special file would show here.
  const int opens = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(opens, 0);
  ASSERT_GE(::inotify_add_watch(opens, (folder / "fifo").c_str(), IN_OPEN), 0);
  if (hasDevice) {
    ASSERT_GE(::inotify_add_watch(opens, (folder / "null").c_str(), IN_OPEN), 0);
  }

  auto walk = std::async(std::launch::async, [&] {
    platform::DirectorySizeWalker walker(folder.path());
    const std::int64_t size = walker.run();
    return std::make_pair(size, walker.itemsVisited());
  });
  ASSERT_EQ(walk.wait_for(std::chrono::seconds(30)), std::future_status::ready) << "the walk hangs";
  const auto [size, items] = walk.get();
  EXPECT_EQ(size, sumWithNftw(folder.path()));
  EXPECT_GE(size, static_cast<std::int64_t>(std::size(names)) * 5000);
  // Each name twice, four links, the FIFO and the socket, and the device.
  EXPECT_EQ(items, std::size(names) * 2 + 4 + 2 + (hasDevice ? 1 : 0));
  char event[sizeof(inotify_event) + NAME_MAX + 1];
  EXPECT_LT(::read(opens, event, sizeof event), 0) << "a special file was opened";
  ::close(opens);
  ::close(listener);
}

TEST(DirectorySizeWalkerTest, WhatIsNotAFolderMeasuresZeroAndWhatIsMissingFails) {
  TemporaryFolder folder;
  ASSERT_TRUE(filetest::writeFile(folder / "file", "x"));
  Ref<Error> error;
  EXPECT_EQ(platform::DirectorySizeWalker(folder / "file").run(&error), 0);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(URL::URLWithString("https://example.com/")->fetchDirectorySizeFromNodes(&error), 0);
  EXPECT_EQ(error, nullptr);
  EXPECT_FALSE(URL::fileURLWithPath(folder.path())->fetchDirectorySizeFromMetadata());

  EXPECT_EQ(URL::fileURLWithPath(folder / "missing")->fetchDirectorySize(&error), platform::kDirectorySizeUnknown);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), 4);
  EXPECT_EQ(error->localizedDescription().find("missing"), std::string::npos);
  // A path cut short at its NUL would name the folder itself.
  error = nullptr;
  EXPECT_EQ(platform::DirectorySizeWalker(folder.path() + std::string("\0/x", 3)).run(&error),
            platform::kDirectorySizeUnknown);
  EXPECT_NE(error, nullptr);
}

TEST(DirectorySizeWalkerTest, FoldersVanishingDuringTheWalkAreNoError) {
  TemporaryFolder folder;
  makeTree(folder, 40, 4);
  const std::int64_t stable = sumWithNftw(folder.path());
  std::atomic<bool> walking{true};
  std::thread churn([&] {
    for (int round = 0; walking.load(); ++round) {
      const std::string dir = folder / ("churn" + std::to_string(round % 8));
      ::mkdir(dir.c_str(), 0755);
      ::mkdir((dir + "/inner").c_str(), 0755);
      filetest::writeFile(dir + "/inner/file", std::string(3000, 'c'));
      TemporaryFolder::removeTree(dir);
    }
  });
  for (int walk = 0; walk < 100; ++walk) {
    Ref<Error> error;
    const std::int64_t size = platform::DirectorySizeWalker(folder.path()).run(&error);
    EXPECT_EQ(error, nullptr) << error->underlyingError()->localizedDescription();
    // The churn adds at most one 4 KiB block per folder of it.
    EXPECT_GE(size, stable);
    EXPECT_LE(size, stable + 8 * 4096);
    if (error) break;
  }
  walking = false;
  churn.join();
}

// Chains of 600 levels, each level holding a file, under a limit of 512
// descriptors, with paths far beyond PATH_MAX. One chain more than there are
// threads, so that every walking thread is busy in a chain of its own. The
// sum is checked against one taken level by level from the test's own
// descriptors.
TEST(DirectorySizeWalkerTest, DeepTreesUnderALowDescriptorLimitAreSizedWhole) {
  FENNICK_RUN_IN_CHILD("DirectorySizeWalkerTest.InsideDeepTree", {.privateNamespace = true});
}

// Makes `levels` nested folders below `root`, each with a file; returns the
// bytes the files occupy.
std::int64_t makeChain(int root, int levels) {
  std::int64_t bytes = 0;
  int level = ::dup(root);
  for (int depth = 0; depth < levels; ++depth) {
    const int file = ::openat(level, "data", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    const std::string contents(1000 * (depth % 13) + 1, 'd');
    struct stat status {};
    if (file < 0 || ::write(file, contents.data(), contents.size()) != static_cast<ssize_t>(contents.size()) ||
        ::fstat(file, &status) != 0)
      return -1;
    bytes += status.st_blocks * 512;
    ::close(file);
    const std::string name = "level-" + std::to_string(depth);
    const int next = ::mkdirat(level, name.c_str(), 0755) == 0
                         ? ::openat(level, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                         : -1;
    ::close(level);
    if (next < 0) return -1;
    level = next;
  }
  ::close(level);
  return bytes;
}

TEST(DirectorySizeWalkerTest, InsideDeepTree) {
  FENNICK_ONLY_IN_CHILD();
  TemporaryFolder folder;
  // A file system of its own, which goes away with the child: nftw cannot
  // remove paths this long.
  if (::mount("tmpfs", folder.path().c_str(), "tmpfs", 0, "size=64m") != 0) ::_exit(filetest::kChildCannotSetUp);
  const rlimit limit{512, 512};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
  constexpr int kLevels = 600;
  const unsigned chains = std::min(8u, std::max(1u, std::thread::hardware_concurrency())) + 1;
  std::int64_t expected = 0;
  for (unsigned chain = 0; chain < chains; ++chain) {
    const std::string start = folder / ("chain" + std::to_string(chain));
    ASSERT_EQ(::mkdir(start.c_str(), 0755), 0);
    const int root = ::open(start.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::int64_t bytes = makeChain(root, kLevels);
    ::close(root);
    ASSERT_GT(bytes, 0);
    expected += bytes;
  }
  ASSERT_GT(folder.path().size() + kLevels * std::string("/level-000").size(), static_cast<std::size_t>(PATH_MAX));

  const int descriptors = filetest::openDescriptorCount();
  platform::DirectorySizeWalker walker(folder.path());
  Ref<Error> error;
  EXPECT_EQ(walker.run(&error), expected);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(walker.itemsVisited(), chains * (2u * kLevels + 1));
  EXPECT_EQ(filetest::openDescriptorCount(), descriptors);
}

TEST(DirectorySizeWalkerTest, UnreadableFoldersAreReportedNotSkipped) {
  FENNICK_RUN_IN_CHILD("DirectorySizeWalkerTest.InsideUnreadableFolders", {.unprivileged = true});
}

TEST(DirectorySizeWalkerTest, FoldersUnreadableToOthersAreReadWhole) {
  FENNICK_RUN_IN_CHILD("DirectorySizeWalkerTest.InsideUnreadableFolders", {});
}

// A folder that cannot be opened, and below it, deeper than a walking
// thread keeps open, one that can be listed but not searched, from which the
// walk cannot go back up through "..". Only what lies in them is reported,
// the rest is still walked. Whoever may read them (root) gets the whole sum.
TEST(DirectorySizeWalkerTest, InsideUnreadableFolders) {
  FENNICK_ONLY_IN_CHILD();
  TemporaryFolder folder;
  ASSERT_EQ(::mkdir((folder / "closed").c_str(), 0755), 0);
  ASSERT_TRUE(filetest::writeFile(folder / "closed/hidden", std::string(50000, 'x')));
  std::string deep = folder / "deep";
  std::uint64_t items = 2;  // closed, deep
  for (int depth = 0; depth < 24; ++depth) {
    ASSERT_EQ(::mkdir(deep.c_str(), 0755), 0);
    for (const char* side : {"s1", "s2", "s3"}) {
      ASSERT_EQ(::mkdir((deep + "/" + side).c_str(), 0755), 0);
      ASSERT_TRUE(filetest::writeFile(deep + "/" + side + "/f", "side"));
    }
    items += 3 * 2 + 1;  // three sides with a file each, the next level
    deep += "/next";
  }
  ASSERT_EQ(::mkdir(deep.c_str(), 0755), 0);
  ASSERT_TRUE(filetest::writeFile(deep + "/unsearchable", "x"));
  ASSERT_EQ(::mkdir((deep + "/below").c_str(), 0755), 0);
  items += 2;
  const std::int64_t everything = sumWithNftw(folder.path());
  ASSERT_EQ(::chmod((folder / "closed").c_str(), 0), 0);
  ASSERT_EQ(::chmod(deep.c_str(), 0444), 0);
  const bool privileged = ::access((folder / "closed/hidden").c_str(), F_OK) == 0;

  platform::DirectorySizeWalker walker(folder.path());
  Ref<Error> error;
  const std::int64_t size = walker.run(&error);
  // What the URL asks of the walk, as it reaches the client (with access
  // granted without bookmarks).
  OVURLsAccessController::defaultURLsAccessController()->setIsBookmarkingEnabled(false);
  std::promise<std::pair<Ref<Dictionary>, Ref<Error>>> answer;
  getResourceValuesForKeys_completionBlock(URL::fileURLWithPath(folder.path()),
                                           Array::arrayWithObjects({String::string(DXURLDiskSizeKey)}),
                                           [&](const Ref<Dictionary>& values, const Ref<Error>& failure) {
                                             answer.set_value({values, failure});
                                           });
  const auto [values, failure] = answer.get_future().get();
  ::chmod((folder / "closed").c_str(), 0755);
  ::chmod(deep.c_str(), 0755);

  if (privileged) {
    EXPECT_EQ(size, everything);
    EXPECT_EQ(error, nullptr);
    EXPECT_EQ(failure, nullptr);
    auto kept = Number::dynamicCastObject(values->objectForKey(DXURLDiskSizeKey));
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->integerValue(), everything);
    return;
  }
  EXPECT_EQ(size, platform::kDirectorySizeUnknown);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), 257);
  EXPECT_EQ(error->localizedDescription().find(folder.path()), std::string::npos);
  // "closed" itself, and in the unsearchable folder its two entries.
  EXPECT_EQ(walker.unreadableItems(), 3u);
  EXPECT_EQ(walker.itemsVisited(), items);
  ASSERT_NE(failure, nullptr);
  EXPECT_EQ(failure->code(), 257);
  EXPECT_EQ(values->objectForKey(DXURLDiskSizeKey), nullptr);
  EXPECT_NE(values->objectForKey(NSURLIsDirectoryKey), nullptr);
}

}  // namespace
}  // namespace fennick
