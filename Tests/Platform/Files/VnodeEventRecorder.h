#pragma once
// Records the bits a vnode event source delivers, and lets a test wait for
// some of them.
#include "fennick/Platform/Files/VnodeEventSource.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace fennick::filetest {

class VnodeEventRecorder {
 public:
  /// Watches `url` with every bit; `resume` false leaves the source suspended.
  explicit VnodeEventRecorder(const Ref<URL>& url, bool resume = true)
      : queue_(dispatch::Queue::createSerial("vnode-recorder")) {
    source_ = platform::makeVnodeEventSource(*url, 0x7F, queue_, [this] {
      std::lock_guard lock(mutex_);
      cancelled_ = true;
      changed_.notify_all();
    });
    if (!source_) return;
    source_->setEventHandler([this, source = source_.get()] {
      std::lock_guard lock(mutex_);
      seen_ |= source->data();
      ++runs_;
      changed_.notify_all();
    });
    if (resume) this->resume();
  }
  ~VnodeEventRecorder() { cancel(); }

  bool valid() const { return source_ != nullptr; }
  void resume() {
    resumed_ = true;
    source_->resume();
  }
  const Ref<dispatch::Source>& source() const { return source_; }

  /// Waits until every bit of `bits` was delivered; true when they were.
  bool waitFor(std::uintptr_t bits, std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return (seen_ & bits) == bits; });
  }
  /// The bits seen so far, cleared.
  std::uintptr_t take() {
    std::lock_guard lock(mutex_);
    return std::exchange(seen_, 0);
  }
  int runs() {
    std::lock_guard lock(mutex_);
    return runs_;
  }
  /// Cancels the source and waits for its cancel handler.
  void cancel() {
    if (!source_) return;
    source_->cancel();
    if (!resumed_) resume();
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(10), [&] { return cancelled_; });
  }

 private:
  Ref<dispatch::Queue> queue_;
  Ref<dispatch::Source> source_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::uintptr_t seen_ = 0;
  int runs_ = 0;
  bool cancelled_ = false;
  bool resumed_ = false;
};

}  // namespace fennick::filetest
