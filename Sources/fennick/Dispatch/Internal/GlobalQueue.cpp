#include "fennick/Dispatch/Internal/GlobalQueue.h"

#include "fennick/Dispatch/Internal/WorkerPool.h"

namespace fennick::dispatch::detail {

GlobalQueue::GlobalQueue(std::string label, qos_class_t qos, int poolIndex)
    : QueueCore(std::move(label), qos, QueueKind::Global, nullptr), poolIndex_(poolIndex) {}

void GlobalQueue::enqueue(WorkItem* item, bool wake) {
  WorkerPool::shared().push(poolIndex_, item, wake);
}

}  // namespace fennick::dispatch::detail
