#include "fennick/Dispatch/Internal/ConcurrentQueue.h"

#include "fennick/Dispatch/Internal/QueueAccess.h"
#include "fennick/Dispatch/Internal/WorkItem.h"

namespace fennick::dispatch::internal {

ConcurrentQueue::ConcurrentQueue(std::string label, qos_class_t qos, Ref<Queue> target)
    : QueueCore(std::move(label), qos, QueueKind::Concurrent, std::move(target)) {}

void ConcurrentQueue::enqueue(WorkItem* item, bool wake) {
  // A serial queue's drain item finds its chain through the serial queue
  // itself; anything else remembers the first queue it was submitted to (which
  // the reference also keeps alive until the item ran).
  if (item->kind != ItemKind::Drain && !item->origin) item->origin = shared_from_this();
  targetPointer()->enqueue(item, wake);
}

}  // namespace fennick::dispatch::internal
