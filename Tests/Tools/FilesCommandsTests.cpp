// fennick watch and fennick du, as a user runs them.
#include "Tools/ToolRunner.h"

#include <fennick/Fennick.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

extern char** environ;

namespace {

using fennick::tooltest::runTool;

class Folder {
 public:
  Folder() {
    const char* root = std::getenv("TMPDIR");
    std::string pattern = std::string(root && *root ? root : "/tmp") + "/fennick-tool-XXXXXX";
    if (char* made = ::mkdtemp(pattern.data())) path_ = made;
  }
  ~Folder() {
    ::nftw(path_.c_str(), [](const char* item, const struct stat*, int, struct FTW*) { return ::remove(item), 0; },
           16, FTW_DEPTH | FTW_PHYS);
  }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void writeFile(const std::string& path, std::size_t bytes) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  ASSERT_GE(descriptor, 0);
  const std::string contents(bytes, 'x');
  ASSERT_EQ(::write(descriptor, contents.data(), contents.size()), static_cast<ssize_t>(bytes));
  ::close(descriptor);
}

// A running `fennick watch`, with its output read through pipes.
class WatchProcess {
 public:
  explicit WatchProcess(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {FENNICK_TOOL_PATH, "watch"});
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, FENNICK_TOOL_PATH, &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    ::close(err[1]);
    out_ = out[0];
    err_ = err[0];
  }
  ~WatchProcess() {
    if (pid_ > 0 && status_ < 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(out_);
    ::close(err_);
  }

  /// Reads standard error until it holds `text`; false on end or timeout.
  bool waitForError(const std::string& text) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (err.find(text) == std::string::npos) {
      if (std::chrono::steady_clock::now() > deadline || !readSome(err_, err)) return false;
    }
    return true;
  }
  /// Reads both outputs to their end and waits for the exit status.
  int finish() {
    while (readSome(out_, out)) {
    }
    while (readSome(err_, err)) {
    }
    int status = 0;
    ::waitpid(pid_, &status, 0);
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return status_;
  }
  void interrupt() { ::kill(pid_, SIGINT); }

  std::string out, err;

 private:
  static bool readSome(int descriptor, std::string& into) {
    pollfd waiting{descriptor, POLLIN, 0};
    if (::poll(&waiting, 1, 10000) <= 0) return false;
    char buffer[4096];
    const ssize_t got = ::read(descriptor, buffer, sizeof buffer);
    if (got <= 0) return false;
    into.append(buffer, static_cast<std::size_t>(got));
    return true;
  }

  pid_t pid_ = -1;
  int out_ = -1, err_ = -1;
  int status_ = -1;
};

TEST(WatchCommand, PrintsEventsAndFollowsTheItemAcrossARename) {
  Folder folder;
  writeFile(folder / "notes", 10);
  WatchProcess watch({"--count", "2", folder / "notes"});
  ASSERT_TRUE(watch.waitForError("Watching 1 item; press Ctrl-C to stop.")) << watch.err;
  ASSERT_EQ(::rename((folder / "notes").c_str(), (folder / "moved").c_str()), 0);
  // The write comes after the rename in the kernel's order, and one event
  // line per run of the monitor follows in that order.
  writeFile(folder / "moved", 10);
  EXPECT_EQ(watch.finish(), 0) << watch.err;
  EXPECT_NE(watch.out.find(" rename " + folder / "notes" + " → " + folder / "moved" + "\n"), std::string::npos)
      << watch.out;
  EXPECT_NE(watch.out.find(" write,extend " + folder / "moved" + "\n"), std::string::npos) << watch.out;
}

TEST(WatchCommand, StopsCleanlyOnCtrlC) {
  Folder folder;
  WatchProcess watch({"--recursive", folder.path()});
  ASSERT_TRUE(watch.waitForError("Watching 1 item")) << watch.err;
  watch.interrupt();
  EXPECT_EQ(watch.finish(), 0) << watch.err;
}

TEST(WatchCommand, MissingPathsAndBadCountsFail) {
  Folder folder;
  auto missing = runTool({"watch", folder / "missing"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "fennick watch: " + folder / "missing" + ": No such file or directory\n");
  auto count = runTool({"watch", "--count", "none", folder.path()});
  EXPECT_EQ(count.status, 1);
  EXPECT_NE(count.err.find("--count takes a positive number"), std::string::npos) << count.err;
  EXPECT_EQ(runTool({"watch"}).status, 2);
}

TEST(DiskUsageCommand, PrintsTheSizeOfTreesAndFiles) {
  Folder folder;
  ASSERT_EQ(::mkdir((folder / "tree").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir((folder / "tree/sub").c_str(), 0755), 0);
  writeFile(folder / "tree/a", 100000);
  writeFile(folder / "tree/sub/b", 3000000);
  const std::int64_t size = fennick::URL::fileURLWithPath(folder / "tree")->fetchDirectorySize();
  ASSERT_GT(size, 3000000);
  struct stat file {};
  ASSERT_EQ(::stat((folder / "tree/a").c_str(), &file), 0);

  auto plain = runTool({"du", folder / "tree", folder / "tree/a"});
  EXPECT_EQ(plain.status, 0) << plain.err;
  EXPECT_EQ(plain.out, std::to_string(size) + "\t" + folder / "tree" + "\n" + std::to_string(file.st_blocks * 512) +
                           "\t" + folder / "tree/a\n");
  // Not a terminal: no live line.
  EXPECT_TRUE(plain.err.empty()) << plain.err;

  auto human = runTool({"du", "-h", folder / "tree"});
  EXPECT_EQ(human.status, 0);
  EXPECT_EQ(human.out.substr(human.out.find('\t')), "\t" + folder / "tree\n");
  EXPECT_EQ(human.out.substr(human.out.find('\t') - 1, 1), "M") << human.out;
}

TEST(DiskUsageCommand, ReportsMissingPathsAndGoesOn) {
  Folder folder;
  writeFile(folder / "file", 10);
  auto result = runTool({"du", folder / "missing", folder / "file"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("fennick du: " + folder / "missing" + ": "), std::string::npos) << result.err;
  EXPECT_NE(result.out.find("\t" + folder / "file\n"), std::string::npos) << result.out;
}

}  // namespace
