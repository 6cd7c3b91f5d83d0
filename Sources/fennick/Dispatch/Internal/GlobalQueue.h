#pragma once
// A global concurrent queue: the root of one quality-of-service class. Its
// items are run by the shared worker pool.
#include "fennick/Dispatch/Internal/QueueCore.h"

namespace fennick::dispatch::detail {

class GlobalQueue final : public QueueCore {
 public:
  GlobalQueue(std::string label, qos_class_t qos, int poolIndex);

 public:
  void enqueue(WorkItem* item, bool wake) override;

 private:
  const int poolIndex_;
};

}  // namespace fennick::dispatch::detail
