// The thread that runs the keyring's asynchronous calls: a wait ends at its
// deadline whatever the call does, and what a call delivers after its caller
// left lands in state that is still alive.
#include "fennick/Platform/System/Internal/GLibCallThread.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>

namespace fennick::platform {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// A call that completes only when the test says so: its start keeps the task
// that stands for the call in flight.
class HeldCall {
 public:
  GLibCallThread::Start start() {
    return [held = held_](GCancellable* cancellable, GAsyncReadyCallback callback, gpointer data) {
      const std::lock_guard lock(held->mutex);
      held->cancellable = G_CANCELLABLE(g_object_ref(cancellable));
      held->task = g_task_new(nullptr, cancellable, callback, data);
      held->started.set_value();
    };
  }
  bool waitUntilStarted(std::chrono::milliseconds timeout = 30s) {
    return held_->hasStarted.wait_for(timeout) == std::future_status::ready;
  }
  bool isCancelled() {
    const std::lock_guard lock(held_->mutex);
    return held_->cancellable && g_cancellable_is_cancelled(held_->cancellable);
  }
  /// Completes the call from this thread; the result reaches the call thread.
  void complete() {
    const std::lock_guard lock(held_->mutex);
    g_task_return_int(held_->task, 7);
  }
  ~HeldCall() {
    const std::lock_guard lock(held_->mutex);
    if (held_->task) g_object_unref(held_->task);
    if (held_->cancellable) g_object_unref(held_->cancellable);
  }

 private:
  struct Held {
    std::mutex mutex;
    GTask* task = nullptr;
    GCancellable* cancellable = nullptr;
    std::promise<void> started;
    std::shared_future<void> hasStarted = started.get_future().share();
  };
  std::shared_ptr<Held> held_ = std::make_shared<Held>();
};

// A call that keeps the call thread busy until `released` is ready, then
// answers at once.
GLibCallThread::Start blockUntil(std::shared_future<void> released, std::shared_ptr<std::promise<void>> blocking) {
  return [released, blocking](GCancellable*, GAsyncReadyCallback callback, gpointer data) {
    blocking->set_value();
    released.wait();
    GTask* task = g_task_new(nullptr, nullptr, callback, data);
    g_task_return_int(task, 1);
    g_object_unref(task);
  };
}

// Reads the result the way a finish function does, and says when it ran.
std::function<gssize(GAsyncResult*)> readInt(std::shared_ptr<std::promise<gssize>> read = {}) {
  return [read](GAsyncResult* result) {
    GError* error = nullptr;
    const gssize value = g_task_propagate_int(G_TASK(result), &error);
    const gssize outcome = error ? -1 : value;
    if (error) g_error_free(error);
    if (read) read->set_value(outcome);
    return outcome;
  };
}

TEST(GLibCallThreadTest, WaitsEndAtTheirDeadlineAndLateResultsAreDropped) {
  GLibCallThread* thread = GLibCallThread::shared();
  ASSERT_NE(thread, nullptr);
  HeldCall warmUp;
  auto warmedUp = std::async(std::launch::async,
                             [&] { return thread->call<gssize>(warmUp.start(), readInt(), Clock::now() + 60s); });
  ASSERT_TRUE(warmUp.waitUntilStarted());
  warmUp.complete();
  ASSERT_EQ(warmedUp.get(), std::optional<gssize>(7));

  // A call that started and does not complete ends at its deadline, cancelled
  // (the deadline leaves an idle call thread ample time to start it).
  HeldCall abandoned;
  auto abandonedRead = std::make_shared<std::promise<gssize>>();
  const auto started = Clock::now();
  EXPECT_EQ(thread->call<gssize>(abandoned.start(), readInt(abandonedRead), started + 500ms), std::nullopt);
  EXPECT_GE(Clock::now() - started, 500ms);
  ASSERT_TRUE(abandoned.waitUntilStarted(0ms));
  EXPECT_TRUE(abandoned.isCancelled());

  // While the call thread is busy, a call ends at its deadline all the same,
  // and is not started once its caller left.
  std::promise<void> release;
  auto blocking = std::make_shared<std::promise<void>>();
  auto blocker = std::async(std::launch::async, [&] {
    return thread->call<gssize>(blockUntil(release.get_future().share(), blocking), readInt(), Clock::now() + 60s);
  });
  ASSERT_EQ(blocking->get_future().wait_for(30s), std::future_status::ready);
  HeldCall neverStarted;
  EXPECT_EQ(thread->call<gssize>(neverStarted.start(), readInt(), Clock::now() + 50ms), std::nullopt);
  release.set_value();
  EXPECT_EQ(blocker.get(), std::optional<gssize>(1));

  // While the abandoned call is still out, the calls after it are answered;
  // the thread came to the one that was left before it came to this one.
  HeldCall answered;
  auto answer = std::async(std::launch::async,
                           [&] { return thread->call<gssize>(answered.start(), readInt(), Clock::now() + 60s); });
  ASSERT_TRUE(answered.waitUntilStarted());
  answered.complete();
  EXPECT_EQ(answer.get(), std::optional<gssize>(7));
  EXPECT_FALSE(neverStarted.waitUntilStarted(0ms));

  // The abandoned call completes after its caller left: it is read on the
  // call thread, as cancelled, into state that is still there.
  abandoned.complete();
  auto late = abandonedRead->get_future();
  ASSERT_EQ(late.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(late.get(), -1);
}

}  // namespace
}  // namespace fennick::platform
