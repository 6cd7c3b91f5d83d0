#include "Support/HelpersTestSupport.h"
#include "Support/ChildTestRun.h"

#include "fennick/Helpers/System/Process+OVRunExtensions.h"
#include "fennick/Runtime/Processes/Pipe.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <future>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

using namespace fennick;
namespace fs = std::filesystem;

namespace {

std::size_t openDescriptors() {
  std::error_code error;
  std::size_t count = 0;
  for (fs::directory_iterator it("/proc/self/fd", error), end; !error && it != end; it.increment(error)) ++count;
  return count;
}

TEST(ProcessRunExtensionsTest, LaunchFailuresAnswerNilOrFalseInsteadOfRaising) {
  EXPECT_FALSE(safelyLaunchedTaskWithLaunchPath_arguments("/nonexistent/tool", {}));
  EXPECT_FALSE(safelyLaunchedTaskWithLaunchPath_arguments("/tmp", {}));
  auto process = Process::init();
  process->setLaunchPath("/bin/sh");
  process->setArguments({"-c", "exit 7"});
  ASSERT_TRUE(safeLaunchWaitingUntilExit(process, true));
  EXPECT_EQ(process->terminationStatus(), 7);
  // Launching twice raises inside; the runner turns that into false.
  EXPECT_FALSE(safeLaunch(process));
  EXPECT_TRUE(safeWaitUntilExit(process));

  auto launched = safelyLaunchedTaskWithLaunchPath_arguments("/bin/true", {});
  ASSERT_TRUE(launched);
  ASSERT_TRUE(safeWaitUntilExit(launched));
  EXPECT_EQ(launched->terminationStatus(), 0);
}

// Launching never waits for the child; waiting does, for as long as the child
// runs, and killing the child ends the wait and frees its process and
// descriptor.
TEST(ProcessRunExtensionsTest, AChildThatNeverExitsIsFreedOnceKilled) {
  const std::size_t before = openDescriptors();
  pid_t pid = 0;
  {
    auto child = safelyLaunchedTaskWithLaunchPath_arguments("/bin/sleep", {"1000"});
    ASSERT_TRUE(child);
    pid = child->processIdentifier();
    auto waited = std::async(std::launch::async, [child] { return safeWaitUntilExit(child); });
    EXPECT_EQ(waited.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout) << "the child still runs";
    child->terminate();
    ASSERT_EQ(waited.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_TRUE(waited.get());
    EXPECT_EQ(child->terminationReason(), Process::NSTaskTerminationReasonUncaughtSignal);
    EXPECT_EQ(child->terminationStatus(), SIGTERM);
  }
  EXPECT_TRUE(fennick::testing::eventually([&] { return !fs::exists("/proc/" + std::to_string(pid)); }))
      << "the child was never reaped";
  EXPECT_TRUE(fennick::testing::eventually([&] { return openDescriptors() <= before; })) << "a descriptor leaked";
}

TEST(ProcessRunExtensionsTest, LaunchesWithoutDescriptorsLeft) {
  FENNICK_RUN_IN_CHILD("ProcessRunExtensionsTest.InsideDescriptorExhaustion", {.exhaustsDescriptors = true});
}

// With no descriptor left, each launch either fails with false or nil, or
// starts a child that can be waited for; none crashes, and once descriptors
// are free again none is left behind.
TEST(ProcessRunExtensionsTest, InsideDescriptorExhaustion) {
  FENNICK_ONLY_IN_CHILD();
  auto trueProcess = [] {
    auto process = Process::init();
    process->setLaunchPath("/bin/true");
    return process;
  };
  const struct {
    const char* name;
    std::function<Ref<Process>()> launch;  // the process when it launched
  } cases[] = {
      {"a launched task", [] { return safelyLaunchedTaskWithLaunchPath_arguments("/bin/true", {}); }},
      {"a launch that waits",
       [&] {
         auto process = trueProcess();
         return safeLaunchWaitingUntilExit(process, true) ? process : nullptr;
       }},
      {"a launch with a pipe for its output",
       [&] {
         auto process = trueProcess();
         auto pipe = Pipe::pipe();
         if (!pipe) return Ref<Process>();
         process->setStandardOutput(pipe);
         return safeLaunch(process) ? process : nullptr;
       }},
  };
  auto launchAndWait = [&](bool mayFail) {
    for (const auto& test : cases) {
      Ref<Process> process = test.launch();
      EXPECT_TRUE(process || mayFail) << test.name;
      if (!process) continue;  // failing is an answer
      EXPECT_TRUE(safeWaitUntilExit(process)) << test.name;
      EXPECT_EQ(process->terminationStatus(), 0) << test.name;
    }
  };
  // Once with descriptors: this also lets a sanitizer's runtime learn the
  // types it checks, which it could not later (it needs a pipe for that).
  launchAndWait(false);
  const rlimit limit{256, 256};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  const std::size_t before = openDescriptors();
  std::vector<int> filler;
  for (int fd; (fd = dup(STDERR_FILENO)) >= 0;) filler.push_back(fd);
  ASSERT_EQ(errno, EMFILE);
  launchAndWait(true);
  for (int fd : filler) close(fd);
  EXPECT_TRUE(fennick::testing::eventually([&] { return openDescriptors() <= before; })) << "a descriptor leaked";
}

}  // namespace
