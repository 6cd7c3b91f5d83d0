#pragma once
// Runs a callback and turns a thrown runtime Exception (the runtime's
// programming-error exception, subclasses included) into a false result and a
// call of the runner's exception handler, so that callers never see it. Any
// other exception propagates unchanged.
//
//   bool ok = OVSafeRunner::shared()->safelyExecute([&] { risky(); });
#include "fennick/Runtime/ObjectModel/Object.h"

#include <functional>

namespace fennick {

class OVSafeRunner : public Object {
  FENNICK_DECLARE_CLASS(OVSafeRunner, Object)

 public:
  using ExceptionHandler = std::function<void(const Exception&)>;

  /// The process-wide runner, made on first use (thread-safe), without an
  /// exception handler.
  static const Ref<OVSafeRunner>& shared();
  /// A second process-wide runner for running tasks, separate from shared().
  static const Ref<OVSafeRunner>& taskRunner();

  static Ref<OVSafeRunner> init();
  static Ref<OVSafeRunner> initWithExceptionHandler(ExceptionHandler handler);
  static Ref<OVSafeRunner> runnerWithExceptionHandler(ExceptionHandler handler);

  /// Called synchronously, on the thread that ran the block, with each
  /// caught exception; may be empty. Not synchronised: set it before the
  /// runner is shared between threads.
  const ExceptionHandler& exceptionHandler() const noexcept { return exceptionHandler_; }
  void setExceptionHandler(ExceptionHandler handler) { exceptionHandler_ = std::move(handler); }

  /// Runs the block on the calling thread. True when it returned normally
  /// (an empty block counts as such); false when it threw an Exception, which
  /// is then handed to the exception handler if there is one.
  bool safelyExecute(const std::function<void()>& block) const;

 protected:
  explicit OVSafeRunner(ExceptionHandler handler = nullptr) : exceptionHandler_(std::move(handler)) {}

 private:
  ExceptionHandler exceptionHandler_;
};

}  // namespace fennick
