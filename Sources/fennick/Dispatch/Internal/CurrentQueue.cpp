#include "fennick/Dispatch/Internal/CurrentQueue.h"

#include "fennick/Dispatch/Internal/QueueCore.h"

namespace fennick::dispatch::detail {

thread_local Frame* currentFrame = nullptr;

bool hasFrame(const Queue* queue) noexcept {
  for (const Frame* frame = currentFrame; frame != nullptr; frame = frame->previous) {
    if (frame->queue == queue) return true;
  }
  return false;
}

ChainScope::ChainScope(QueueCore* from, const QueueCore* stop) noexcept : saved_(currentFrame) {
  // Collect innermost first, then link so that the innermost ends on top.
  std::size_t depth = 0;
  for (QueueCore* queue = from; queue != nullptr && queue != stop && depth < kMaxDepth;
       queue = queue->targetPointer()) {
    frames_[depth++].queue = queue;
  }
  Frame* top = saved_;
  while (depth > 0) {
    Frame& frame = frames_[--depth];
    frame.previous = top;
    top = &frame;
  }
  currentFrame = top;
}

}  // namespace fennick::dispatch::detail
