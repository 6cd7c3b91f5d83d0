#pragma once
// Watches an extraction tool while it runs and ends it when it stops making
// progress or writes more than it may.
//
// Progress is what the kernel counts for the process in /proc/PID/io: bytes
// read and written through any descriptor. A tool that moves no byte for
// the stall timeout is taken to hang (waiting on a stalled file system, or
// stopped), and one whose written bytes pass the limit is taken to unpack a
// bomb; either is sent SIGKILL through a pidfd, which cannot reach another
// process that happens to get the same process ID. The counters are looked
// at every kInterval, so a tool may write what it manages in that time past
// the limit before it is ended.
//
// Where /proc/PID/io cannot be read, nothing is ended.
#include "fennick/Runtime/Processes/Process.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

namespace fennick::detail {

class ToolWatchdog {
 public:
  enum class Verdict { Ran, Stalled, WroteTooMuch };
  static constexpr std::chrono::milliseconds kInterval{10};

  /// Starts watching `tool`, which has been launched.
  ToolWatchdog(Ref<Process> tool, std::uint64_t maximumBytesWritten, std::chrono::milliseconds stallTimeout);
  ~ToolWatchdog();
  ToolWatchdog(const ToolWatchdog&) = delete;
  ToolWatchdog& operator=(const ToolWatchdog&) = delete;

  /// Stops watching (call once the tool has exited) and tells why, if at
  /// all, the watchdog ended it.
  Verdict finish();

 private:
  void watch();
  void end();

  const Ref<Process> tool_;
  const std::uint64_t maximumBytesWritten_;
  const std::chrono::milliseconds stallTimeout_;
  const pid_t pid_;
  int pidfd_ = -1;

  std::mutex mutex_;  // guards the two members below
  std::condition_variable wake_;
  bool stopping_ = false;
  Verdict verdict_ = Verdict::Ran;

  std::thread thread_;  // started last, once every member above is set
};

}  // namespace fennick::detail
