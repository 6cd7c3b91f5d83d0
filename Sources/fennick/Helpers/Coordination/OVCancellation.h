#pragma once
// Cancellation: a one-way switch that a caller flips to ask running work to
// stop, with handlers that run when that happens.
//
// OVCancellation is the interface that long-running operations accept; both
// OVCancellationToken and OVCancellationGroup implement it. `isCancelled` is
// observable through key-value observation (a group watches its children's).
// Handlers never run inside the call that adds them or cancels: they run on
// the global utility queue, so they may call back into the token.
#include "fennick/Dispatch/Block.h"
#include "fennick/Dispatch/Queue.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <atomic>
#include <functional>
#include <vector>

namespace fennick {

class OVCancellation : public Object {
  FENNICK_DECLARE_CLASS(OVCancellation, Object)

 public:
  /// True once cancelled; never false again. Readable from any thread.
  virtual bool isCancelled() const = 0;
  /// Cancels; later calls do nothing. Returns once the handlers are handed to
  /// the utility queue, not after they ran.
  virtual void cancel() = 0;
  /// Adds a handler to run after cancellation; it is moved in, so move-only
  /// callables work. When already cancelled, the handler is submitted at once
  /// to the utility queue, alone.
  virtual void addCancellationHandler(dispatch::Block handler) = 0;

 protected:
  OVCancellation() = default;
};

class OVCancellationToken : public OVCancellation {
  FENNICK_DECLARE_CLASS(OVCancellationToken, OVCancellation)

 public:
  static Ref<OVCancellationToken> init();

  bool isCancelled() const override { return cancelled_.load(std::memory_order_acquire); }
  /// Handlers added before the cancel run together, in order of addition, one
  /// after another, on the global utility queue.
  void cancel() override;
  void addCancellationHandler(dispatch::Block handler) override;
  /// Runs the block synchronously on the token's queue. It must not call the
  /// token's cancel or addCancellationHandler (they wait for that queue).
  void performBlock(const std::function<void()>& block);
  const Ref<dispatch::Queue>& internalQueue() const { return internalQueue_; }

 protected:
  OVCancellationToken();

 private:
  void cancelOnQueue();

  std::atomic<bool> cancelled_{false};
  std::vector<dispatch::Block> cancellationHandlers_;
  const Ref<dispatch::Queue> internalQueue_;
};

namespace detail {
/// Submits the handlers, in order, as one block to the global utility queue.
void runCancellationHandlers(std::vector<dispatch::Block> handlers);
/// Keeps the handler for a later cancel, or, when already cancelled, submits
/// it alone to the global utility queue.
void addOrRunCancellationHandler(bool cancelled, std::vector<dispatch::Block>& handlers,
                                 dispatch::Block handler);
}  // namespace detail

}  // namespace fennick
