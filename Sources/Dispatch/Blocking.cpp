#include "fennick/Dispatch/Blocking.h"

#include "fennick/Dispatch/Internal/WorkerPool.h"

namespace fennick::dispatch {
namespace {
thread_local int blockingDepth = 0;
}

BlockingScope::BlockingScope() noexcept {
  if (!internal::WorkerPool::onWorkerThread()) return;
  if (blockingDepth++ == 0) internal::WorkerPool::shared().willBlock();
}

BlockingScope::~BlockingScope() {
  if (!internal::WorkerPool::onWorkerThread()) return;
  if (--blockingDepth == 0) internal::WorkerPool::shared().didUnblock();
}

}  // namespace fennick::dispatch
