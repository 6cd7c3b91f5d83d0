#include "fennick/Dispatch/GLibMainContext.h"

#include <glib.h>

#include <atomic>
#include <mutex>

#include "fennick/Dispatch/Internal/MainLoop.h"
#include "fennick/Dispatch/Internal/QueueAccess.h"
#include "fennick/Dispatch/Main.h"

namespace fennick::dispatch {
namespace {

std::atomic<GMainContext*> attachedContext{nullptr};

gboolean hasWork(GSource*, gint* timeout) {
  // -1: no timer of ours; arrivals wake the context through the hook.
  *timeout = -1;
  detail::MainLoop& loop = detail::MainLoop::shared();
  // Preparing while a block of the main queue runs means that the block
  // iterates the context itself: a nested loop, in which the blocks behind
  // it are to run.
  if (isMainThread()) loop.serveFromNestedLoop();
  return loop.pendingCount() > 0;
}

gboolean hasWorkNow(GSource*) { return detail::MainLoop::shared().pendingCount() > 0; }

gboolean runWaitingWork(GSource*, GSourceFunc, gpointer) {
  if (!isMainThread()) detail::fail("GLib's default main context iterated off the main thread");
  detail::MainLoop& loop = detail::MainLoop::shared();
  // Only what was waiting when the dispatch began, so that other sources of
  // the context get their turn between our batches.
  for (std::int64_t waiting = loop.pendingCount(); waiting > 0 && loop.runOne(); --waiting) {
  }
  return G_SOURCE_CONTINUE;
}

GSourceFuncs mainQueueSourceFuncs = {hasWork, hasWorkNow, runWaitingWork, nullptr, nullptr, nullptr};

void wakeContext() {
  // GLib's wake-up is an eventfd write: safe from any thread, and coalesced
  // by the kernel while the loop is busy.
  if (GMainContext* context = attachedContext.load(std::memory_order_acquire)) {
    g_main_context_wakeup(context);
  }
}

}  // namespace

void attachMainQueueToGLibMainContext() {
  static std::once_flag once;
  std::call_once(once, [] {
    GMainContext* context = g_main_context_default();
    GSource* source = g_source_new(&mainQueueSourceFuncs, sizeof(GSource));
    g_source_set_name(source, "fennick main queue");
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    // A block may run a nested loop on this context (a modal dialog); the
    // main queue is served there too.
    g_source_set_can_recurse(source, TRUE);
    g_source_attach(source, context);
    // The context keeps the source for the life of the process.
    g_source_unref(source);
    attachedContext.store(context, std::memory_order_release);
    detail::MainLoop::shared().setWakeHook(&wakeContext);
    // Blocks that arrived before the hook was set are seen by the next
    // prepare; the wake makes sure a sleeping loop gets to it.
    wakeContext();
  });
}

bool isMainQueueAttachedToGLibMainContext() noexcept {
  return attachedContext.load(std::memory_order_acquire) != nullptr;
}

}  // namespace fennick::dispatch
