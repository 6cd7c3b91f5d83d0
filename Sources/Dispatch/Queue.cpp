#include "fennick/Dispatch/Queue.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "fennick/Dispatch/Internal/ConcurrentQueue.h"
#include "fennick/Dispatch/Internal/CurrentQueue.h"
#include "fennick/Dispatch/Internal/MainLoop.h"
#include "fennick/Dispatch/Internal/QueueAccess.h"
#include "fennick/Dispatch/Internal/SerialQueue.h"
#include "fennick/Dispatch/Internal/SyncRequest.h"
#include "fennick/Dispatch/Internal/WorkerPool.h"
#include "fennick/Dispatch/Main.h"

namespace fennick::dispatch {

using internal::ChainScope;
using internal::QueueAccess;
using internal::SerialQueue;
using internal::SyncRequest;
using internal::WorkItem;

namespace {

qos_class_t normalised(qos_class_t qos) {
  return isValidQoSClass(qos) ? qos : QOS_CLASS_UNSPECIFIED;
}

bool isMainQueue(const Queue* queue) { return queue == internal::MainLoop::mainQueue().get(); }

// Held: the thread runs work of the queue, or it is the main queue and the
// thread is the main thread (which the main queue belongs to).
bool isHeldByCurrentThread(const Queue* queue) {
  return internal::hasFrame(queue) || (isMainQueue(queue) && isMainThread());
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

// Releases, innermost last, the serial queues a sync call acquired.
class AcquiredQueues {
 public:
  AcquiredQueues() = default;
  AcquiredQueues(const AcquiredQueues&) = delete;
  AcquiredQueues& operator=(const AcquiredQueues&) = delete;
  ~AcquiredQueues() {
    while (count_ > 0) queues_[--count_]->release();
  }
  void add(SerialQueue* queue) noexcept { queues_[count_++] = queue; }

 private:
  SerialQueue* queues_[ChainScope::kMaxDepth];
  std::size_t count_ = 0;
};

}  // namespace

namespace internal {

void fail(const char* message, const char* label) noexcept {
  if (label != nullptr) {
    std::fprintf(stderr, "fennick dispatch: %s \"%s\"\n", message, label);
  } else {
    std::fprintf(stderr, "fennick dispatch: %s\n", message);
  }
  std::fflush(stderr);
  std::abort();
}

void runItem(WorkItem* item, Queue* running) noexcept {
  switch (item->kind) {
    case ItemKind::Block:
      if (item->origin) {
        ChainScope scope(item->origin.get(), running);
        item->block();
      } else {
        item->block();
      }
      item->block.reset();
      item->origin.reset();
      WorkItem::recycle(item);
      return;
    case ItemKind::Drain: {
      auto* queue = static_cast<SerialQueue*>(item->context);
      ChainScope scope(queue, running);
      queue->drain();
      return;
    }
    case ItemKind::SyncExecute: {
      auto* request = static_cast<SyncRequest*>(item->context);
      {
        ChainScope scope(item->origin.get(), running);
        request->run();
      }
      item->origin.reset();
      request->waiter.signal();
      return;
    }
    case ItemKind::SyncWaiter:
      break;
  }
  fail("a sync waiter reached a queue that is not serial");
}

}  // namespace internal

Queue::Queue(std::string label, qos_class_t qos, Kind kind, Ref<Queue> target)
    : label_(std::move(label)),
      qos_(qos),
      kind_(kind),
      targetPointer_(target.get()),
      target_(std::move(target)) {}

Queue::~Queue() {
  for (const Specific& specific : specifics_) {
    if (specific.destructor != nullptr) specific.destructor(specific.value);
  }
}

Ref<Queue> Queue::createSerial(std::string label, qos_class_t qos, Ref<Queue> target) {
  qos = normalised(qos);
  if (!target) target = global(qos);
  return std::make_shared<SerialQueue>(std::move(label), qos, std::move(target));
}

Ref<Queue> Queue::createConcurrent(std::string label, qos_class_t qos, Ref<Queue> target) {
  qos = normalised(qos);
  if (!target) target = global(qos);
  return std::make_shared<internal::ConcurrentQueue>(std::move(label), qos, std::move(target));
}

void Queue::async(Block block) {
  if (!block) internal::fail("async of an empty block onto queue", label_.c_str());
  WorkItem* item = WorkItem::allocate();
  item->block = std::move(block);
  enqueue(item, true);
}

void Queue::syncInvoke(void (*function)(void*), void* context) {
  Queue* chain[ChainScope::kMaxDepth];
  std::size_t depth = 0;
  Queue* root = this;
  for (; !QueueAccess::isRoot(*root); root = root->targetPointer()) {
    if (depth == ChainScope::kMaxDepth) internal::fail("target chain too deep for sync onto", label_.c_str());
    chain[depth++] = root;
  }
  for (std::size_t index = 0; index < depth; ++index) {
    if (chain[index]->kind_ == Kind::Serial && isHeldByCurrentThread(chain[index])) {
      failDeadlock(*this, *chain[index]);
    }
  }

  if (root->kind_ == Kind::MainLoop) {
    // The main queue's work runs on the main thread (and this is not it).
    SyncRequest request(internal::ItemKind::SyncExecute, function, context);
    enqueue(&request.item, true);
    request.waiter.wait();
    if (request.error) std::rethrow_exception(request.error);
    return;
  }

  SyncRequest request(internal::ItemKind::SyncWaiter, nullptr, nullptr);
  AcquiredQueues acquired;
  for (std::size_t index = 0; index < depth; ++index) {
    if (chain[index]->kind_ != Kind::Serial) continue;
    auto* serial = static_cast<SerialQueue*>(chain[index]);
    if (!serial->tryAcquire()) serial->acquire(request);
    acquired.add(serial);
  }
  ChainScope scope(this, nullptr);
  function(context);
}

void Queue::setTarget(Ref<Queue> target) {
  if (kind_ == Kind::Global || kind_ == Kind::MainLoop || isMainQueue(this)) {
    internal::fail("cannot change the target of queue", label_.c_str());
  }
  if (!target) target = global(qos_);
  for (const Queue* queue = target.get(); queue != nullptr; queue = queue->targetPointer()) {
    if (queue == this) internal::fail("setting this target would make a cycle for queue", label_.c_str());
  }
  std::lock_guard lock(mutex_);
  if (target == target_) return;
  // Another thread may be walking the chain through the old target right now,
  // so it stays alive as long as this queue does.
  if (std::find(formerTargets_.begin(), formerTargets_.end(), target_) == formerTargets_.end()) {
    formerTargets_.push_back(target_);
  }
  targetPointer_.store(target.get(), std::memory_order_release);
  target_ = std::move(target);
}

Ref<Queue> Queue::target() const {
  if (kind_ == Kind::Global || kind_ == Kind::MainLoop || isMainQueue(this)) return nullptr;
  std::lock_guard lock(mutex_);
  return target_;
}

void Queue::setSpecific(const void* key, void* value, void (*destructor)(void*)) {
  Specific replaced{key, nullptr, nullptr};
  {
    std::lock_guard lock(mutex_);
    auto found = std::find_if(specifics_.begin(), specifics_.end(),
                              [key](const Specific& specific) { return specific.key == key; });
    if (found != specifics_.end()) {
      replaced = *found;
      if (value != nullptr) {
        *found = Specific{key, value, destructor};
      } else {
        specifics_.erase(found);
      }
    } else if (value != nullptr) {
      specifics_.push_back(Specific{key, value, destructor});
    }
  }
  if (replaced.destructor != nullptr && replaced.value != value) replaced.destructor(replaced.value);
}

void* Queue::getSpecific(const void* key) const {
  std::lock_guard lock(mutex_);
  for (const Specific& specific : specifics_) {
    if (specific.key == key) return specific.value;
  }
  return nullptr;
}

void* Queue::getSpecificCurrent(const void* key) {
  const Queue* queue = nullptr;
  if (internal::currentFrame != nullptr) {
    queue = internal::currentFrame->queue;
  } else if (isMainThread()) {
    queue = internal::MainLoop::mainQueue().get();
  }
  for (; queue != nullptr; queue = queue->targetPointer()) {
    if (void* value = queue->getSpecific(key)) return value;
  }
  return nullptr;
}

Ref<Queue> Queue::current() {
  if (internal::currentFrame != nullptr) return internal::currentFrame->queue->shared_from_this();
  if (isMainThread()) return internal::MainLoop::mainQueue();
  return nullptr;
}

bool Queue::isCurrent() const { return isHeldByCurrentThread(this); }

Ref<Queue> global(qos_class_t qos) {
  const int index = internal::WorkerPool::indexOf(qos);
  if (index < 0) return nullptr;
  return internal::WorkerPool::shared().globalQueue(index);
}

}  // namespace fennick::dispatch
