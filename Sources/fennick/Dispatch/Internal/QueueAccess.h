#pragma once
// Engine-wide entry points shared by the queue kinds.
#include "fennick/Dispatch/Internal/QueueCore.h"

namespace fennick::dispatch {
class Group;
}

namespace fennick::dispatch::detail {

/// Runs one item that `running` took from its queue, with the right queues
/// current. An exception escaping a block ends the process with a message
/// naming the queue and the exception.
void runItem(WorkItem* item, QueueCore* running) noexcept;

/// Submits `block` to `queue` as a task of `group`, which the caller entered.
void asyncInGroup(Queue& queue, Block block, Ref<Group> group);

/// Runs a block; an exception escaping it ends the process with a message
/// naming the current queue.
void runBlock(Block& block) noexcept;

/// Aborts with "fennick dispatch: <message>" on standard error.
[[noreturn]] void fail(const char* message, const char* label = nullptr) noexcept;

}  // namespace fennick::dispatch::detail
