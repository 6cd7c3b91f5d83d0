#pragma once
// A hint for the worker pool around code that may block for a while.
#include "fennick/Dispatch/Ref.h"

namespace fennick::dispatch {

/// While a BlockingScope lives on a worker thread, the pool does not count that
/// worker as running and may start another one for queued work, so that a block
/// waiting on a lock, a pipe or another thread does not hold back the rest of
/// the program. Fennick's own waits (sync, Group::wait, once) already do this.
/// No effect on threads outside the pool. Scopes nest.
class BlockingScope {
 public:
  BlockingScope() noexcept;
  ~BlockingScope();
  BlockingScope(const BlockingScope&) = delete;
  BlockingScope& operator=(const BlockingScope&) = delete;
};

}  // namespace fennick::dispatch

// Also reachable from fennick, like the rest of the framework.
namespace fennick {
using dispatch::BlockingScope;
}  // namespace fennick
