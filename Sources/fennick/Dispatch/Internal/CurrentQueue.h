#pragma once
// Per-thread record of the queues whose work the thread is running.
//
// Each running block, drain batch or inline sync pushes a frame that lives on
// the C++ stack, so tracking costs two thread-local stores and no allocation.
// A serial queue drained on behalf of its target sits above the target's frame:
// walking the frames therefore walks every queue the thread holds.
#include <cstddef>

namespace fennick::dispatch {
class Queue;
}

namespace fennick::dispatch::detail {
class QueueCore;
}

namespace fennick::dispatch::detail {

struct Frame {
  QueueCore* queue;
  Frame* previous;
};

extern thread_local Frame* currentFrame __attribute__((tls_model("initial-exec")));

/// True when `queue` has a frame on this thread.
bool hasFrame(const Queue* queue) noexcept;

/// Makes one queue current for the scope's lifetime.
class FrameScope {
 public:
  explicit FrameScope(QueueCore* queue) noexcept : frame_{queue, currentFrame} {
    currentFrame = &frame_;
  }
  ~FrameScope() { currentFrame = frame_.previous; }
  FrameScope(const FrameScope&) = delete;
  FrameScope& operator=(const FrameScope&) = delete;

 private:
  Frame frame_;
};

/// Makes `from` and its targets below `stop` current, outermost first, so that
/// an item forwarded through intermediate queues runs "on" all of them.
class ChainScope {
 public:
  ChainScope(QueueCore* from, const QueueCore* stop) noexcept;
  ~ChainScope() { currentFrame = saved_; }
  ChainScope(const ChainScope&) = delete;
  ChainScope& operator=(const ChainScope&) = delete;

  static constexpr std::size_t kMaxDepth = 16;

 private:
  Frame frames_[kMaxDepth];
  Frame* saved_;
};

}  // namespace fennick::dispatch::detail
