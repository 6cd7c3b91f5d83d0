#include "fennick/Dispatch/Main.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "fennick/Dispatch/Internal/MainLoop.h"
#include "fennick/Dispatch/Internal/QueueAccess.h"

namespace fennick::dispatch {
namespace {

// -1 not yet known, 0 no, 1 yes. A forked child's only thread is its main one.
thread_local int mainThreadState = -1;

void forkedChild() { mainThreadState = 1; }

// How long runMainQueueUntil sleeps before it asks done() again when no block
// arrives: done() may depend on work of other threads.
constexpr std::chrono::milliseconds kPollInterval{2};

}  // namespace

Ref<Queue> mainQueue() { return detail::MainLoop::mainQueue(); }

bool isMainThread() noexcept {
  if (mainThreadState < 0) {
    static const bool registered = pthread_atfork(nullptr, nullptr, &forkedChild) == 0;
    (void)registered;
    mainThreadState = syscall(SYS_gettid) == getpid() ? 1 : 0;
  }
  return mainThreadState == 1;
}

void main() {
  if (!isMainThread()) detail::fail("dispatch::main() called off the main thread");
  detail::MainLoop& loop = detail::MainLoop::shared();
  for (;;) {
    while (loop.runOne()) {
    }
    loop.waitForWork(std::chrono::hours(1));
  }
}

bool runMainQueueUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  if (!isMainThread()) detail::fail("runMainQueueUntil() called off the main thread");
  detail::MainLoop& loop = detail::MainLoop::shared();
  loop.serveFromNestedLoop();
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (done()) return true;
    if (loop.runOne()) continue;
    const auto now = std::chrono::steady_clock::now();
    if (now >= deadline) return done();
    loop.waitForWork(std::min<std::chrono::nanoseconds>(deadline - now, kPollInterval));
  }
}

}  // namespace fennick::dispatch
