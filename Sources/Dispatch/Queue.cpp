#include "fennick/Dispatch/Queue.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>

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
using internal::QueueCore;
using internal::QueueKind;
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

namespace {

// Blocks must not throw. When one does, say where and what before the
// process ends, instead of the bare terminate() a noexcept frame would give.
[[noreturn]] void failThrown(const char* what) noexcept {
  const char* label = currentFrame != nullptr ? currentFrame->queue->label().c_str() : "?";
  std::fprintf(stderr, "fennick dispatch: a block on queue \"%s\" threw: %s\n", label, what);
  std::fflush(stderr);
  std::abort();
}

void runBlock(Block& block) noexcept {
  try {
    block();
  } catch (const std::exception& error) {
    failThrown(error.what());
  } catch (...) {
    failThrown("an exception that is not a std::exception");
  }
}

}  // namespace

void runItem(WorkItem* item, QueueCore* running) noexcept {
  switch (item->kind) {
    case ItemKind::Block:
      if (item->origin) {
        ChainScope scope(item->origin.get(), running);
        runBlock(item->block);
      } else {
        runBlock(item->block);
      }
      item->block.reset();
      item->origin.reset();
      WorkItem::recycle(item);
      return;
    case ItemKind::Drain: {
      auto* queue = static_cast<SerialQueue*>(item->context);
      ChainScope scope(queue, running);
      queue->drain(running);
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
  if (!block) internal::fail("async of an empty block onto queue", label().c_str());
  WorkItem* item = WorkItem::allocate();
  item->block = std::move(block);
  QueueCore::of(*this).enqueue(item, true);
}

void Queue::syncInvoke(void (*function)(void*), void* context) {
  QueueCore& self = QueueCore::of(*this);
  QueueCore* chain[ChainScope::kMaxDepth];
  std::size_t depth = 0;
  QueueCore* root = &self;
  for (; !root->isRoot(); root = root->targetPointer()) {
    if (depth == ChainScope::kMaxDepth) internal::fail("target chain too deep for sync onto", label().c_str());
    chain[depth++] = root;
  }
  for (std::size_t index = 0; index < depth; ++index) {
    if (chain[index]->kind() == QueueKind::Serial && isHeldByCurrentThread(chain[index])) {
      failDeadlock(*this, *chain[index]);
    }
  }

  if (root->kind() == QueueKind::MainLoop) {
    // The main queue's work runs on the main thread (and this is not it).
    SyncRequest request(internal::ItemKind::SyncExecute, function, context);
    self.enqueue(&request.item, true);
    request.waiter.wait();
    if (request.error) std::rethrow_exception(request.error);
    return;
  }

  SyncRequest request(internal::ItemKind::SyncWaiter, nullptr, nullptr);
  AcquiredQueues acquired;
  for (std::size_t index = 0; index < depth; ++index) {
    if (chain[index]->kind() != QueueKind::Serial) continue;
    auto* serial = static_cast<SerialQueue*>(chain[index]);
    if (!serial->tryAcquire()) serial->acquire(request);
    acquired.add(serial);
  }
  ChainScope scope(&self, nullptr);
  function(context);
}

Queue::~Queue() = default;

const std::string& Queue::label() const noexcept { return QueueCore::of(*this).label(); }

qos_class_t Queue::qos() const noexcept { return QueueCore::of(*this).qos(); }

bool Queue::isSerial() const noexcept { return QueueCore::of(*this).kind() == QueueKind::Serial; }

void Queue::setTarget(Ref<Queue> target) {
  QueueCore& core = QueueCore::of(*this);
  if (core.isRoot() || isMainQueue(&core)) internal::fail("cannot change the target of queue", label().c_str());
  if (!target) target = global(qos());
  if (!core.retarget(std::move(target))) {
    internal::fail("setting this target would make a cycle for queue", label().c_str());
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
  if (internal::currentFrame != nullptr) {
    queue = internal::currentFrame->queue;
  } else if (isMainThread()) {
    queue = &QueueCore::of(*internal::MainLoop::mainQueue());
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
