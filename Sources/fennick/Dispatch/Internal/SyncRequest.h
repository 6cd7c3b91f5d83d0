#pragma once
// What a sync caller leaves in a queue while it waits: it either waits for the
// queue to be handed over (SyncWaiter) or for its function to be run by the
// queue's own thread (SyncExecute, used for the main queue).
#include <exception>

#include "fennick/Dispatch/Internal/Waiter.h"
#include "fennick/Dispatch/Internal/WorkItem.h"

namespace fennick::dispatch::detail {

struct SyncRequest {
  void (*function)(void*) = nullptr;
  void* context = nullptr;
  std::exception_ptr error;
  Waiter waiter;
  WorkItem item;

  SyncRequest(ItemKind kind, void (*function)(void*), void* context) noexcept
      : function(function), context(context) {
    item.kind = kind;
    item.context = this;
  }

  /// Runs the function on this thread, keeping an exception for the caller.
  void run() noexcept {
    try {
      function(context);
    } catch (...) {
      error = std::current_exception();
    }
  }
};

}  // namespace fennick::dispatch::detail
