#include "fennick/Dispatch/Blocking.h"

#include "fennick/Dispatch/Internal/WorkerPool.h"

namespace fennick::dispatch {
namespace {
thread_local int blockingDepth = 0;
}

BlockingScope::BlockingScope() noexcept {
  if (!detail::WorkerPool::onWorkerThread()) return;
  if (blockingDepth++ == 0) detail::WorkerPool::shared().willBlock();
}

BlockingScope::~BlockingScope() {
  if (!detail::WorkerPool::onWorkerThread()) return;
  if (--blockingDepth == 0) detail::WorkerPool::shared().didUnblock();
}

}  // namespace fennick::dispatch
