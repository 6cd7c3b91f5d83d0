#pragma once
// A fresh headless backend per test, installed for the whole process while
// the test runs, and helpers to build recoverable errors.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fennick/AppKitExtensions/HeadlessBackend.h"
#include "fennick/AppKitExtensions/InterfaceBackend.h"
#include "fennick/Dispatch/Main.h"
#include "fennick/Dispatch/OVDispatchQueue.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Errors/OVErrorRecoveryAttemptInfo.h"
#include "fennick/Runtime/Values/String.h"

namespace fennick::testing {

class HeadlessTest : public ::testing::Test {
 protected:
  void SetUp() override { setInterfaceBackend(backend); }
  void TearDown() override { setInterfaceBackend(nullptr); }

  const std::shared_ptr<HeadlessBackend> backend = HeadlessBackend::create();
};

inline Ref<Array> strings(std::initializer_list<const char*> texts) {
  auto array = Array::array();
  for (const char* text : texts) array->addObject(String::string(text));
  return array;
}

/// A recoverable error that records the options its recovery was given and
/// answers with `followUp`. Thread-safe.
struct RecoverableError {
  explicit RecoverableError(const Ref<Dictionary>& userInfo = nullptr,
                            std::initializer_list<const char*> options = {"Retry", "Skip", "Cancel"})
      : error(Error::errorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo_recoveryAttemptBlock(
            "com.example.test", 42, "The disk is full.", "Free some space and try again.", strings(options), userInfo,
            [this](const Ref<Error>&, std::uint64_t option) {
              std::lock_guard lock(mutex);
              recoveredOptions.push_back(option);
              return followUp;
            })) {}

  std::vector<std::uint64_t> options() {
    std::lock_guard lock(mutex);
    return recoveredOptions;
  }

  std::mutex mutex;
  std::vector<std::uint64_t> recoveredOptions;
  Ref<Error> followUp;
  Ref<Error> error;
};

/// Main-queue work of the three kinds that must not wait for a modal alert
/// to be answered, sent from other threads: a recovery completion, an
/// OVInteractWithUI callback and a sync onto the main queue.
class MainQueueTraffic {
 public:
  MainQueueTraffic() = default;
  MainQueueTraffic(const MainQueueTraffic&) = delete;
  MainQueueTraffic& operator=(const MainQueueTraffic&) = delete;
  /// Serves the main queue, on the main thread, until the sync got through.
  ~MainQueueTraffic() {
    if (!syncing_.joinable()) return;
    if (dispatch::isMainThread()) dispatch::runMainQueueUntil([&] { return ran().size() == 3; }, std::chrono::seconds(20));
    syncing_.join();
  }

  /// Off the main thread. Each kind notes on arrival whether it ran there.
  void send() {
    attempt_->notifyRecoveryCompletionWithBlock([this](bool) { note("recovery completion"); });
    std::thread([attempt = attempt_] { attempt->noNeedForRecoveryOfError(nullptr); }).join();
    OVInteractWithUI([this] { note("OVInteractWithUI"); });
    // On a thread of its own: a starved main queue keeps it waiting, not the caller.
    syncing_ = std::thread([this] { dispatch::mainQueue()->sync([this] { note("sync"); }); });
  }

  /// True once all three ran on the main thread; false after `timeout`.
  bool waitUntilAllRan(std::chrono::seconds timeout) {
    std::unique_lock lock(mutex_);
    return arrived_.wait_for(lock, timeout, [&] { return ran_.size() == 3; }) && !offMain_;
  }

  std::vector<std::string> ran() {
    std::lock_guard lock(mutex_);
    return ran_;
  }

 private:
  void note(const char* kind) {
    std::lock_guard lock(mutex_);
    ran_.push_back(kind);
    offMain_ = offMain_ || !dispatch::isMainThread();
    arrived_.notify_all();
  }

  const Ref<OVErrorRecoveryAttemptInfo> attempt_ = OVErrorRecoveryAttemptInfo::init();
  std::thread syncing_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::string> ran_;
  bool offMain_ = false;
};

}  // namespace fennick::testing
