#include "fennick/Platform/System/Internal/GLibCallThread.h"

#include "fennick/Dispatch/Blocking.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <system_error>
#include <thread>

namespace fennick::platform {

namespace {

// GLib ends the process when it cannot make the wake-up descriptor of a main
// context, and a call may need several: this thread's context when it starts,
// and the first connection to a bus its socket and the context of GDBus's own
// thread. Rather than let a process that ran out of descriptors die in the
// middle of a keyring call, a call starts only while a few are free (another
// thread may still take them in between; this only keeps the common case
// alive).
bool descriptorsToSpare() {
  constexpr std::size_t kSpare = 4;
  std::array<int, kSpare> probes;
  probes.fill(-1);
  bool enough = true;
  for (int& probe : probes)
    if ((probe = eventfd(0, EFD_CLOEXEC)) < 0) {
      enough = false;
      break;
    }
  for (const int probe : probes)
    if (probe >= 0) close(probe);
  return enough;
}

}  // namespace

GLibCallThread::PendingCall::PendingCall(Start start) : start(std::move(start)), cancellable(g_cancellable_new()) {}

GLibCallThread::PendingCall::~PendingCall() { g_object_unref(cancellable); }

GLibCallThread* GLibCallThread::shared() {
  static std::mutex mutex;
  static GLibCallThread* thread = nullptr;  // never destroyed: the thread runs until exit
  if (!descriptorsToSpare()) return nullptr;
  const std::lock_guard lock(mutex);
  if (!thread) {
    try {
      thread = new GLibCallThread();
    } catch (const std::system_error&) {
      // No thread to be had now (a limit on threads); a later call tries again.
    }
  }
  return thread;
}

GLibCallThread::GLibCallThread() : context_(g_main_context_new()) {
  GMainLoop* loop = g_main_loop_new(context_, FALSE);
  try {
    std::thread([context = context_, loop] {
      g_main_context_push_thread_default(context);
      g_main_loop_run(loop);
    }).detach();
  } catch (...) {
    g_main_loop_unref(loop);
    g_main_context_unref(context_);
    throw;
  }
}

bool GLibCallThread::run(const std::shared_ptr<PendingCall>& call, Deadline deadline) {
  GSource* idle = g_idle_source_new();
  g_source_set_callback(idle, &GLibCallThread::startOnThread, new std::shared_ptr<PendingCall>(call),
                        &GLibCallThread::deleteStartReference);
  g_source_attach(idle, context_);
  g_source_unref(idle);

  const BlockingScope blocking;
  std::unique_lock lock(call->mutex);
  if (call->finishedCondition.wait_until(lock, deadline, [&] { return call->finished; })) return true;
  lock.unlock();
  // Whatever the call delivers from now on is read and dropped on the thread.
  g_cancellable_cancel(call->cancellable);
  return false;
}

gboolean GLibCallThread::startOnThread(gpointer data) {
  const std::shared_ptr<PendingCall>& call = *static_cast<std::shared_ptr<PendingCall>*>(data);
  // A caller that gave up before the thread came to its call wants nothing
  // started any more (a write that would land after it answered "no").
  if (!g_cancellable_is_cancelled(call->cancellable))
    call->start(call->cancellable, &GLibCallThread::finishedOnThread, new std::shared_ptr<PendingCall>(call));
  return G_SOURCE_REMOVE;
}

void GLibCallThread::deleteStartReference(gpointer data) { delete static_cast<std::shared_ptr<PendingCall>*>(data); }

void GLibCallThread::finishedOnThread(GObject*, GAsyncResult* result, gpointer data) {
  const std::unique_ptr<std::shared_ptr<PendingCall>> reference(static_cast<std::shared_ptr<PendingCall>*>(data));
  PendingCall& call = **reference;
  call.finish(result);
  {
    const std::lock_guard lock(call.mutex);
    call.finished = true;
  }
  call.finishedCondition.notify_all();
}

}  // namespace fennick::platform
