#pragma once
// Event sources: run a handler on a queue when something happens.
//
// Life cycle: a source is created suspended. Set its handlers, then resume()
// it; suspend() and resume() nest (each suspend needs a resume, and a resume
// too many aborts). Events that arrive while a source is suspended are kept
// (coalesced) and delivered after the resume. cancel() stops it for good: no
// event handler starts after cancel() returns, and the cancel handler runs
// exactly once, on the source's queue, after the last event handler has
// returned (a suspended source delivers it when resumed). Handlers never run
// concurrently with each other, even on a concurrent queue. Once the cancel
// handler has run, both handlers are released, which breaks reference cycles
// through their captures.
//
// Dropping the last reference cancels the source: no event handler starts
// afterwards, and a cancel handler not yet delivered is still submitted. A
// queued handler run keeps its source alive until it ran.
//
// Descriptor-based sources (reads, timers) share one epoll reactor thread,
// which runs only while such sources exist.
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/Ref.h"
#include "fennick/Dispatch/Time.h"

namespace fennick::dispatch {

namespace detail {
class Reactor;
}

class Source : public std::enable_shared_from_this<Source> {
  enum class Kind : std::uint8_t { Read, Timer, DataOr };
  struct Private {};

 public:
  /// Fires while `fd` has data to read (or is at end of file); data() is an
  /// estimate of the bytes available. The source watches its own duplicate of
  /// `fd`, closed on cancel, so the caller may close `fd` in the cancel
  /// handler. Regular files count as readable while their position is before
  /// the end. nullptr when `fd` is not an open descriptor, or when the process
  /// has no descriptor left for the duplicate or the reactor (an epoll
  /// descriptor and an eventfd, shared by all sources). A null queue means
  /// global(QOS_CLASS_DEFAULT), for all three factories.
  static Ref<Source> createRead(int fd, Ref<Queue> queue);
  /// Fires as set by setTimer(); data() is the number of expirations since the
  /// last handler run. Never fires before setTimer(). nullptr when the process
  /// has no descriptor left for a timerfd or the reactor.
  static Ref<Source> createTimer(Ref<Queue> queue);
  /// Fires after mergeData(); data() is the OR of the values merged since the
  /// last handler run.
  static Ref<Source> createDataOr(Ref<Queue> queue);

  Source(Private, Kind kind, Ref<Queue> queue);
  ~Source();
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  /// The handler is copied; setting it again replaces it for later runs.
  void setEventHandler(std::function<void()> handler);
  void setCancelHandler(std::function<void()> handler);

  /// Timers: first fire at `start` (NOW: at once; FOREVER: never), then every
  /// `intervalNanos` (0 or UINT64_MAX: only once). `start` keeps its clock:
  /// wall-clock starts follow changes of the system clock. Expirations not yet
  /// delivered are discarded. The leeway is accepted for compatibility; the
  /// kernel's own timer slack applies. Aborts on other kinds of source.
  void setTimer(Time start, std::uint64_t intervalNanos, std::uint64_t leewayNanos);

  /// Data-or sources: ORs `value` into the pending data and schedules one
  /// handler run for all merges until it starts. Zero is ignored, as are
  /// merges after cancel(). Aborts on other kinds of source.
  void mergeData(std::uintptr_t value);

  /// Inside the event handler: the data of this run (see the factories).
  std::uintptr_t data() const noexcept { return data_.load(std::memory_order_relaxed); }

  void resume();
  void suspend();
  void cancel();
  bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_acquire); }

 private:
  friend class detail::Reactor;
  using Handler = std::shared_ptr<const std::function<void()>>;

  bool openTimer(bool wallClock);
  void disconnectLocked();
  void reactorEvent(std::uint32_t events);
  void scheduleLocked();
  void armLocked();
  void run();
  std::uintptr_t takeDataLocked();

  const Kind kind_;
  const Ref<Queue> queue_;
  Ref<detail::Reactor> reactor_;
  std::uint64_t registration_ = 0;

  mutable std::mutex mutex_;  // guards everything below
  int fd_ = -1;               // our duplicate of the read fd, or the timerfd
  bool timerOnWallClock_ = false;
  bool pollable_ = true;      // false for regular files, which epoll refuses
  Handler eventHandler_;
  Handler cancelHandler_;
  int suspendCount_ = 1;
  std::atomic<bool> cancelled_{false};
  bool runScheduled_ = false;  // a run is queued or running: at most one at a time
  bool cancelDelivered_ = false;
  bool hasPending_ = false;
  std::uintptr_t pending_ = 0;
  std::atomic<std::uintptr_t> data_{0};
};

}  // namespace fennick::dispatch

// Also reachable from fennick, like the rest of the framework.
namespace fennick {
using dispatch::Source;
}  // namespace fennick
