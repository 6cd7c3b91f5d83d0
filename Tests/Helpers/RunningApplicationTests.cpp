#include "fennick/Helpers/RunningApplication.h"
#include "fennick/Runtime/Data.h"
#include "fennick/Runtime/Error.h"
#include "fennick/Runtime/KeyedArchiver.h"
#include "fennick/Runtime/KeyedUnarchiver.h"
#include "fennick/Runtime/Process.h"
#include "fennick/Runtime/String.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
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
