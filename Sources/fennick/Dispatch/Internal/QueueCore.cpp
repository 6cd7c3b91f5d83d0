#include "fennick/Dispatch/Internal/QueueCore.h"

#include <algorithm>

#include "fennick/Dispatch/Internal/QueueAccess.h"
#include "fennick/Dispatch/Internal/WorkerPool.h"

namespace fennick::dispatch::detail {
namespace {

// Serialises retargeting across all queues, so that a cycle check sees every
// change that could close a cycle with its own. Retargeting is rare; chain
// walks stay lock-free through targetPointer().
std::mutex& retargetMutex() {
  static auto* mutex = new std::mutex;  // immortal: queues may retarget during exit
  return *mutex;
}

QueueCore* coreOrNull(const Ref<Queue>& queue) {
  return queue ? &QueueCore::of(*queue) : nullptr;
}

}  // namespace

QueueCore::QueueCore(std::string label, qos_class_t qos, QueueKind kind, Ref<Queue> target)
    : label_(std::move(label)),
      qos_(qos),
      kind_(kind),
      targetPointer_(coreOrNull(target)),
      target_(std::move(target)) {}

QueueCore::~QueueCore() {
  for (const Specific& specific : specifics_) {
    if (specific.destructor != nullptr) specific.destructor(specific.value);
  }
}

bool QueueCore::retarget(Ref<Queue> target) {
  std::lock_guard topology(retargetMutex());
  for (const QueueCore* queue = coreOrNull(target); queue != nullptr; queue = queue->targetPointer()) {
    if (queue == this) return false;
  }
  std::lock_guard lock(mutex_);
  if (target == target_) return true;
  // Another thread may be walking the chain through the old target right now,
  // so it stays alive as long as this queue does.
  if (std::find(formerTargets_.begin(), formerTargets_.end(), target_) == formerTargets_.end()) {
    formerTargets_.push_back(target_);
  }
  targetPointer_.store(coreOrNull(target), std::memory_order_release);
  target_ = std::move(target);
  return true;
}

void QueueCore::suspend() { fail("cannot suspend queue", label_.c_str()); }

void QueueCore::resume() { fail("cannot resume queue", label_.c_str()); }

void QueueCore::activate() {}

Ref<Queue> QueueCore::target() const {
  std::lock_guard lock(mutex_);
  return target_;
}

void QueueCore::setSpecific(const void* key, void* value, void (*destructor)(void*)) {
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

void* QueueCore::getSpecific(const void* key) const {
  std::lock_guard lock(mutex_);
  for (const Specific& specific : specifics_) {
    if (specific.key == key) return specific.value;
  }
  return nullptr;
}

}  // namespace fennick::dispatch::detail
