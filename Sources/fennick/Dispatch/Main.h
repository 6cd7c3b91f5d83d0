#pragma once
// The main queue: a serial queue whose work runs on the process's main thread.
#include <chrono>
#include <functional>

#include "fennick/Dispatch/Queue.h"

namespace fennick::dispatch {

/// The main queue (the same object every time). Its blocks run on the main
/// thread, in order and one at a time, while that thread is inside main(),
/// runMainQueueUntil() or an attached GLib main loop. A block that runs a
/// nested loop (a modal alert) is suspended while the blocks behind it run
/// inside that loop. The main thread holds the main queue, nested loops
/// included, so a sync onto it from the main thread aborts like any other
/// sync onto a queue the caller holds; from other threads a sync onto it
/// runs the function on the main thread, also while a nested loop is up.
Ref<Queue> mainQueue();

/// True on the process's main thread (the thread whose id is the process id).
bool isMainThread() noexcept;

/// Serves the main queue forever. Programs call it at the end of their own
/// main function, on the main thread (elsewhere it aborts); the process ends
/// through exit() from a block.
[[noreturn]] void main();

/// Runs main-queue blocks on the main thread until `done()` returns true or
/// `timeout` has passed, and returns done(). For tests and tools that need the
/// main queue for a bounded time, and for modal waits. Aborts when called off
/// the main thread.
///
/// Called from a block of the main queue, it is a nested loop: that block is
/// suspended while the blocks behind it run inside the call, one at a time
/// and in order (as they do inside a nested GLib loop, see
/// GLibMainContext.h). A queue that targets the main queue stays serial: if
/// the suspended block is one of its own, its later blocks wait for it.
bool runMainQueueUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);

}  // namespace fennick::dispatch

// Also reachable from fennick, like the rest of the framework.
namespace fennick {
using dispatch::mainQueue;
using dispatch::isMainThread;
}  // namespace fennick
