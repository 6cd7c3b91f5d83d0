#pragma once
// For tests of code that calls out to user code (observers, callbacks,
// destructors of what it drops): the user code reads the object on another
// thread and waits for that read. A lock held around the call-out makes the
// read wait for the call-out itself; the probe then gives up after a bounded
// time and counts the call-out as blocked, so that such a defect fails the
// test instead of hanging it.
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace fennick::testing {

class CallOutProbe {
 public:
  CallOutProbe() = default;
  CallOutProbe(const CallOutProbe&) = delete;
  CallOutProbe& operator=(const CallOutProbe&) = delete;
  /// Joins the reading threads, which finish once the caller's locks are gone.
  ~CallOutProbe() { joinAll(); }

  /// Runs `read` on a new thread and waits for it: 10 s at first, not at all
  /// once a read was blocked (one is enough to fail, and more would only
  /// make the failure slow).
  void readElsewhere(std::function<void()> read) {
    auto finished = std::make_shared<std::promise<void>>();
    std::future<void> done = finished->get_future();
    std::thread reader([read = std::move(read), finished] {
      read();
      finished->set_value();
    });
    const bool blockedBefore = blocked() > 0;
    const auto patience = blockedBefore ? std::chrono::seconds(0) : std::chrono::seconds(10);
    const bool answered = done.wait_for(patience) == std::future_status::ready;
    std::lock_guard lock(mutex_);
    readers_.push_back(std::move(reader));
    ++calls_;
    if (!answered) ++blocked_;
  }

  int calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  int blocked() const {
    std::lock_guard lock(mutex_);
    return blocked_;
  }

  void joinAll() {
    std::vector<std::thread> readers;
    {
      std::lock_guard lock(mutex_);
      readers.swap(readers_);
    }
    for (std::thread& reader : readers) reader.join();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::thread> readers_;
  int calls_ = 0;
  int blocked_ = 0;
};

/// Calls `onDrop` when destroyed: it stands for user state captured by a
/// callback, whose destructor is user code too.
struct CallsWhenDropped {
  std::function<void()> onDrop;
  ~CallsWhenDropped() {
    if (onDrop) onDrop();
  }
};

}  // namespace fennick::testing
