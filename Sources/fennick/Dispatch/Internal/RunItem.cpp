// How the runners of the roots (pool workers, the main thread) run an item.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "fennick/Dispatch/Internal/ConcurrentQueue.h"
#include "fennick/Dispatch/Internal/CurrentQueue.h"
#include "fennick/Dispatch/Internal/QueueAccess.h"
#include "fennick/Dispatch/Internal/SerialQueue.h"
#include "fennick/Dispatch/Internal/SyncRequest.h"
#include "fennick/Dispatch/Group.h"

namespace fennick::dispatch::detail {
namespace {

// Blocks must not throw. When one does, say where and what before the
// process ends, instead of the bare terminate() a noexcept frame would give.
[[noreturn]] void failThrown(const char* what) noexcept {
  const char* label = currentFrame != nullptr ? currentFrame->queue->label().c_str() : "?";
  std::fprintf(stderr, "fennick dispatch: a block on queue \"%s\" threw: %s\n", label, what);
  std::fflush(stderr);
  std::abort();
}

// Only concurrent queues tag the items they let go.
void reportFinished(const Ref<QueueCore>& origin, bool barrier) noexcept {
  if (origin) static_cast<ConcurrentQueue&>(*origin).finished(barrier);
}

}  // namespace

void fail(const char* message, const char* label) noexcept {
  if (label != nullptr) {
    std::fprintf(stderr, "fennick dispatch: %s \"%s\"\n", message, label);
  } else {
    std::fprintf(stderr, "fennick dispatch: %s\n", message);
  }
  std::fflush(stderr);
  std::abort();
}

void runBlock(Block& block) noexcept {
  try {
    block();
  } catch (const std::exception& error) {
    failThrown(error.what());
  } catch (...) {
    failThrown("an exception that is not a std::exception");
  }
}

void runItem(WorkItem* item, QueueCore* running) noexcept {
  // Taken out first: a drain may hand its own item on before it returns.
  const Ref<QueueCore> origin = std::move(item->origin);
  const bool barrier = item->barrier;
  switch (item->kind) {
    case ItemKind::Block:
      if (origin) {
        ChainScope scope(origin.get(), running);
        runBlock(item->block);
      } else {
        runBlock(item->block);
      }
      item->block.reset();
      if (Ref<Group> group = std::move(item->group)) {
        WorkItem::recycle(item);
        group->leave();
      } else {
        WorkItem::recycle(item);
      }
      break;
    case ItemKind::Drain: {
      auto* queue = static_cast<SerialQueue*>(item->context);
      ChainScope scope(queue, running);
      queue->drain(running);
      break;
    }
    case ItemKind::SyncExecute: {
      auto* request = static_cast<SyncRequest*>(item->context);
      {
        ChainScope scope(origin.get(), running);
        request->run();
      }
      reportFinished(origin, barrier);
      request->waiter.signal();  // the request may be gone after this
      return;
    }
    case ItemKind::SyncWaiter:
      fail("a sync waiter reached a queue that is not serial");
  }
  reportFinished(origin, barrier);
}

}  // namespace fennick::dispatch::detail
