#pragma once
// A queue whose blocks may run in parallel. It keeps no list of its own: each
// item goes straight to the target, tagged with this queue so that the queue is
// current while the item runs.
#include "fennick/Dispatch/Internal/QueueCore.h"

namespace fennick::dispatch::internal {

class ConcurrentQueue final : public QueueCore {
 public:
  ConcurrentQueue(std::string label, qos_class_t qos, Ref<Queue> target);

 public:
  void enqueue(WorkItem* item, bool wake) override;
};

}  // namespace fennick::dispatch::internal
