#pragma once
// A child process, the runtime's stand-in for the platform's task class,
// launched with posix_spawn.
//
// Configure the launch path, arguments, environment, current directory and
// standard streams, then launch(). Each standard stream is either inherited
// (nil, the default), a Pipe (the child gets the matching end, which the
// parent closes after the launch) or a FileHandle (the child gets a copy of
// its descriptor). Every other descriptor is closed in the child, whatever
// its close-on-exec flag; signal dispositions and the signal mask are reset
// to their defaults there.
//
// The child is always reaped: its exit is watched through a pidfd on the
// dispatch reactor (by a thread of its own when the process is out of
// descriptors), so no zombie is left even when nobody waits. While it
// runs, the Process keeps itself alive. When it has exited, the termination
// handler (if any) is called once on the global utility queue and then
// released, which breaks cycles through its captures.
//
// launch() raises Exception (NSInvalidArgumentException) when the launch path
// cannot be executed (missing, a directory, no execute permission, not an
// executable format), when the current directory does not exist, when a text
// of the configuration would not reach the child whole (a NUL byte in the
// launch path, an argument, the current directory or the environment, or an
// environment name that is empty or holds "="; launchAndReturnError answers
// EINVAL for these), or when the process was launched before; terminationStatus() and terminationReason()
// raise while the child runs or before the launch, as the platform does.
//
// Thread safety: set the configuration before launch() on one thread; after
// the launch every operation may be called from any thread. A Process holds
// one descriptor (its pidfd) from the launch until it is released.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace fennick {

class Error;

class Process : public Object {
  FENNICK_DECLARE_CLASS(Process, Object)

 public:
  enum TerminationReason : std::int64_t {
    NSTaskTerminationReasonExit = 1,
    NSTaskTerminationReasonUncaughtSignal = 2,
  };
  using Environment = std::map<std::string, std::string>;
  using TerminationHandler = std::function<void(const Ref<Process>& process)>;

  static Ref<Process> init();
  /// A process with that path and arguments, launched at once (raises as launch()).
  static Ref<Process> launchedProcessWithLaunchPath_arguments(std::string launchPath,
                                                              std::vector<std::string> arguments);

  ~Process() override;

  // -- Configuration (before launch) -------------------------------------------------
  const std::string& launchPath() const noexcept { return launchPath_; }
  void setLaunchPath(std::string path) { launchPath_ = std::move(path); }
  /// The arguments after the program name (argv[0] is the launch path).
  const std::vector<std::string>& arguments() const noexcept { return arguments_; }
  void setArguments(std::vector<std::string> arguments) { arguments_ = std::move(arguments); }
  /// Nil (the default) passes the parent's environment on.
  const std::optional<Environment>& environment() const noexcept { return environment_; }
  void setEnvironment(std::optional<Environment> environment) { environment_ = std::move(environment); }
  /// Empty (the default) keeps the parent's current directory.
  const std::string& currentDirectoryPath() const noexcept { return currentDirectoryPath_; }
  void setCurrentDirectoryPath(std::string path) { currentDirectoryPath_ = std::move(path); }
  /// A Pipe, a FileHandle or nil (inherit). Other objects raise Exception.
  const Id& standardInput() const noexcept { return streams_[0]; }
  const Id& standardOutput() const noexcept { return streams_[1]; }
  const Id& standardError() const noexcept { return streams_[2]; }
  void setStandardInput(Id stream) { setStream(0, std::move(stream)); }
  void setStandardOutput(Id stream) { setStream(1, std::move(stream)); }
  void setStandardError(Id stream) { setStream(2, std::move(stream)); }
  /// Called once, on the global utility queue, after the child has exited.
  TerminationHandler terminationHandler() const;
  void setTerminationHandler(TerminationHandler handler);

  // -- Running -------------------------------------------------------------------------
  /// Starts the child; raises as described above.
  void launch();
  /// The same, answering false with a POSIX-domain error instead of raising.
  bool launchAndReturnError(Ref<Error>* error);
  /// Blocks until the child has exited and been reaped; returns at once when
  /// it never ran. Needs no dispatch worker.
  void waitUntilExit();
  /// True from a successful launch until the child has been reaped.
  bool isRunning() const;
  /// The child's process ID; 0 before the launch.
  pid_t processIdentifier() const;
  /// The exit status, or the number of the signal that ended the child.
  int terminationStatus() const;
  TerminationReason terminationReason() const;
  /// Sends SIGTERM, SIGINT, SIGSTOP or SIGCONT to a running child (through its
  /// pidfd, so a recycled process ID is never hit); the last two answer
  /// whether the signal was delivered.
  void terminate();
  void interrupt();
  bool suspend();
  bool resume();

  std::string description() const override;

 protected:
  Process() = default;

 private:
  struct Launch;
  void setStream(int index, Id stream);
  /// Whether every text of the configuration reaches the child whole: no NUL
  /// byte anywhere, and environment names that are not empty and hold no "=".
  bool isWholeConfiguration() const;
  /// Spawns the child; 0 or an errno value. Raises for a bad configuration.
  int spawn(Launch& launch);
  /// Watches for the child's exit so that it is reaped and its handler runs
  /// without a waiter: through its pidfd on the reactor, or a thread of its
  /// own when no descriptor is left for that.
  void watchExit();
  bool watchExitOnReactor();
  void watchExitOnThread();
  /// Reaps the child when it has exited; true once it has been reaped.
  bool reapIfExited();
  void finishLocked(int status, TerminationReason reason, std::unique_lock<std::mutex>& lock);
  bool signal(int number);
  void requireExited(const char* operation) const;

  std::string launchPath_;
  std::vector<std::string> arguments_;
  std::optional<Environment> environment_;
  std::string currentDirectoryPath_;
  Id streams_[3];

  mutable std::mutex mutex_;  // guards the members below
  std::condition_variable exited_;
  TerminationHandler terminationHandler_;
  bool launched_ = false;
  bool running_ = false;
  pid_t pid_ = 0;
  int pidfd_ = -1;
  int status_ = 0;
  TerminationReason reason_ = NSTaskTerminationReasonExit;
};

}  // namespace fennick
