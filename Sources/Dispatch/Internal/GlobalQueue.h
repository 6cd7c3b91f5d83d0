#pragma once
// A global concurrent queue: the root of one quality-of-service class. Its
// items are run by the shared worker pool.
#include "fennick/Dispatch/Queue.h"

namespace fennick::dispatch::internal {

class GlobalQueue final : public Queue {
 public:
  GlobalQueue(std::string label, qos_class_t qos, int poolIndex);

 protected:
  void enqueue(WorkItem* item, bool wake) override;

 private:
  const int poolIndex_;
};

}  // namespace fennick::dispatch::internal
