#pragma once
// A handle on one key-value observation made with a callable, for C++ code
// that has no observer object of its own:
//
//     fennick::KeyValueObservation watch = person->addObserver_forKeyPath_options(
//         "name", NSKeyValueObservingOptionNew | NSKeyValueObservingOptionOld,
//         [](const Ref<Dictionary>& change) { ... });
//
// The observation lasts as long as the handle: destroying or resetting the
// handle removes it (if the observed object still lives). The callable is
// called synchronously on the thread that made the change, as any observer is.
// A handle is a value like unique_ptr: move it freely, but do not use one
// handle from two threads at once. A change already under way on another
// thread when the handle goes may still call the callable once; it stays
// alive for that call.
#include "fennick/Runtime/ObjectModel/Ref.h"

#include <memory>
#include <string>

namespace fennick {

class Object;

class [[nodiscard]] KeyValueObservation {
 public:
  KeyValueObservation() = default;
  KeyValueObservation(const std::weak_ptr<Object>& observed, Id observer, std::string keyPath)
      : observed_(observed), observer_(std::move(observer)), keyPath_(std::move(keyPath)) {}
  KeyValueObservation(KeyValueObservation&& other) noexcept = default;
  KeyValueObservation& operator=(KeyValueObservation&& other) noexcept {
    if (this != &other) {
      reset();
      observed_ = std::move(other.observed_);
      observer_ = std::move(other.observer_);
      keyPath_ = std::move(other.keyPath_);
    }
    return *this;
  }
  KeyValueObservation(const KeyValueObservation&) = delete;
  KeyValueObservation& operator=(const KeyValueObservation&) = delete;
  ~KeyValueObservation() { reset(); }

  /// Ends the observation now; later calls do nothing.
  void reset() noexcept;
  /// Whether the handle still holds an observation.
  explicit operator bool() const noexcept { return observer_ != nullptr; }

 private:
  std::weak_ptr<Object> observed_;
  Id observer_;
  std::string keyPath_;
};

}  // namespace fennick
