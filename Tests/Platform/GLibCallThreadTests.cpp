// The thread that runs the keyring's asynchronous calls: a wait ends at its
// deadline whatever the call does, and what a call delivers after its caller
// left lands in state that is still alive.
#include "fennick/Platform/Internal/GLibCallThread.h"

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
  void waitUntilStarted() { ASSERT_EQ(held_->started.get_future().wait_for(30s), std::future_status::ready); }
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
  };
  std::shared_ptr<Held> held_ = std::make_shared<Held>();
};

// Reads the result the way a finish function does, and says when it ran.
std::function<gssize(GAsyncResult*)> readInt(std::shared_ptr<std::promise<gssize>> read) {
  return [read](GAsyncResult* result) {
    GError* error = nullptr;
    const gssize value = g_task_propagate_int(G_TASK(result), &error);
    const gssize outcome = error ? -1 : value;
    if (error) g_error_free(error);
    read->set_value(outcome);
    return outcome;
  };
}

TEST(GLibCallThreadTest, WaitsEndAtTheirDeadlineAndLateResultsAreDropped) {
  GLibCallThread* thread = GLibCallThread::shared();
  ASSERT_NE(thread, nullptr);

  // A call that does not complete ends at its deadline, cancelled.
  HeldCall abandoned;
  auto abandonedRead = std::make_shared<std::promise<gssize>>();
  const auto started = Clock::now();
  EXPECT_EQ(thread->call<gssize>(abandoned.start(), readInt(abandonedRead), started + 200ms), std::nullopt);
  EXPECT_GE(Clock::now() - started, 200ms);
  abandoned.waitUntilStarted();
  EXPECT_TRUE(abandoned.isCancelled());

  // While it is still out, the calls after it are answered.
  HeldCall answered;
  auto answer = std::async(std::launch::async, [&] {
    return thread->call<gssize>(answered.start(), readInt(std::make_shared<std::promise<gssize>>()),
                                Clock::now() + 60s);
  });
  answered.waitUntilStarted();
  answered.complete();
  ASSERT_EQ(answer.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(answer.get(), std::optional<gssize>(7));

  // The abandoned call completes after its caller left: it is read on the
  // call thread, as cancelled, into state that is still there.
  abandoned.complete();
  auto late = abandonedRead->get_future();
  ASSERT_EQ(late.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(late.get(), -1);
}

}  // namespace
}  // namespace fennick::platform
