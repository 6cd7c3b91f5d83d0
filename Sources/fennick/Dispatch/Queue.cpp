#include "fennick/Dispatch/Queue.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "fennick/Dispatch/Internal/ConcurrentQueue.h"
#include "fennick/Dispatch/Internal/CurrentQueue.h"
#include "fennick/Dispatch/Internal/MainLoop.h"
#include "fennick/Dispatch/Internal/Reactor.h"
#include "fennick/Dispatch/Internal/QueueAccess.h"
#include "fennick/Dispatch/Internal/SerialQueue.h"
#include "fennick/Dispatch/Internal/SyncRequest.h"
#include "fennick/Dispatch/Internal/WorkerPool.h"
#include "fennick/Dispatch/Main.h"

namespace fennick::dispatch {

using detail::ChainScope;
using detail::ConcurrentQueue;
using detail::QueueCore;
using detail::QueueKind;
using detail::SerialQueue;
using detail::SyncRequest;
using detail::WorkItem;

namespace {

qos_class_t normalised(qos_class_t qos) {
  return isValidQoSClass(qos) ? qos : QOS_CLASS_UNSPECIFIED;
}

bool isMainQueue(const Queue* queue) { return queue == detail::MainLoop::mainQueue().get(); }

// Held: the thread runs work of the queue, or it is the main queue and the
// thread is the main thread (which the main queue belongs to).
bool isHeldByCurrentThread(const Queue* queue) {
  return detail::hasFrame(queue) || (isMainQueue(queue) && isMainThread());
}

[[noreturn]] void failDeadlock(const Queue& queue, const Queue& held) {
  if (&queue == &held) {
    std::fprintf(stderr,
                 "fennick dispatch: sync onto queue \"%s\" from work already running on it "
                 "would wait forever\n",
                 queue.label().c_str());
  } else {
    std::fprintf(stderr,
                 "fennick dispatch: sync onto queue \"%s\" from work already running on its "
                 "target \"%s\" would wait forever\n",
                 queue.label().c_str(), held.label().c_str());
  }
  std::fflush(stderr);
  std::abort();
}

// The queues of a target chain that a sync call took (serial) or entered
// (concurrent), given back innermost last.
class HeldChain {
 public:
  HeldChain() = default;
  HeldChain(const HeldChain&) = delete;
  HeldChain& operator=(const HeldChain&) = delete;
  ~HeldChain() {
    while (count_ > 0) {
      const Entry& entry = entries_[--count_];
      if (entry.queue->kind() == QueueKind::Serial) {
        static_cast<SerialQueue*>(entry.queue)->release();
      } else {
        static_cast<ConcurrentQueue*>(entry.queue)->leave(entry.barrier);
      }
    }
  }

  void take(QueueCore* queue, SyncRequest& request, bool barrier) {
    if (queue->kind() == QueueKind::Serial) {
      auto* serial = static_cast<SerialQueue*>(queue);
      if (!serial->tryAcquire()) serial->acquire(request);
    } else {
      static_cast<ConcurrentQueue*>(queue)->enter(request, barrier, detail::hasFrame(queue));
    }
    entries_[count_++] = Entry{queue, barrier};
  }

 private:
  struct Entry {
    QueueCore* queue;
    bool barrier;
  };
  Entry entries_[ChainScope::kMaxDepth];
  std::size_t count_ = 0;
};

}  // namespace


Ref<Queue> Queue::createSerial(std::string label, qos_class_t qos, Ref<Queue> target) {
  qos = normalised(qos);
  if (!target) target = global(qos);
  return std::make_shared<SerialQueue>(std::move(label), qos, std::move(target));
}

Ref<Queue> Queue::createConcurrent(std::string label, qos_class_t qos, Ref<Queue> target) {
  qos = normalised(qos);
  if (!target) target = global(qos);
  return std::make_shared<ConcurrentQueue>(std::move(label), qos, std::move(target));
}

Ref<Queue> Queue::createInactiveSerial(std::string label, qos_class_t qos, Ref<Queue> target) {
  qos = normalised(qos);
  if (!target) target = global(qos);
  return std::make_shared<SerialQueue>(std::move(label), qos, std::move(target), true);
}

Ref<Queue> Queue::createInactiveConcurrent(std::string label, qos_class_t qos, Ref<Queue> target) {
  qos = normalised(qos);
  if (!target) target = global(qos);
  return std::make_shared<ConcurrentQueue>(std::move(label), qos, std::move(target), true);
}

namespace {

WorkItem* itemFor(Block block, const Queue& queue) {
  if (!block) detail::fail("an empty block submitted to queue", queue.label().c_str());
  WorkItem* item = WorkItem::allocate();
  item->block = std::move(block);
  return item;
}

}  // namespace

void Queue::async(Block block) { QueueCore::of(*this).enqueue(itemFor(std::move(block), *this), true); }

void detail::asyncInGroup(Queue& queue, Block block, Ref<Group> group) {
  WorkItem* item = itemFor(std::move(block), queue);
  item->group = std::move(group);
  QueueCore::of(queue).enqueue(item, true);
}

void Queue::barrierAsync(Block block) {
  QueueCore::of(*this).enqueueBarrier(itemFor(std::move(block), *this));
}

void Queue::after(Time when, Block block) {
  WorkItem* item = itemFor(std::move(block), *this);
  if (when.isForever()) {
    WorkItem::discard(item);
    return;
  }
  QueueCore& self = QueueCore::of(*this);
  if (when.remaining().count() <= 0) {
    self.enqueue(item, true);
    return;
  }
  detail::Reactor::submitAt(when, self.shared_from_this(), item);
}

void Queue::suspend() { QueueCore::of(*this).suspend(); }

void Queue::resume() { QueueCore::of(*this).resume(); }

void Queue::activate() { QueueCore::of(*this).activate(); }

void Queue::syncInvoke(void (*function)(void*), void* context, bool barrier) {
  QueueCore& self = QueueCore::of(*this);
  barrier = barrier && self.kind() == QueueKind::Concurrent;
  QueueCore* chain[ChainScope::kMaxDepth];
  std::size_t depth = 0;
  QueueCore* root = &self;
  for (; !root->isRoot(); root = root->targetPointer()) {
    if (depth == ChainScope::kMaxDepth) detail::fail("target chain too deep for sync onto", label().c_str());
    chain[depth++] = root;
  }
  for (std::size_t index = 0; index < depth; ++index) {
    const bool exclusive = chain[index]->kind() == QueueKind::Serial || (barrier && index == 0);
    if (exclusive && isHeldByCurrentThread(chain[index])) failDeadlock(*this, *chain[index]);
  }

  if (root->kind() == QueueKind::MainLoop) {
    // The main queue's work runs on the main thread (and this is not it).
    SyncRequest request(detail::ItemKind::SyncExecute, function, context);
    if (barrier) {
      self.enqueueBarrier(&request.item);
    } else {
      self.enqueue(&request.item, true);
    }
    request.waiter.wait();
    if (request.error) std::rethrow_exception(request.error);
    return;
  }

  SyncRequest request(detail::ItemKind::SyncWaiter, nullptr, nullptr);
  HeldChain held;
  for (std::size_t index = 0; index < depth; ++index) held.take(chain[index], request, barrier && index == 0);
  ChainScope scope(&self, nullptr);
  function(context);
}

Queue::~Queue() = default;

const std::string& Queue::label() const noexcept { return QueueCore::of(*this).label(); }

qos_class_t Queue::qos() const noexcept { return QueueCore::of(*this).qos(); }

bool Queue::isSerial() const noexcept { return QueueCore::of(*this).kind() == QueueKind::Serial; }

void Queue::setTarget(Ref<Queue> target) {
  QueueCore& core = QueueCore::of(*this);
  if (core.isRoot() || isMainQueue(&core)) detail::fail("cannot change the target of queue", label().c_str());
  if (!target) target = global(qos());
  if (!core.retarget(std::move(target))) {
    detail::fail("setting this target would make a cycle for queue", label().c_str());
  }
}

Ref<Queue> Queue::target() const {
  const QueueCore& core = QueueCore::of(*this);
  if (core.isRoot() || isMainQueue(&core)) return nullptr;
  return core.target();
}

void Queue::setSpecific(const void* key, void* value, void (*destructor)(void*)) {
  QueueCore::of(*this).setSpecific(key, value, destructor);
}

void* Queue::getSpecific(const void* key) const { return QueueCore::of(*this).getSpecific(key); }

void* Queue::getSpecificCurrent(const void* key) {
  const QueueCore* queue = nullptr;
  if (detail::currentFrame != nullptr) {
    queue = detail::currentFrame->queue;
  } else if (isMainThread()) {
    queue = &QueueCore::of(*detail::MainLoop::mainQueue());
  }
  for (; queue != nullptr; queue = queue->targetPointer()) {
    if (void* value = queue->getSpecific(key)) return value;
  }
  return nullptr;
}

Ref<Queue> Queue::current() {
  if (detail::currentFrame != nullptr) return detail::currentFrame->queue->shared_from_this();
  if (isMainThread()) return detail::MainLoop::mainQueue();
  return nullptr;
}

bool Queue::isCurrent() const { return isHeldByCurrentThread(this); }

Ref<Queue> global(qos_class_t qos) {
  const int index = detail::WorkerPool::indexOf(qos);
  if (index < 0) return nullptr;
  return detail::WorkerPool::shared().globalQueue(index);
}

}  // namespace fennick::dispatch
