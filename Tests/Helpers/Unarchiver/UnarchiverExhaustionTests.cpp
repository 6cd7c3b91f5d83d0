// The unpacker when the process or the disk runs out, and when a tool hangs
// or dies: the job ends with an error, the process lives on, no descriptor
// is left open, and the destination keeps its old items with nothing
// half-made beside them.
#include "Support/ChildTestRun.h"
#include "Helpers/Unarchiver/UnarchiverTestSandbox.h"

#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/Source.h"
#include "fennick/Runtime/Processes/FileHandle.h"
#include "fennick/Runtime/Processes/Pipe.h"

#include <csignal>
#include <random>
#include <sys/mount.h>
#include <sys/resource.h>

using namespace fennick;
using namespace fennick::unarchivertest;

namespace {

void sh(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }
std::string quoted(const fs::path& path) { return "'" + path.string() + "'"; }

std::string randomBytes(std::size_t count) {
  std::mt19937 engine(42);
  std::string bytes(count, '\0');
  for (auto& byte : bytes) byte = static_cast<char>(engine());
  return bytes;
}

// An application folder of `size` incompressible bytes, as a ZIP archive and
// as a disk image (the image's ISO 9660 volume holds the same folder).
void buildArchives(const fs::path& folder, std::size_t size) {
  const fs::path content = folder / "content";
  writeFile(content / "App" / "new.bin", randomBytes(size));
  sh("bsdtar --format zip -cf " + quoted(folder / "app.zip") + " -C " + quoted(content) + " App");
  sh("genisoimage -quiet -R -o " + quoted(folder / "app.iso") + " " + quoted(content));
  sh("python3 '" FENNICK_TEST_SOURCE_DIR "/Helpers/Unarchiver/archive_fixtures.py' udif " + quoted(folder / "app.iso") + " " +
     quoted(folder / "app.dmg"));
  fs::remove_all(content);
  fs::remove(folder / "app.iso");
}

std::size_t openDescriptorCount() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/fd")) ++count;
  return count - 1;  // the iterator's own
}

bool holdsPidfd() {
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    if (fs::read_symlink(entry.path(), ignored).string() == "anon_inode:[pidfd]") return true;
  }
  return false;
}

// A Process releases its pidfd shortly after the job has seen it exit, so
// counts are taken once the last job's tools are all let go of.
std::size_t settledDescriptorCount() {
  EXPECT_TRUE(fennick::testing::eventually([] { return !holdsPidfd(); }));
  return openDescriptorCount();
}

// A leak is a descriptor more; one fewer is something made before the count
// (a previous job's last descriptor on its way out) that has since closed.
void expectDescriptorsBackTo(std::size_t count) {
  EXPECT_TRUE(fennick::testing::eventually([&] { return openDescriptorCount() <= count; }))
      << openDescriptorCount() << " descriptors open, " << count << " before";
}

void setDescriptorLimit(rlim_t limit) {
  rlimit current{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &current), 0);
  current.rlim_cur = limit;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &current), 0);
}

TEST(UnarchiverExhaustion, OutOfDescriptorsTheJobEndsInAnError) {
  FENNICK_RUN_IN_CHILD("UnarchiverExhaustion.InsideOutOfDescriptors", {.exhaustsDescriptors = true});
}

// Every step of a job that needs a descriptor meets a limit once: each run
// allows one more than the last, from none to enough to succeed.
TEST(UnarchiverExhaustion, InsideOutOfDescriptors) {
  FENNICK_ONLY_IN_CHILD();
  Sandbox sandbox("fennick-descriptors");
  ASSERT_NO_FATAL_FAILURE(buildArchives(sandbox.root(), 1000));
  // The dispatch reactor that watches child processes lives while a source
  // does; one that had to be made anew at the limit would end the process
  // in the dispatch layer, before the unpacker could answer.
  auto idle = Pipe::pipe();
  ASSERT_TRUE(idle);
  auto keepReactor = dispatch::Source::createRead(idle->fileHandleForReading()->fileDescriptor(),
                                                  dispatch::global(QOS_CLASS_UTILITY));
  ASSERT_TRUE(keepReactor);
  keepReactor->setEventHandler([] {});
  keepReactor->resume();
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  // Objects made once (and a sanitizer's checks of types it has not seen,
  // which need descriptors of their own) are made before the limit bites,
  // on the paths of success and of failure.
  writeFile(sandbox.root() / "notes.txt", "not an archive");
  ASSERT_TRUE(unpack(sandbox.root() / "notes.txt", sandbox.destination()).error);
  for (const char* archive : {"app.zip", "app.dmg"}) {
    SCOPED_TRACE(archive);
    const std::string whole = readFile(sandbox.root() / archive);
    writeFile(sandbox.root() / "cut" / archive, whole.substr(0, whole.size() / 2));
    ASSERT_TRUE(unpack(sandbox.root() / "cut" / archive, sandbox.destination()).error);
    ASSERT_FALSE(unpack(sandbox.root() / archive, sandbox.destination()).error);
    int failures = 0;
    bool succeeded = false;
    for (rlim_t extra = 0; extra <= 16 && !succeeded; ++extra) {
      SCOPED_TRACE(extra);
      const std::size_t before = settledDescriptorCount();
      setDescriptorLimit(before + extra);
      const Outcome outcome = unpack(sandbox.root() / archive, sandbox.destination());
      setDescriptorLimit(saved.rlim_cur);
      ASSERT_TRUE(outcome.completed);
      succeeded = !outcome.error;
      failures += succeeded ? 0 : 1;
      expectDescriptorsBackTo(before);
      EXPECT_EQ(readFile(sandbox.destination() / "keep.txt"), "kept");
      for (const auto& name : namesIn(sandbox.tmp())) fs::remove_all(sandbox.tmp() / name);
    }
    EXPECT_GT(failures, 2);
    EXPECT_TRUE(succeeded);
  }
  keepReactor->cancel();
}

struct FullDiskCase {
  const char* what;
  const char* archive;
  bool extractOnFullDisk;  // else only the destination is on the full disk
};

TEST(UnarchiverExhaustion, FullDiskTheOldItemsStay) {
  Sandbox sandbox("fennick-full-disk");
  ASSERT_NO_FATAL_FAILURE(buildArchives(sandbox.root(), 400'000));
  fs::create_directories(sandbox.root() / "roomy");
  fs::create_directories(sandbox.root() / "full");
  FENNICK_RUN_IN_CHILD("UnarchiverExhaustion.InsideFullDisk",
                       {.privateNamespace = true, .environment = {"FENNICK_FULL_DISK_ROOT=" + sandbox.root().string()}});
}

// A tmpfs of 256 KiB cannot hold the 400 KB application, whether the tool
// writes it there or the job copies it there from another file system.
TEST(UnarchiverExhaustion, InsideFullDisk) {
  FENNICK_ONLY_IN_CHILD();
  const fs::path root = std::getenv("FENNICK_FULL_DISK_ROOT");
  const fs::path roomy = root / "roomy", full = root / "full";
  if (::mount("tmpfs", roomy.c_str(), "tmpfs", 0, "size=16m") != 0 ||
      ::mount("tmpfs", full.c_str(), "tmpfs", 0, "size=256k") != 0)
    std::_Exit(fennick::filetest::kChildCannotSetUp);

  const FullDiskCase cases[] = {
      {"the tool fills the disk", "app.zip", true},
      {"the tool fills the disk", "app.dmg", true},
      {"the copy into place fills the disk", "app.zip", false},
      {"the copy into place fills the disk", "app.dmg", false},
  };
  int index = 0;
  for (const FullDiskCase& item : cases) {
    SCOPED_TRACE(std::string(item.what) + ": " + item.archive);
    const fs::path tmp = (item.extractOnFullDisk ? full : roomy) / ("tmp" + std::to_string(index));
    const fs::path destination = full / ("destination" + std::to_string(index++));
    fs::create_directories(tmp);
    writeFile(destination / "App" / "old.bin", "old");
    setenv("TMPDIR", tmp.c_str(), 1);
    const Outcome outcome = unpack(root / item.archive, destination);
    ASSERT_TRUE(outcome.completed);
    ASSERT_TRUE(outcome.error);
    if (!item.extractOnFullDisk) {
      EXPECT_EQ(outcome.error->domain(), NSPOSIXErrorDomain);
      EXPECT_EQ(outcome.error->code(), ENOSPC);
    }
    EXPECT_EQ(namesIn(destination), std::vector<std::string>{"App"});
    EXPECT_EQ(namesIn(destination / "App"), std::vector<std::string>{"old.bin"});
    EXPECT_EQ(readFile(destination / "App" / "old.bin"), "old");
    // A failed extraction leaves no folder; a failed copy leaves the
    // extraction folder (it is the job's, kept as after any move).
    if (item.extractOnFullDisk) {
      EXPECT_TRUE(namesIn(tmp).empty());
    }
    fs::remove_all(tmp);
    fs::remove_all(destination);
  }
}

// The IDs of this process's children running `command`.
std::vector<pid_t> childrenNamed(const std::string& command) {
  std::vector<pid_t> found;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string stat = readFile(entry.path() / "stat");
    const std::size_t open = stat.find('('), close = stat.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close + 4 > stat.size()) continue;
    const pid_t parent = static_cast<pid_t>(std::atoi(stat.c_str() + close + 4));
    if (parent == ::getpid() && stat.substr(open + 1, close - open - 1) == command)
      found.push_back(static_cast<pid_t>(std::atoi(stat.c_str())));
  }
  return found;
}

struct ToolTrouble {
  const char* what;
  double atProgress;  // overall progress at which the tool is hit
  int signal;
  bool endedByWatchdog;
};

class StallTimeout {
 public:
  explicit StallTimeout(std::chrono::milliseconds timeout) : saved_(OVUnarchiver::_toolStallTimeout()) {
    OVUnarchiver::_setToolStallTimeout(timeout);
  }
  ~StallTimeout() { OVUnarchiver::_setToolStallTimeout(saved_); }

 private:
  std::chrono::milliseconds saved_;
};

// A tool stopped while it is fed (the feed blocks on a full pipe) or after
// (the wait for its exit blocks) is ended once it has done nothing for the
// stall timeout; a tool killed outright ends the job at once.
TEST(UnarchiverTools, AToolThatHangsOrDiesEndsTheJobWithAnError) {
  Sandbox sandbox("fennick-hanging-tool");
  ASSERT_NO_FATAL_FAILURE(buildArchives(sandbox.root(), 1'000'000));  // four chunks
  StallTimeout shortly(std::chrono::milliseconds(300));
  const ToolTrouble troubles[] = {
      {"stopped while fed", 0.15, SIGSTOP, true},
      {"stopped after its input ended", 0.9, SIGSTOP, true},
      {"killed while fed", 0.15, SIGKILL, false},
  };
  for (const ToolTrouble& trouble : troubles) {
    SCOPED_TRACE(trouble.what);
    const std::size_t before = settledDescriptorCount();
    std::vector<pid_t> hit;
    const Outcome outcome = unpack(sandbox.root() / "app.zip", sandbox.destination(), [&](double progress) {
      if (!hit.empty() || progress < trouble.atProgress - 1e-9) return;
      hit = childrenNamed("bsdtar");
      for (const pid_t pid : hit) ::kill(pid, trouble.signal);
    });
    if (!outcome.completed)
      for (const pid_t pid : hit) ::kill(pid, SIGKILL);  // let the hung job go before failing
    ASSERT_TRUE(outcome.completed);
    ASSERT_EQ(hit.size(), 1u);
    ASSERT_TRUE(outcome.error);
    if (trouble.endedByWatchdog) {
      EXPECT_EQ(outcome.error->domain(), OVUnarchiverErrorDomain);
      EXPECT_EQ(outcome.error->code(), OVUnarchiverErrorExtractorFeedFailed);
    }
    expectDescriptorsBackTo(before);
    EXPECT_TRUE(namesIn(sandbox.tmp()).empty());
    sandbox.expectDestinationIntact();
  }
}

}  // namespace
