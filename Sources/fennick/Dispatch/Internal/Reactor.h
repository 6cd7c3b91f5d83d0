#pragma once
// The one epoll thread behind all descriptor-based event sources.
//
// It exists while at least one source needs it: the first source starts it,
// the last one to go stops it and joins its thread, so an idle process keeps
// no reactor thread or descriptor. Registrations are keyed by a unique id, not
// by pointer, so an event still in flight for a source that is gone is dropped.
//
// It also holds the work submitted with Queue::after(): one heap of deadlines
// per clock behind one timer descriptor per clock, so a delay costs neither a
// thread nor a descriptor. While such work waits, the reactor keeps itself.
//
// Out of descriptors, no reactor can be started: sources cannot be made then
// (their factories answer nil), and delayed work waits on a thread of its own.
#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "fennick/Dispatch/Ref.h"
#include "fennick/Dispatch/Time.h"

namespace fennick::dispatch {
class Source;
}

namespace fennick::dispatch::detail {

class QueueCore;
struct WorkItem;

class Reactor : public std::enable_shared_from_this<Reactor> {
  struct Core;

 public:
  /// The running reactor, started if there is none; nil when none can be
  /// started (no descriptor or thread left).
  static Ref<Reactor> acquire();

  explicit Reactor(Ref<Core> core);
  ~Reactor();
  Reactor(const Reactor&) = delete;
  Reactor& operator=(const Reactor&) = delete;

  /// Watches `fd` for `events` on behalf of `source`. Returns the registration
  /// id, or 0 with errno set when epoll refuses the descriptor.
  std::uint64_t add(int fd, std::uint32_t events, WeakRef<Source> source);
  /// Changes the events of a registration (re-arms one-shot ones).
  void modify(int fd, std::uint64_t id, std::uint32_t events);
  /// Ends a registration. Events already collected for it are dropped.
  void remove(int fd, std::uint64_t id);

  /// Submits `item` to `queue` once `when` (neither NOW nor FOREVER) passes.
  static void submitAt(Time when, Ref<QueueCore> queue, WorkItem* item);

 private:
  // What the thread needs; it keeps its own reference, so the thread may
  // outlive the Reactor when the last source goes away on the thread itself.
  struct Delayed {
    std::int64_t when;  // nanoseconds on the clock's own epoch
    std::uint64_t order;
    Ref<QueueCore> queue;
    WorkItem* item;
  };

  // Ids 1 and 2 are the monotonic and wall-clock timers of delayed work.
  static constexpr int kClocks = 2;
  static constexpr std::uint64_t kFirstSourceId = 3;

  struct Core {
    Core();  // check `ready`: out of descriptors it is not
    ~Core();
    int epoll = -1;
    int wake = -1;  // eventfd registered with id 0
    bool ready = false;
    std::atomic<bool> stopping{false};
    std::mutex mutex;  // guards the members below
    std::unordered_map<std::uint64_t, WeakRef<Source>> sources;
    std::uint64_t nextId = kFirstSourceId;
    int timers[kClocks] = {-1, -1};  // made on first use
    std::vector<Delayed> delayed[kClocks];  // min-heaps by (when, order)
    std::uint64_t delayedOrder = 0;
    Ref<Reactor> keeper;  // set while delayed work waits
  };

  /// Adds delayed work to the heap of its clock; false when the clock's timer
  /// descriptor cannot be made.
  bool schedule(Time when, Ref<QueueCore>& queue, WorkItem* item);
  static void waitOnThread(Time when, Ref<QueueCore> queue, WorkItem* item);
  static void loop(const Ref<Core>& core);
  static void fireDelayed(Core& core, int clock);
  static void armLocked(Core& core, int clock);

  Ref<Core> core_;
  std::thread thread_;
};

}  // namespace fennick::dispatch::detail
