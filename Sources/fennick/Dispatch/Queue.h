#pragma once
// Dispatch queues: the serialisation and concurrency primitive of Fennick.
//
// A queue runs blocks submitted to it. A serial queue runs one block at a
// time, in submission order; a concurrent queue may run many at once. Every
// queue drains on a target: by default the global queue of its quality of
// service, which runs on Fennick's one shared worker pool. A serial queue that
// targets another serial queue never runs at the same time as it or as the
// target's other work. No queue owns a thread.
//
// Blocks that block. The pool runs about one worker per core. A block may
// still block (read a pipe, wait for a child process, take a contended lock):
// when queued work has made no progress for about 10 ms while workers sit
// asleep in the kernel inside their blocks, the pool counts those workers as
// blocked and wakes or starts others, at most 32 such workers per quality of
// service and 255 threads in all; they count again when their blocks return,
// and workers idle for 5 s retire. Blocks that keep a core busy get no extra
// threads: another thread would not run sooner. A BlockingScope around a call
// known to block tells the pool at once, without the delay.
//
// Queues are always held through Ref<Queue>. Dropping the last reference is
// safe at any time: work already submitted keeps the queue alive until it ran
// (a queue left suspended or never activated discards its waiting work).
//
// Thread safety: every operation may be called from any thread. Blocks must
// not throw: an exception escaping a block ends the process with a message
// naming the queue and the exception.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "fennick/Dispatch/Block.h"
#include "fennick/Dispatch/QoS.h"
#include "fennick/Dispatch/Ref.h"
#include "fennick/Dispatch/Time.h"

namespace fennick::dispatch {

namespace detail {
class QueueCore;
}  // namespace detail

class Queue {
 public:
  /// A new serial queue. `qos` must be one of the QOS_CLASS_ values (any other
  /// value is taken as unspecified). Without a target the queue drains on
  /// global(qos).
  static Ref<Queue> createSerial(std::string label, qos_class_t qos = QOS_CLASS_UNSPECIFIED,
                                 Ref<Queue> target = nullptr);
  /// A new concurrent queue: blocks may run in parallel, each on the target.
  static Ref<Queue> createConcurrent(std::string label, qos_class_t qos = QOS_CLASS_UNSPECIFIED,
                                     Ref<Queue> target = nullptr);
  /// The same queues, created inactive: they accept work (and setTarget())
  /// but run nothing until activate() is called once.
  static Ref<Queue> createInactiveSerial(std::string label, qos_class_t qos = QOS_CLASS_UNSPECIFIED,
                                         Ref<Queue> target = nullptr);
  static Ref<Queue> createInactiveConcurrent(std::string label,
                                             qos_class_t qos = QOS_CLASS_UNSPECIFIED,
                                             Ref<Queue> target = nullptr);

  virtual ~Queue();
  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;

  const std::string& label() const noexcept;
  qos_class_t qos() const noexcept;
  /// True for serial queues (the main queue included).
  bool isSerial() const noexcept;

  /// Submits `block` to run later on this queue and returns at once.
  void async(Block block);

  /// Submits `block` at `when` (NOW or a past time: at once; FOREVER: never,
  /// and the block is released). Waiting costs no thread: the deadlines sit
  /// on the event reactor's timers. A wall-clock time follows changes of the
  /// system clock. The block then queues like any async block.
  void after(Time when, Block block);

  /// Runs `f(index)` for every index in [0, iterations) and returns when all
  /// have returned. On a concurrent queue the indices are handed out in
  /// chunks to helpers on the queue, one per core, and the calling thread
  /// takes part, so apply() from a worker cannot starve the pool. On a serial
  /// queue, or one that drains through a serial queue, the calls run one after
  /// another on the calling thread, as in sync(). `f` is called concurrently
  /// with itself and must not throw.
  template <class F>
  void apply(std::size_t iterations, F&& f);

  /// Runs `f` on the calling thread once this queue (and every serial queue on
  /// its target chain) has finished the work submitted before, exclusively with
  /// that work, and returns f's result (exceptions propagate to the caller).
  /// No worker thread is needed, so blocking sync calls from workers cannot
  /// starve the pool. A sync onto a queue that the calling thread already holds,
  /// directly or through the target chain, would wait forever: it aborts the
  /// process with a message naming the queue. A sync onto the main queue, or a
  /// queue draining on it, runs f on the main thread.
  template <class F>
  decltype(auto) sync(F&& f) {
    return invokeSync(std::forward<F>(f), false);
  }

  /// Barriers, for concurrent queues: the block starts once every block
  /// submitted to this queue before it has returned, runs alone, and blocks
  /// submitted after it wait until it has returned. On a serial queue or a
  /// global queue these are plain async() and sync(). Blocks that reach this
  /// queue through another concurrent queue are that queue's to order. A
  /// barrierSync from a block running on this queue aborts (it would wait for
  /// itself).
  void barrierAsync(Block block);
  template <class F>
  decltype(auto) barrierSync(F&& f) {
    return invokeSync(std::forward<F>(f), true);
  }

  /// Suspension, for serial and concurrent queues (global queues abort).
  /// suspend() stops the queue from starting blocks once those running now
  /// return; the queue keeps its work, accepts more, and a sync() onto it
  /// waits. resume() undoes one suspend(): they nest, and a resume() without a
  /// suspend() aborts. activate() starts a queue created inactive, once;
  /// later calls and calls on active queues do nothing.
  void suspend();
  void resume();
  void activate();

  /// Changes where this queue drains; nullptr means global(qos()). Work already
  /// handed to the old target finishes there; later batches use the new one.
  /// Aborts on a cycle or when called on a global queue or the main queue.
  void setTarget(Ref<Queue> target);
  /// The target queue; nullptr for global queues and the main queue.
  Ref<Queue> target() const;

  /// Associates `value` with `key` on this queue; `destructor` (if any) is
  /// called with the value when it is replaced or when the queue goes away.
  /// A null value removes the key.
  void setSpecific(const void* key, void* value, void (*destructor)(void*) = nullptr);
  /// The value for `key` on this queue only, or nullptr.
  void* getSpecific(const void* key) const;
  /// The value for `key` on the current queue, or failing that on the nearest
  /// queue of its target chain that has one; nullptr if none has.
  static void* getSpecificCurrent(const void* key);

  /// The queue whose work is running on this thread: the innermost one when
  /// queues are nested (a block of a serial queue draining on another). On the
  /// main thread outside any block this is the main queue; elsewhere nullptr.
  static Ref<Queue> current();
  /// True when this thread holds the queue: it runs a block of it or of a queue
  /// targeting it, or a sync onto such a queue. The main queue is held by the
  /// main thread.
  bool isCurrent() const;

 private:
  // Every queue is made by the engine, which keeps its state out of sight.
  friend class detail::QueueCore;
  Queue() noexcept = default;

  template <class F>
  decltype(auto) invokeSync(F&& f, bool barrier);
  void syncInvoke(void (*function)(void*), void* context, bool barrier);
  void applyInvoke(std::size_t iterations, void (*chunk)(void*, std::size_t, std::size_t),
                   void* context);
};

/// The global concurrent queue of a quality-of-service class (unspecified
/// means default): the same object every time. nullptr for other values.
Ref<Queue> global(qos_class_t qos = QOS_CLASS_DEFAULT);

template <class F>
decltype(auto) Queue::invokeSync(F&& f, bool barrier) {
  using Function = std::remove_reference_t<F>;
  using Result = std::invoke_result_t<Function&>;
  if constexpr (std::is_void_v<Result>) {
    syncInvoke([](void* context) { std::invoke(*static_cast<Function*>(context)); },
               const_cast<void*>(static_cast<const void*>(std::addressof(f))), barrier);
  } else if constexpr (std::is_reference_v<Result>) {
    struct Call {
      Function& function;
      std::remove_reference_t<Result>* result;
    } call{f, nullptr};
    syncInvoke(
        [](void* context) {
          auto& c = *static_cast<Call*>(context);
          c.result = std::addressof(std::invoke(c.function));
        },
        &call, barrier);
    return static_cast<Result>(*call.result);
  } else {
    struct Call {
      Function& function;
      std::optional<Result> result;
    } call{f, std::nullopt};
    syncInvoke(
        [](void* context) {
          auto& c = *static_cast<Call*>(context);
          c.result.emplace(std::invoke(c.function));
        },
        &call, barrier);
    return Result(std::move(*call.result));
  }
}

template <class F>
void Queue::apply(std::size_t iterations, F&& f) {
  using Function = std::remove_reference_t<F>;
  applyInvoke(
      iterations,
      [](void* context, std::size_t begin, std::size_t end) {
        Function& function = *static_cast<Function*>(context);
        for (std::size_t index = begin; index < end; ++index) std::invoke(function, index);
      },
      const_cast<void*>(static_cast<const void*>(std::addressof(f))));
}

}  // namespace fennick::dispatch

// Also reachable from fennick, like the rest of the framework.
namespace fennick {
using dispatch::Queue;
}  // namespace fennick
