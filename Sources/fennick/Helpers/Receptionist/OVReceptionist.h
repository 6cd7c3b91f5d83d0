#pragma once
// The receptionist: the library's one way to observe properties of other
// objects. One receptionist serves one owner; it keeps, per observed object, a
// handling record registered once per key path with key-value observation,
// and fans each change out to every subscription for that object and key
// path, as callbacks or as method calls on a target.
//
// Queues: a receptionist made with init() does everything on the calling
// thread, and delivers changes synchronously on the thread that made them.
// With initWithInternalQueue: the bookkeeping runs on the owner's queue and
// changes are delivered there. With initWithConcurrentQueue: the bookkeeping
// runs on a private serial queue targeting the given queue, and changes are
// delivered asynchronously on the given queue. The synthetic first call of a
// subscription that asks for one is made on the internal queue.
//
// Thread safety: every method may be called from any thread.
//
// Starts and stops are asynchronous (with a queue): they return at once and
// take effect in submission order. A change made before a start has taken
// effect is not delivered; the initial invocation, when asked for, is the
// first call after the observation is in place. waitForPendingRequests()
// blocks until everything submitted before it has taken effect.
//
// Stops: once a stop has taken effect (stopAllObservations() and the
// destructor at once, the others when their turn on the internal queue
// comes), no subscription it covers is called again, including deliveries
// already queued. Only a call that has already begun may still be running.
//
// Lifetime: each pending start or stop holds the receptionist until it has
// run; when the last reference goes, every observation is removed
// synchronously. Subscriptions hold their targets weakly and their blocks
// strongly: a block must not hold its own receptionist.
//
// Errors: requests for nil objects or key paths, and target/action requests
// whose target answers no suitable selector, start nothing; nothing throws.
#include "fennick/Dispatch/Queue.h"
#include "fennick/Helpers/Receptionist/OVReceptionist+Advanced.h"
#include "fennick/Helpers/Receptionist/OVReceptionistTypedBlock.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <functional>
#include <mutex>
#include <string>

namespace fennick {

class OVReceptionist : public Object {
  FENNICK_DECLARE_CLASS(OVReceptionist, Object)

 public:
  /// Called with the changed object, the key path, the new and the old value
  /// (nil where the change has none).
  using ChangeBlock = std::function<void(const Id& object, const std::string& keyPath,
                                         const Id& newValue, const Id& oldValue)>;

  static Ref<OVReceptionist> init();
  static Ref<OVReceptionist> initWithInternalQueue(const Ref<dispatch::Queue>& queue);
  static Ref<OVReceptionist> initWithConcurrentQueue(const Ref<dispatch::Queue>& queue);
  /// Removes every registration synchronously.
  ~OVReceptionist() override;

  const Ref<dispatch::Queue>& externalQueue() const { return externalQueue_; }
  const Ref<dispatch::Queue>& internalQueue() const { return internalQueue_; }
  /// Holder of each observed object -> its handling record. Read it on the
  /// internal queue only.
  const Ref<Dictionary>& handlingInfosByHolder() const { return handlingInfosByHolder_; }

  void startObservationOfObject_forKeyPath_changeBlock(const Id& object, std::string_view keyPath,
                                                       ChangeBlock block);
  void startObservationOfObject_forKeyPath_wantsInitialInvocation_changeBlock(
      const Id& object, std::string_view keyPath, bool wantsInitialInvocation, ChangeBlock block);
  /// The same with a block that names its classes, for example
  /// `(const Ref<Meter>&, const std::string&, const Ref<Number>& now, const Ref<Number>& before)`:
  /// the object and the values are cast once, and one that is nil or of
  /// another class arrives as nil (see OVReceptionistTypedBlock.h).
  template <detail::TypedChangeBlock F>
  void startObservationOfObject_forKeyPath_changeBlock(const Id& object, std::string_view keyPath, F block) {
    startObservationOfObject_forKeyPath_changeBlock(object, keyPath, detail::untypedChangeBlock(std::move(block)));
  }
  template <detail::TypedChangeBlock F>
  void startObservationOfObject_forKeyPath_wantsInitialInvocation_changeBlock(const Id& object,
                                                                              std::string_view keyPath,
                                                                              bool wantsInitialInvocation, F block) {
    startObservationOfObject_forKeyPath_wantsInitialInvocation_changeBlock(
        object, keyPath, wantsInitialInvocation, detail::untypedChangeBlock(std::move(block)));
  }
  /// Calls `action` on `target` (not retained) with as many of changed object,
  /// new value and old value as its selector takes; without an action, the
  /// longest "didChange<Key>OfObject:newValue:oldValue:" form the target has.
  /// Always makes one call at once with the current value.
  void startObservationOfObject_forKeyPath_target_action(const Id& object, std::string_view keyPath,
                                                         const Id& target, Selector action);
  void stopObservationOfObject_forKeyPath(const Id& object, std::string_view keyPath);
  void stopAllObservationOfObject(const Id& object);
  /// Stops everything, at once, on the calling thread.
  void stopAllObservations();
  /// Blocks until every start and stop submitted before the call has taken
  /// effect. Safe from any thread, the main thread included: when the
  /// internal queue drains on the main thread, the main queue is served
  /// meanwhile (from a main-queue block too, as a nested loop would). Returns
  /// at once without a queue and on the internal queue.
  void waitForPendingRequests();
  /// Runs a copy of the request asynchronously on the internal queue.
  void performRequest(const Ref<OVReceptionistSubscriptionRequest>& request);
  /// Runs the block inline without an internal queue, else on it, synchronously or not.
  void performInternalOperationSync_block(bool sync, dispatch::Block block);

  // Advanced: called by requests on the internal queue.
  void startObservationWithInfo_object(const Ref<OVReceptionistSubscriptionInfo>& info, const Id& object);
  void stopObservationWithInfo_object(const Ref<OVReceptionistSubscriptionInfo>& info, const Id& object);

  std::string description() const override;

 protected:
  OVReceptionist();

 private:
  void stopObservationWithInfo_holder(const Ref<OVReceptionistSubscriptionInfo>& info,
                                      const Id& holder);
  void runRequest(const Ref<OVReceptionistSubscriptionRequest>& request);
  /// Runs the request on the internal queue, asynchronously; `keepAlive`
  /// (the target of a target/action request) lives until then.
  void submitRequest(Ref<OVReceptionistSubscriptionRequest> request, Id keepAlive = nullptr);

  Ref<dispatch::Queue> externalQueue_;
  Ref<dispatch::Queue> internalQueue_;
  Ref<Dictionary> handlingInfosByHolder_;
  // The bookkeeping runs on the internal queue, except stopAllObservations and
  // the whole of a queue-less receptionist, which run on callers' threads: one
  // lock, shared with the handling records, keeps those paths apart.
  Ref<std::recursive_mutex> lock_;
};

}  // namespace fennick
