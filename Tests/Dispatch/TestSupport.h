#pragma once
// Helpers shared by the dispatch tests.
#include <sys/types.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

namespace fennick::dispatch::testing {

/// Polls `done` until it holds; false after `timeout`. For conditions that other
/// threads make true, where the test has no event to wait on.
template <class Predicate>
bool eventually(Predicate done, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// True while thread `tid` of this process sleeps in the kernel (a futex, a
/// read): the event a test waits for when another thread must have blocked.
inline bool sleepsInTheKernel(pid_t tid) {
  if (tid == 0) return false;
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string line;
  std::getline(stat, line);
  // The state follows the parenthesised name, which may itself hold spaces.
  const auto close = line.rfind(')');
  return close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'S';
}

}  // namespace fennick::dispatch::testing
