#include "fennick/Runtime/Processes/Process.h"

#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/Source.h"
#include "fennick/Runtime/Values/CStringText.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Processes/FileHandle.h"
#include "fennick/Runtime/Processes/Pipe.h"

#include <fmt/format.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

extern char** environ;

#ifndef P_PIDFD
#define P_PIDFD 3
#endif

namespace fennick {

FENNICK_DEFINE_CLASS(Process) {
  builder.property("launchPath", &Process::launchPath);
  builder.property("processIdentifier", &Process::processIdentifier);
  builder.property("isRunning", &Process::isRunning);
}

namespace {

// Waits for the child to exit without reaping it, so that any number of
// threads (and the exit watch) may wait at once; a pidfd stays open while its
// Process lives, so it cannot name a recycled process.
void waitForExitWithoutReaping(int pidfd, pid_t pid) {
  siginfo_t info{};
  int result;
  do result = pidfd >= 0 ? ::waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(pidfd), &info, WEXITED | WNOWAIT)
                         : ::waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
  while (result != 0 && errno == EINTR);
}

int openPidfd(pid_t pid) { return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)); }

// Owns what posix_spawn needs and releases it on every path.
class SpawnSetup {
 public:
  SpawnSetup() {
    posix_spawn_file_actions_init(&actions_);
    posix_spawnattr_init(&attributes_);
  }
  ~SpawnSetup() {
    posix_spawnattr_destroy(&attributes_);
    posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;

  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

// "NAME=value" strings and the null-terminated pointer array over them.
class CStringArray {
 public:
  void add(std::string text) { strings_.push_back(std::move(text)); }
  char* const* pointers() {
    pointers_.clear();
    for (auto& text : strings_) pointers_.push_back(text.data());
    pointers_.push_back(nullptr);
    return pointers_.data();
  }

 private:
  std::vector<std::string> strings_;
  std::vector<char*> pointers_;
};

bool isDirectory(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// An environment entry the child reads back as the same name and value: the
// child's C library splits "NAME=value" at the first "=" and stops at a NUL.
bool isWholeEnvironmentEntry(const std::string& name, const std::string& value) {
  return !name.empty() && name.find('=') == std::string::npos && !holdsNulByte(name) && !holdsNulByte(value);
}

}  // namespace

struct Process::Launch {
  int childFds[3] = {-1, -1, -1};
  std::vector<int> temporaries;                // parent-side copies, closed after the spawn
  std::vector<Ref<FileHandle>> childEnds;      // pipe ends that belong to the child only

  ~Launch() {
    for (int fd : temporaries) ::close(fd);
  }
};

Ref<Process> Process::init() { return make<Process>(); }

Ref<Process> Process::launchedProcessWithLaunchPath_arguments(std::string launchPath,
                                                              std::vector<std::string> arguments) {
  auto process = init();
  process->setLaunchPath(std::move(launchPath));
  process->setArguments(std::move(arguments));
  process->launch();
  return process;
}

Process::~Process() {
  if (pidfd_ >= 0) ::close(pidfd_);
}

void Process::setStream(int index, Id stream) {
  if (stream && !Pipe::dynamicCastObject(stream.get()) && !FileHandle::dynamicCastObject(stream.get()))
    throw Exception(NSInvalidArgumentException,
                    "standard streams must be a Pipe or a FileHandle, not " + stream->description());
  streams_[index] = std::move(stream);
}

Process::TerminationHandler Process::terminationHandler() const {
  std::lock_guard lock(mutex_);
  return terminationHandler_;
}

void Process::setTerminationHandler(TerminationHandler handler) {
  std::lock_guard lock(mutex_);
  terminationHandler_ = std::move(handler);
}

int Process::spawn(Launch& launch) {
  for (int index = 0; index < 3; ++index) {
    const Id& stream = streams_[index];
    if (!stream) continue;
    Ref<FileHandle> handle;
    if (auto* pipe = Pipe::dynamicCastObject(stream.get())) {
      handle = index == 0 ? pipe->fileHandleForReading() : pipe->fileHandleForWriting();
      launch.childEnds.push_back(handle);
    } else {
      handle = FileHandle::castObject(stream);
    }
    int fd = handle->fileDescriptor();
    if (fd < 0) return EBADF;
    // A source among 0-2 could be overwritten by an earlier dup2 in the child
    // (think of swapping output and error): hand over a private copy instead.
    if (fd < 3 && fd != index) {
      fd = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
      if (fd < 0) return errno;
      launch.temporaries.push_back(fd);
    }
    launch.childFds[index] = fd;
  }

  SpawnSetup setup;
  for (int index = 0; index < 3; ++index)
    if (launch.childFds[index] >= 0)
      posix_spawn_file_actions_adddup2(&setup.actions_, launch.childFds[index], index);
  posix_spawn_file_actions_addclosefrom_np(&setup.actions_, 3);
  if (!currentDirectoryPath_.empty())
    posix_spawn_file_actions_addchdir_np(&setup.actions_, currentDirectoryPath_.c_str());

  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&setup.attributes_, &none);
  posix_spawnattr_setsigdefault(&setup.attributes_, &all);
  posix_spawnattr_setflags(&setup.attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  CStringArray argv;
  argv.add(launchPath_);
  for (const auto& argument : arguments_) argv.add(argument);
  CStringArray envp;
  char* const* environment = environ;
  if (environment_) {
    for (const auto& [name, value] : *environment_) envp.add(name + "=" + value);
    environment = envp.pointers();
  }

  pid_t pid = 0;
  const int failure =
      posix_spawn(&pid, launchPath_.c_str(), &setup.actions_, &setup.attributes_, argv.pointers(), environment);
  if (failure != 0) return failure;

  for (const auto& end : launch.childEnds) end->closeFile();
  pid_ = pid;
  pidfd_ = openPidfd(pid);
  return 0;
}

bool Process::isWholeConfiguration() const {
  // Every text reaches the child as a C string, which ends at a NUL: a launch
  // path, argument or folder holding one would run, pass or enter something
  // else than was asked for.
  if (holdsNulByte(launchPath_) || holdsNulByte(currentDirectoryPath_)) return false;
  for (const auto& argument : arguments_)
    if (holdsNulByte(argument)) return false;
  if (environment_)
    for (const auto& [name, value] : *environment_)
      if (!isWholeEnvironmentEntry(name, value)) return false;
  return true;
}

bool Process::launchAndReturnError(Ref<Error>* error) {
  {
    std::lock_guard lock(mutex_);
    if (launched_) throw Exception(NSInvalidArgumentException, "task already launched");
    if (launchPath_.empty()) throw Exception(NSInvalidArgumentException, "must provide launch path");
    launched_ = true;
  }
  int failure = 0;
  if (!isWholeConfiguration()) {
    failure = EINVAL;
  } else if (!currentDirectoryPath_.empty() && !isDirectory(currentDirectoryPath_)) {
    failure = ENOENT;
  } else {
    Launch launch;
    failure = spawn(launch);
  }
  if (failure != 0) {
    if (error) *error = Error::posixError(failure);
    return false;
  }
  {
    std::lock_guard lock(mutex_);
    running_ = true;
  }
  watchExit();
  return true;
}

void Process::launch() {
  Ref<Error> error;
  if (launchAndReturnError(&error)) return;
  const auto failure = static_cast<int>(error->code());
  if (failure != EINVAL && !currentDirectoryPath_.empty() && !isDirectory(currentDirectoryPath_))
    throw Exception(NSInvalidArgumentException, "working directory doesn't exist.");
  switch (failure) {
    case ENOENT:
    case EACCES:
    case ENOEXEC:
    case ENOTDIR:
    case ELOOP:
    case ENAMETOOLONG:
    case EISDIR:
    case EPERM:
      throw Exception(NSInvalidArgumentException, "launch path not accessible");
    default:
      throw Exception(NSInvalidArgumentException, fmt::format("launch failed: {}", std::strerror(failure)));
  }
}

void Process::watchExit() {
  if (!watchExitOnReactor()) watchExitOnThread();
}

bool Process::watchExitOnReactor() {
  if (pidfd_ < 0) return false;
  auto source = dispatch::Source::createRead(pidfd_, dispatch::global(QOS_CLASS_UTILITY));
  if (!source) return false;
  auto self = std::static_pointer_cast<Process>(shared_from_this());
  std::weak_ptr<dispatch::Source> weakSource = source;
  // The handler keeps the process alive while the child runs; cancelling the
  // source releases the handler and with it that reference.
  source->setEventHandler([self, weakSource] {
    if (!self->reapIfExited()) return;
    if (auto exitSource = weakSource.lock()) exitSource->cancel();
  });
  source->setCancelHandler([keep = source] {});
  source->resume();
  return true;
}

void Process::watchExitOnThread() {
  // Out of descriptors (no pidfd, or none left for the reactor to watch it
  // with), a thread of its own waits instead: a thread needs no descriptor,
  // and without a watch the child would stay a zombie and its handler never
  // run unless someone called waitUntilExit().
  auto self = std::static_pointer_cast<Process>(shared_from_this());
  try {
    std::thread([self, pidfd = pidfd_, pid = pid_] {
      waitForExitWithoutReaping(pidfd, pid);
      self->reapIfExited();
    }).detach();
  } catch (const std::system_error&) {
    // No thread either: waitUntilExit() remains the way to reap this child.
  }
}

bool Process::reapIfExited() {
  std::unique_lock lock(mutex_);
  if (!running_) return true;
  siginfo_t info{};
  int result;
  do result = pidfd_ >= 0 ? ::waitid(static_cast<idtype_t>(P_PIDFD), static_cast<id_t>(pidfd_), &info, WEXITED | WNOHANG)
                          : ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG);
  while (result != 0 && errno == EINTR);
  if (result != 0) {
    // ECHILD: reaped by someone else (SIGCHLD ignored); the status is lost.
    finishLocked(0, NSTaskTerminationReasonExit, lock);
    return true;
  }
  if (info.si_pid == 0) return false;
  const bool exited = info.si_code == CLD_EXITED;
  finishLocked(info.si_status, exited ? NSTaskTerminationReasonExit : NSTaskTerminationReasonUncaughtSignal, lock);
  return true;
}

void Process::finishLocked(int status, TerminationReason reason, std::unique_lock<std::mutex>& lock) {
  status_ = status;
  reason_ = reason;
  running_ = false;
  TerminationHandler handler = std::move(terminationHandler_);
  terminationHandler_ = nullptr;
  lock.unlock();
  exited_.notify_all();
  if (handler) {
    auto self = std::static_pointer_cast<Process>(shared_from_this());
    dispatch::global(QOS_CLASS_UTILITY)->async([handler = std::move(handler), self] { handler(self); });
  }
}

void Process::waitUntilExit() {
  int pidfd;
  pid_t pid;
  {
    std::lock_guard lock(mutex_);
    if (!running_) return;
    pidfd = pidfd_;
    pid = pid_;
  }
  waitForExitWithoutReaping(pidfd, pid);
  reapIfExited();
  std::unique_lock lock(mutex_);
  exited_.wait(lock, [this] { return !running_; });
}

bool Process::isRunning() const {
  std::lock_guard lock(mutex_);
  return running_;
}

pid_t Process::processIdentifier() const {
  std::lock_guard lock(mutex_);
  return pid_;
}

void Process::requireExited(const char* operation) const {
  if (!launched_) throw Exception(NSInvalidArgumentException, std::string(operation) + ": task not launched");
  if (running_) throw Exception(NSInvalidArgumentException, std::string(operation) + ": task still running");
}

int Process::terminationStatus() const {
  std::lock_guard lock(mutex_);
  requireExited("terminationStatus");
  return status_;
}

Process::TerminationReason Process::terminationReason() const {
  std::lock_guard lock(mutex_);
  requireExited("terminationReason");
  return reason_;
}

bool Process::signal(int number) {
  std::lock_guard lock(mutex_);
  if (!launched_) throw Exception(NSInvalidArgumentException, "task not launched");
  if (!running_) return false;
  if (pidfd_ >= 0) return ::syscall(SYS_pidfd_send_signal, pidfd_, number, nullptr, 0) == 0;
  return ::kill(pid_, number) == 0;
}

void Process::terminate() { signal(SIGTERM); }
void Process::interrupt() { signal(SIGINT); }
bool Process::suspend() { return signal(SIGSTOP); }
bool Process::resume() { return signal(SIGCONT); }

std::string Process::description() const {
  std::lock_guard lock(mutex_);
  return fmt::format("<Process: {}> {} (pid {}{})", static_cast<const void*>(this), launchPath_, pid_,
                     running_ ? ", running" : "");
}

}  // namespace fennick
