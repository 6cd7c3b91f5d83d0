#include "fennick/Dispatch/Queue.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Processes/FileHandle.h"
#include "fennick/Runtime/Processes/Pipe.h"
#include "fennick/Runtime/Processes/Process.h"

#include "Support/ChildTestRun.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace fennick;
namespace fs = std::filesystem;

namespace {

Ref<Process> shell(const std::string& script) {
  auto process = Process::init();
  process->setLaunchPath("/bin/sh");
  process->setArguments({"-c", script});
  return process;
}

std::string text(const Ref<Data>& data) { return std::string(data->stringView()); }

std::set<std::string> openDescriptors() {
  std::set<std::string> fds;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) fds.insert(entry.path().filename());
  return fds;
}

// Zombies are children that exited but were never reaped.
int zombieChildren() {
  int zombies = 0;
  const std::string self = std::to_string(getpid());
  for (const auto& entry : fs::directory_iterator("/proc")) {
    std::ifstream stat(entry.path() / "stat");
    std::string pid, name, state, parent;
    if (!(stat >> pid >> name >> state >> parent)) continue;
    if (parent == self && state == "Z") ++zombies;
  }
  return zombies;
}

TEST(ProcessTest, PipesCarryOutputErrorAndExitStatus) {
  auto process = shell("read line; echo \"out:$line\"; echo err >&2; exit 3");
  auto input = Pipe::pipe(), output = Pipe::pipe(), error = Pipe::pipe();
  process->setStandardInput(input);
  process->setStandardOutput(output);
  process->setStandardError(error);
  process->launch();
  EXPECT_TRUE(process->isRunning());
  EXPECT_GT(process->processIdentifier(), 0);
  // The child's ends were closed in the parent: reading ends when the child does.
  EXPECT_EQ(input->fileHandleForReading()->fileDescriptor(), -1);
  EXPECT_EQ(output->fileHandleForWriting()->fileDescriptor(), -1);
  input->fileHandleForWriting()->writeData(Data::dataWithString("hello\n"));
  input->fileHandleForWriting()->closeFile();
  EXPECT_EQ(text(output->fileHandleForReading()->readDataToEndOfFile()), "out:hello\n");
  EXPECT_EQ(text(error->fileHandleForReading()->readDataToEndOfFile()), "err\n");
  process->waitUntilExit();
  EXPECT_FALSE(process->isRunning());
  EXPECT_EQ(process->terminationStatus(), 3);
  EXPECT_EQ(process->terminationReason(), Process::NSTaskTerminationReasonExit);
}

TEST(ProcessTest, EnvironmentDirectoryAndFileHandlesAreHandedOver) {
  const fs::path dir = fs::temp_directory_path() / ("fennick-process-" + std::to_string(getpid()));
  fs::create_directories(dir);
  const fs::path log = dir / "log.txt";
  std::ofstream(log).close();
  auto process = shell("echo \"$GREETING from $(pwd)\"; echo second >&2");
  process->setEnvironment(Process::Environment{{"GREETING", "hi"}});
  process->setCurrentDirectoryPath(dir);
  auto file = FileHandle::fileHandleForWritingAtPath(log.string());
  ASSERT_TRUE(file);
  process->setStandardOutput(file);
  process->setStandardError(file);  // one handle for both streams
  process->launch();
  process->waitUntilExit();
  EXPECT_EQ(process->terminationStatus(), 0);
  std::ifstream in(log);
  std::string all((std::istreambuf_iterator<char>(in)), {});
  EXPECT_EQ(all, "hi from " + dir.string() + "\nsecond\n");
  fs::remove_all(dir);
}

TEST(ProcessTest, SwappedStandardStreamsReachTheRightPipes) {
  auto process = shell("echo to-out; echo to-err >&2");
  auto output = Pipe::pipe(), error = Pipe::pipe();
  process->setStandardOutput(output);
  process->setStandardError(error);
  process->launch();
  process->waitUntilExit();
  EXPECT_EQ(text(output->fileHandleForReading()->readDataToEndOfFile()), "to-out\n");
  EXPECT_EQ(text(error->fileHandleForReading()->readDataToEndOfFile()), "to-err\n");
}

TEST(ProcessTest, UnexecutablePathsRaiseOrReportAndLeaveNothingBehind) {
  const fs::path dir = fs::temp_directory_path() / ("fennick-noexec-" + std::to_string(getpid()));
  fs::create_directories(dir);
  const fs::path plain = dir / "plain.sh";
  std::ofstream(plain) << "#!/bin/sh\nexit 0\n";
  fs::permissions(plain, fs::perms::owner_read | fs::perms::owner_write);
  for (const std::string& path : {std::string("/nonexistent/tool"), dir.string(), plain.string()}) {
    SCOPED_TRACE(path);
    auto process = Process::init();
    process->setLaunchPath(path);
    try {
      process->launch();
      FAIL() << "launch did not raise";
    } catch (const Exception& exception) {
      EXPECT_EQ(exception.name(), NSInvalidArgumentException);
      EXPECT_EQ(exception.reason(), "launch path not accessible");
    }
    EXPECT_FALSE(process->isRunning());
    EXPECT_THROW(process->launch(), Exception);  // a process launches once
    Ref<Error> error;
    auto again = Process::init();
    again->setLaunchPath(path);
    EXPECT_FALSE(again->launchAndReturnError(&error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
    EXPECT_EQ(error->code(), path == "/nonexistent/tool" ? ENOENT : EACCES);
  }
  auto badDirectory = shell("true");
  badDirectory->setCurrentDirectoryPath("/nonexistent/dir");
  EXPECT_THROW(badDirectory->launch(), Exception);
  EXPECT_THROW(Process::init()->setStandardInput(Data::data()), Exception);
  fs::remove_all(dir);
}

TEST(ProcessTest, TerminateEndsTheChildAndTheHandlerRunsOnceOnTheUtilityQueue) {
  auto process = Process::init();
  process->setLaunchPath("/bin/sleep");
  process->setArguments({"30"});
  std::mutex mutex;
  std::condition_variable called;
  int calls = 0;
  Ref<Process> seen;
  Ref<dispatch::Queue> queue;
  process->setTerminationHandler([&](const Ref<Process>& ended) {
    std::lock_guard lock(mutex);
    ++calls;
    seen = ended;
    queue = dispatch::Queue::current();
    called.notify_all();
  });
  EXPECT_THROW(process->terminationStatus(), Exception);  // not launched
  process->launch();
  EXPECT_THROW(process->terminationStatus(), Exception);  // still running
  EXPECT_TRUE(process->suspend());
  EXPECT_TRUE(process->resume());
  process->terminate();
  process->waitUntilExit();
  EXPECT_EQ(process->terminationReason(), Process::NSTaskTerminationReasonUncaughtSignal);
  EXPECT_EQ(process->terminationStatus(), SIGTERM);
  std::unique_lock lock(mutex);
  ASSERT_TRUE(called.wait_for(lock, std::chrono::seconds(10), [&] { return calls == 1; }));
  EXPECT_EQ(seen, process);
  EXPECT_EQ(queue, dispatch::global(QOS_CLASS_UTILITY));
  EXPECT_FALSE(process->terminationHandler());  // released after its call
  process->terminate();  // after the exit: nothing to signal
}

TEST(ProcessTest, ExitedChildrenAreReapedWithoutAWaiter) {
  std::mutex mutex;
  std::condition_variable done;
  int finished = 0;
  for (int i = 0; i < 20; ++i) {
    auto process = shell("exit 0");
    process->setTerminationHandler([&](const Ref<Process>&) {
      std::lock_guard lock(mutex);
      ++finished;
      done.notify_all();
    });
    process->launch();  // dropped at once: it keeps itself alive while running
  }
  std::unique_lock lock(mutex);
  ASSERT_TRUE(done.wait_for(lock, std::chrono::seconds(20), [&] { return finished == 20; }));
  EXPECT_EQ(zombieChildren(), 0);
}

TEST(ProcessTest, ExitIsWatchedEvenWithoutADescriptorLeft) {
  FENNICK_RUN_IN_CHILD("ProcessTest.InsideDescriptorExhaustion", {.exhaustsDescriptors = true});
}

// With every descriptor taken, the child still starts (posix_spawn needs
// none) but there is no pidfd to watch it through: it must be reaped and its
// handler run all the same.
TEST(ProcessTest, InsideDescriptorExhaustion) {
  FENNICK_ONLY_IN_CHILD();
  shell("exit 0")->launch();  // starts the reactor and the workers beforehand
  const rlimit limit{64, 64};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<int> filler;
  for (int fd; (fd = dup(STDERR_FILENO)) >= 0;) filler.push_back(fd);
  ASSERT_EQ(errno, EMFILE);

  std::mutex mutex;
  std::condition_variable done;
  bool finished = false;
  auto process = shell("exit 4");
  process->setTerminationHandler([&](const Ref<Process>&) {
    std::lock_guard lock(mutex);
    finished = true;
    done.notify_all();
  });
  Ref<Error> error;
  ASSERT_TRUE(process->launchAndReturnError(&error));
  {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(done.wait_for(lock, std::chrono::seconds(20), [&] { return finished; }));
  }
  EXPECT_FALSE(process->isRunning());
  for (int fd : filler) close(fd);
  EXPECT_EQ(process->terminationStatus(), 4);
  EXPECT_EQ(zombieChildren(), 0);
}

TEST(ProcessTest, ManyThreadsLaunchingShortProcessesLeakNothing) {
  const auto before = openDescriptors();
  constexpr int kThreads = 8, kEach = 125;  // 1,000 processes
  std::vector<std::thread> threads;
  std::atomic<int> failures{0};
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) {
        auto process = Process::init();
        process->setLaunchPath("/bin/true");
        auto output = Pipe::pipe();
        process->setStandardOutput(output);
        process->launch();
        process->waitUntilExit();
        if (process->terminationStatus() != 0 || output->fileHandleForReading()->readDataToEndOfFile()->length() != 0)
          ++failures;
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  // Exit watches finish on the utility queue shortly after each wait.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (openDescriptors() != before && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_EQ(zombieChildren(), 0);
}

TEST(ProcessTest, DescriptorsNotMeantForTheChildAreClosedInIt) {
  const int leaky = ::fcntl(STDOUT_FILENO, F_DUPFD, 100);  // no close-on-exec flag
  ASSERT_GE(leaky, 100);
  auto process = shell("if [ -e /proc/self/fd/" + std::to_string(leaky) + " ]; then echo open; else echo closed; fi");
  auto output = Pipe::pipe();
  process->setStandardOutput(output);
  process->launch();
  const std::string answer = text(output->fileHandleForReading()->readDataToEndOfFile());
  process->waitUntilExit();
  ::close(leaky);
  EXPECT_EQ(answer, "closed\n");
}

TEST(FileHandleTest, WritingToAPipeWithoutReaderFailsWithoutASignal) {
  auto pipe = Pipe::pipe();
  pipe->fileHandleForReading()->closeFile();
  Ref<Error> error;
  EXPECT_FALSE(pipe->fileHandleForWriting()->writeData_error(Data::dataWithString("x"), &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), EPIPE);
  EXPECT_THROW(pipe->fileHandleForWriting()->writeData(Data::dataWithString("x")), Exception);
  sigset_t pending;
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
}

TEST(FileHandleTest, ReadsSeeksAndReportsClosedHandles) {
  const fs::path path = fs::temp_directory_path() / ("fennick-handle-" + std::to_string(getpid()));
  std::ofstream(path) << "0123456789";
  auto handle = FileHandle::fileHandleForReadingAtPath(path.string());
  ASSERT_TRUE(handle);
  EXPECT_EQ(text(handle->readDataOfLength(4)), "0123");
  EXPECT_EQ(handle->offsetInFile(), 4u);
  EXPECT_EQ(handle->seekToEndOfFile(), 10u);
  handle->seekToFileOffset(8);
  EXPECT_EQ(text(handle->readDataToEndOfFile()), "89");
  EXPECT_EQ(handle->readDataOfLength(5)->length(), 0u);
  handle->closeFile();
  handle->closeFile();
  Ref<Error> error;
  EXPECT_FALSE(handle->readDataUpToLength_error(1, &error));
  EXPECT_EQ(error->code(), EBADF);
  EXPECT_THROW(handle->availableData(), Exception);
  EXPECT_FALSE(FileHandle::fileHandleForReadingAtPath("/nonexistent/file"));
  EXPECT_FALSE(FileHandle::fileHandleForReadingFromURL_error(nullptr, &error));
  fs::remove(path);
}

}  // namespace
