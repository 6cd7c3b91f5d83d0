#pragma once
// One thread serving a private GLib main context, on which asynchronous
// GIO-style calls (libsecret's) start and finish, for callers that wait for
// them with a deadline.
//
// GLib hands an asynchronous result to the main context that was current
// where the call started, and only while something iterates that context.
// With a thread of our own iterating one context, delivery does not depend on
// the caller: the caller only waits on a condition, so its wait ends at the
// deadline whatever the library does, also for a call that the library never
// starts (it refused its arguments with a warning) or never completes. At the
// deadline the call's cancellable is cancelled and the caller leaves; a
// result that arrives later is read and dropped on the thread, in state that
// the call shares with it, never in the caller's frame. (A call that never
// delivers anything keeps that state, a few hundred bytes, for good.)
//
// The thread starts on first use and lives as long as the process; every
// call shares it. Internal to the platform layer.
#include <gio/gio.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace fennick::platform {

class GLibCallThread {
 public:
  using Deadline = std::chrono::steady_clock::time_point;
  /// Starts an asynchronous call, passing on the cancellable, the callback and
  /// its user data exactly as given. Runs on the thread.
  using Start = std::function<void(GCancellable*, GAsyncReadyCallback, gpointer)>;

  /// The process's thread, started on first use; nullptr when no call can be
  /// made now: no thread could be started, or too few descriptors are free
  /// (GLib ends the process when it cannot make the wake-up descriptor of a
  /// main context, and a call may need a few).
  static GLibCallThread* shared();

  /// Runs `start` on the thread and waits until `finish` has read the result
  /// there, or until `deadline`. `finish` runs on the thread, at most once,
  /// and may outlive the wait; it must not capture the caller's locals by
  /// reference. Nothing when the deadline came first.
  template <class Outcome>
  std::optional<Outcome> call(Start start, std::function<Outcome(GAsyncResult*)> finish, Deadline deadline) {
    auto pending = std::make_shared<TypedCall<Outcome>>(std::move(start), std::move(finish));
    if (!run(pending, deadline)) return std::nullopt;
    return std::move(pending->outcome);
  }

  GLibCallThread(const GLibCallThread&) = delete;
  GLibCallThread& operator=(const GLibCallThread&) = delete;

 private:
  // What a call shares between its caller and the thread; the last of the two
  // to let go frees it.
  struct PendingCall {
    explicit PendingCall(Start start);
    virtual ~PendingCall();
    virtual void finish(GAsyncResult* result) = 0;

    const Start start;
    GCancellable* const cancellable;
    std::mutex mutex;
    std::condition_variable finishedCondition;
    bool finished = false;
  };

  template <class Outcome>
  struct TypedCall final : PendingCall {
    TypedCall(Start start, std::function<Outcome(GAsyncResult*)> reader)
        : PendingCall(std::move(start)), reader(std::move(reader)) {}
    void finish(GAsyncResult* result) override { outcome = reader(result); }

    const std::function<Outcome(GAsyncResult*)> reader;
    std::optional<Outcome> outcome;  // written on the thread before `finished`
  };

  GLibCallThread();

  bool run(const std::shared_ptr<PendingCall>& call, Deadline deadline);
  static gboolean startOnThread(gpointer call);
  static void deleteStartReference(gpointer call);
  static void finishedOnThread(GObject* source, GAsyncResult* result, gpointer call);

  GMainContext* const context_;
};

}  // namespace fennick::platform
