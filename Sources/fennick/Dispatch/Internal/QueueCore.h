#pragma once
// What every queue is inside the engine. The public Queue is an opaque handle;
// each object behind it is a QueueCore of one of four kinds, so the engine
// reaches its state with a static_cast and no indirection.
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "fennick/Dispatch/Queue.h"

namespace fennick::dispatch::detail {

struct WorkItem;

enum class QueueKind : std::uint8_t {
  Serial,      // one block at a time
  Concurrent,  // forwards each block to its target
  Global,      // a root, served by the worker pool
  MainLoop,    // the root of the main queue, served by the main thread
};

class QueueCore : public Queue, public std::enable_shared_from_this<QueueCore> {
 public:
  static QueueCore& of(Queue& queue) noexcept { return static_cast<QueueCore&>(queue); }
  static const QueueCore& of(const Queue& queue) noexcept {
    return static_cast<const QueueCore&>(queue);
  }

  QueueKind kind() const noexcept { return kind_; }
  bool isRoot() const noexcept { return kind_ == QueueKind::Global || kind_ == QueueKind::MainLoop; }
  const std::string& label() const noexcept { return label_; }
  qos_class_t qos() const noexcept { return qos_; }

  /// Raw target, valid while this queue lives (former targets are kept).
  QueueCore* targetPointer() const noexcept { return targetPointer_.load(std::memory_order_acquire); }
  Ref<Queue> target() const;
  /// Points this queue at `target` unless that would close a cycle; the check
  /// and the change are one step with respect to every other retargeting.
  bool retarget(Ref<Queue> target);

  /// Takes ownership of `item` (or runs it in place) on behalf of this queue;
  /// `wake` asks for a thread to be woken if the queue needs one.
  virtual void enqueue(WorkItem* item, bool wake) = 0;
  /// A block that runs alone on a concurrent queue; elsewhere a plain one.
  virtual void enqueueBarrier(WorkItem* item) { enqueue(item, true); }

  /// Suspension, for serial and concurrent queues; the roots abort.
  virtual void suspend();
  virtual void resume();
  virtual void activate();

  void setSpecific(const void* key, void* value, void (*destructor)(void*));
  void* getSpecific(const void* key) const;

 protected:
  QueueCore(std::string label, qos_class_t qos, QueueKind kind, Ref<Queue> target);
  ~QueueCore() override;

 private:
  struct Specific {
    const void* key;
    void* value;
    void (*destructor)(void*);
  };

  const std::string label_;
  const qos_class_t qos_;
  const QueueKind kind_;
  std::atomic<QueueCore*> targetPointer_;
  mutable std::mutex mutex_;  // guards the members below
  Ref<Queue> target_;
  std::vector<Ref<Queue>> formerTargets_;
  std::vector<Specific> specifics_;
};

}  // namespace fennick::dispatch::detail
