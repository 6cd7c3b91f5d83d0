#include "fennick/Helpers/System/RunningApplication.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Coding/KeyedArchiver.h"
#include "fennick/Runtime/Coding/KeyedUnarchiver.h"
#include "fennick/Runtime/Processes/Process.h"
#include "fennick/Runtime/Values/String.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <future>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using namespace fennick;
namespace fs = std::filesystem;

namespace {

// An application installed in a private data directory: a copy of sleep in a
// bundle folder with an information list, and its desktop entry.
class RunningApplicationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::path("/tmp") / ("fennick-apps-" + std::to_string(getpid()));
    fs::create_directories(applications());
    fs::create_directories(root_ / "Sleeper/bin");
    fs::copy_file("/bin/sleep", sleeper());
    fs::permissions(sleeper(), fs::perms::owner_all);
    write(root_ / "Sleeper/Info.plist",
          "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
          "<key>CFBundleVersion</key><string>42</string>"
          "<key>CFBundleShortVersionString</key><string>1.2</string></dict></plist>\n");
    write(applications() / "org.example.Sleeper.desktop",
          "[Desktop Entry]\nType=Application\nName=Sleeper\nIcon=org.example.Sleeper\nExec=\"" +
              sleeper().string() + "\" %U\n");
    write(applications() / "org.example.Other.desktop",
          "[Desktop Entry]\nType=Application\nName=Other\nIcon=/icons/other.png\nExec=other\n");
    setenv("XDG_DATA_HOME", (root_ / "data").c_str(), 1);
    setenv("XDG_DATA_DIRS", (root_ / "none").c_str(), 1);
  }
  void TearDown() override {
    for (auto& process : processes_) {
      process->terminate();
      process->waitUntilExit();
    }
    unsetenv("XDG_DATA_HOME");
    unsetenv("XDG_DATA_DIRS");
    fs::remove_all(root_);
  }

  static void write(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }
  fs::path applications() const { return root_ / "data/applications"; }
  fs::path sleeper() const { return root_ / "Sleeper/bin/sleeper"; }

  pid_t launch(const fs::path& program, Process::Environment environment = {}) {
    auto process = Process::init();
    process->setLaunchPath(program.string());
    process->setArguments({"100"});
    environment.emplace("PATH", "/usr/bin:/bin");  // so that its environment is never empty
    process->setEnvironment(std::move(environment));
    process->launch();
    processes_.push_back(process);
    const pid_t pid = process->processIdentifier();
    waitUntilExecFinished(pid);
    return pid;
  }

  // The launch returns once the child has left our memory, which is before the
  // kernel has laid out its new environment; until then /proc shows none.
  static void waitUntilExecFinished(pid_t pid) {
    const fs::path environ = fs::path("/proc") / std::to_string(pid) / "environ";
    for (int attempt = 0; attempt < 5000; ++attempt) {
      std::ifstream in(environ);
      if (in.peek() != std::ifstream::traits_type::eof()) return;
      usleep(1000);
    }
    FAIL() << "process " << pid << " never finished its exec";
  }

  fs::path root_;
  std::vector<Ref<Process>> processes_;
};

TEST_F(RunningApplicationTest, RecordComesFromTheProcessAndTheDesktopEntryRunningItsExecutable) {
  pid_t pid = launch(sleeper());
  auto record = RunningApplication::runningApplicationWithProcessIdentifier(pid);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->processIdentifier(), pid);
  EXPECT_EQ(record->executableURL()->path(), sleeper().string());
  EXPECT_EQ(record->bundleURL()->path(), (root_ / "Sleeper").string());
  EXPECT_EQ(record->bundleIdentifier()->utf8(), "org.example.Sleeper");
  EXPECT_EQ(record->localizedName()->utf8(), "Sleeper");
  EXPECT_EQ(record->icon()->utf8(), "org.example.Sleeper");
  ASSERT_TRUE(record->ov_bundleVersion());
  EXPECT_EQ(record->ov_bundleVersion()->utf8(), "42");
  EXPECT_EQ(record->ov_bundleShortVersion()->utf8(), "1.2");
  EXPECT_EQ(record->copy().get(), record.get());

  auto all = RunningApplication::runningApplications();
  bool listed = false;
  for (const Id& object : *all)
    listed |= std::static_pointer_cast<RunningApplication>(object)->processIdentifier() == pid;
  EXPECT_TRUE(listed);
}

TEST_F(RunningApplicationTest, LaunchedDesktopFileCountsOnlyForTheProcessItNames) {
  const std::string other = (applications() / "org.example.Other.desktop").string();
  pid_t launched = launch("/bin/sleep", {{"GIO_LAUNCHED_DESKTOP_FILE", other}});
  // A variable naming no desktop file only loses the entry.
  pid_t odd = launch("/bin/sleep", {{"GIO_LAUNCHED_DESKTOP_FILE", "x"}});
  ASSERT_TRUE(RunningApplication::runningApplicationWithProcessIdentifier(odd));
  auto record = RunningApplication::runningApplicationWithProcessIdentifier(launched);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->bundleIdentifier()->utf8(), "org.example.Other");
  EXPECT_EQ(record->icon()->utf8(), "/icons/other.png");

  // Inherited from a parent that GLib launched: the entry is the parent's.
  pid_t inherited =
      launch("/bin/sleep", {{"GIO_LAUNCHED_DESKTOP_FILE", other}, {"GIO_LAUNCHED_DESKTOP_FILE_PID", "1"}});
  record = RunningApplication::runningApplicationWithProcessIdentifier(inherited);
  ASSERT_TRUE(record);
  EXPECT_FALSE(record->bundleIdentifier());
  EXPECT_FALSE(record->icon());
  EXPECT_EQ(record->localizedName()->utf8(), "sleep");
  EXPECT_EQ(record->bundleURL()->path(), record->executableURL()->path());
  EXPECT_FALSE(record->ov_bundleVersion());
}

TEST_F(RunningApplicationTest, ArchivesItsNameAndIconWithSecureCoding) {
  auto record = RunningApplication::runningApplicationWithProcessIdentifier(launch(sleeper()));
  ASSERT_TRUE(record);
  Ref<Error> error;
  Ref<Data> archive = KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(record, true, &error);
  ASSERT_TRUE(archive) << (error ? error->localizedDescription() : "");
  auto decoded = std::dynamic_pointer_cast<RunningApplication>(KeyedUnarchiver::unarchivedObjectOfClass_fromData_error(
      RunningApplication::staticClass(), archive, &error));
  ASSERT_TRUE(decoded) << (error ? error->localizedDescription() : "");
  EXPECT_EQ(decoded->localizedName()->utf8(), "Sleeper");
  EXPECT_EQ(decoded->icon()->utf8(), "org.example.Sleeper");
  EXPECT_EQ(decoded->processIdentifier(), -1);
}

// Opens a pipe for writing when the test still runs after 10 s, so that a
// reader blocked on it returns and the test fails instead of hanging.
class PipeWatchdog {
 public:
  explicit PipeWatchdog(fs::path pipe)
      : thread_([this, pipe = std::move(pipe), finished = finished_.get_future()] {
          if (finished.wait_for(std::chrono::seconds(10)) == std::future_status::ready) return;
          fired_ = true;
          if (const int fd = ::open(pipe.c_str(), O_WRONLY | O_CLOEXEC); fd >= 0) ::close(fd);
        }) {}
  /// Whether nothing waited on the pipe.
  bool finish() {
    finished_.set_value();
    thread_.join();
    return !fired_;
  }

 private:
  std::promise<void> finished_;
  std::atomic<bool> fired_{false};
  std::thread thread_;
};

// Executables whose names are no text, removed while they run, or named like
// the kernel's mark for that; desktop entries that are huge, hold NUL bytes or
// invalid UTF-8, or are pipes. Every record is made, at once, with a name that
// is text.
TEST_F(RunningApplicationTest, HostileExecutablesAndEntriesGiveRecordsWithoutWaiting) {
  fs::create_directories(root_ / "bin");
  const fs::path oddName = root_ / "bin" / "\xff\xfe sleeper";
  const fs::path removed = root_ / "bin" / "removed";
  const fs::path markedName = root_ / "bin" / "kept (deleted)";
  for (const fs::path& copy : {oddName, removed, markedName}) fs::copy_file("/bin/sleep", copy);
  const pid_t oddPid = launch(oddName);
  const pid_t removedPid = launch(removed);
  fs::remove(removed);
  const pid_t markedPid = launch(markedName);

  const fs::path entries = root_ / "entries";
  fs::create_directories(entries);
  write(entries / "huge.desktop", "[Desktop Entry]\nName=Huge\nExec=sleep\n" + std::string(2 << 20, '#'));
  constexpr char kWithNul[] = "[Desktop Entry]\nName=Nu\0ll\nExec=sleep\n";
  write(entries / "nul.desktop", std::string(kWithNul, sizeof kWithNul - 1));
  write(entries / "bad-name.desktop", "[Desktop Entry]\nName=\xff\xfe\nExec=sleep\n");
  ASSERT_EQ(::mkfifo((entries / "pipe.desktop").c_str(), 0600), 0);
  auto launchedWith = [&](const char* entry) {
    return launch("/bin/sleep", {{"GIO_LAUNCHED_DESKTOP_FILE", (entries / entry).string()}});
  };
  // The same hostile files among the installed entries, where they must not
  // be taken for an entry of sleep either.
  for (const char* entry : {"huge.desktop", "nul.desktop", "pipe.desktop"})
    fs::create_symlink(entries / entry, applications() / entry);
  fs::create_symlink("loop.desktop", applications() / "loop.desktop");

  const struct {
    const char* name;
    pid_t pid;
    std::string executable;
    const char* identifier;  // nullptr: no desktop entry
    const char* localizedName;
  } cases[] = {
      {"an executable name that is not UTF-8", oddPid, oddName.string(), nullptr, "\xef\xbf\xbd\xef\xbf\xbd sleeper"},
      {"a removed executable", removedPid, removed.string(), nullptr, "removed"},
      {"a name ending like the kernel's mark", markedPid, markedName.string(), nullptr, "kept (deleted)"},
      {"a huge entry", launchedWith("huge.desktop"), "/usr/bin/sleep", nullptr, "sleep"},
      {"an entry holding a NUL byte", launchedWith("nul.desktop"), "/usr/bin/sleep", nullptr, "sleep"},
      {"a name that is not UTF-8", launchedWith("bad-name.desktop"), "/usr/bin/sleep", "bad-name", "sleep"},
      {"a pipe for an entry", launchedWith("pipe.desktop"), "/usr/bin/sleep", nullptr, "sleep"},
  };
  PipeWatchdog watchdog(entries / "pipe.desktop");
  for (const auto& test : cases) {
    auto record = RunningApplication::runningApplicationWithProcessIdentifier(test.pid);
    ASSERT_TRUE(record) << test.name;
    EXPECT_EQ(record->executableURL()->fileSystemRepresentation(),
              test.executable == "/usr/bin/sleep" ? fs::canonical("/bin/sleep").string() : test.executable)
        << test.name;
    EXPECT_EQ(record->bundleIdentifier() ? record->bundleIdentifier()->utf8() : "(nil)",
              test.identifier ? test.identifier : "(nil)")
        << test.name;
    EXPECT_EQ(record->localizedName()->utf8(), test.localizedName) << test.name;
  }
  EXPECT_GE(RunningApplication::runningApplications()->count(), 1u);
  EXPECT_TRUE(watchdog.finish()) << "a pipe planted as a desktop entry was waited on";
}

TEST(RunningApplication, NoRecordWithoutAProcess) {
  EXPECT_FALSE(RunningApplication::runningApplicationWithProcessIdentifier(0));
  EXPECT_FALSE(RunningApplication::runningApplicationWithProcessIdentifier(-4));
  auto process = Process::init();
  process->setLaunchPath("/bin/true");
  process->launch();
  process->waitUntilExit();
  EXPECT_FALSE(RunningApplication::runningApplicationWithProcessIdentifier(process->processIdentifier()));

  auto current = RunningApplication::currentApplication();
  ASSERT_TRUE(current);
  EXPECT_EQ(current->processIdentifier(), getpid());
  EXPECT_EQ(current->executableURL()->path(), fs::canonical("/proc/self/exe").string());
}

}  // namespace
