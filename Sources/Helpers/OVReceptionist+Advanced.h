#pragma once
// The machinery behind OVReceptionist: subscription requests over one or many
// objects and key paths, the per-object handling record that is the actual
// key-value observer, subscription records, the change record handed to
// subscribers, and the conversion of a target and selector into a change
// callback by the selector's shape. Everything here runs on the receptionist's
// internal queue (or inline when it has none).
#include "fennick/Dispatch/Queue.h"
#include "fennick/Runtime/Dictionary.h"
#include "fennick/Runtime/Object.h"
#include "fennick/Runtime/String.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <optional>
#include <unordered_map>

namespace fennick {

class OVObjectHolder;
class OVReceptionist;
class OVReceptionistChangeInfo;
class OVReceptionistSubscriptionInfo;

/// A method signature as far as the receptionist needs one: the resolved
/// selector and its argument count (receiver and selector included).
struct OVMethodSignature {
  Selector selector;
  std::size_t numberOfArguments = 0;
};

namespace detail {
/// Calls that bookkeeping wants to make to subscribers (the synthetic first
/// call) are collected while the bookkeeping lock is held and made once it is
/// released, so that subscriber code never runs under the receptionist's lock.
class DeferredReceptionistCalls {
 public:
  DeferredReceptionistCalls();
  ~DeferredReceptionistCalls();
  DeferredReceptionistCalls(const DeferredReceptionistCalls&) = delete;
  DeferredReceptionistCalls& operator=(const DeferredReceptionistCalls&) = delete;
  /// Runs the collected calls, in order.
  void run();
  /// Collects the call when a collector is active on this thread, else makes it.
  static void call(std::function<void()> call);

 private:
  std::vector<std::function<void()>> calls_;
  DeferredReceptionistCalls* outer_;
};
}  // namespace detail

/// Called with one change record.
using OVReceptionistChangeBlock = std::function<void(const Ref<OVReceptionistChangeInfo>&)>;

/// A request to start or stop subscriptions. `keyPathesInfo` is one key path
/// (String), a collection of them, or nil for every key path; `objectsInfo` is
/// one object, a collection, or nil for every object.
class OVReceptionistSubscriptionRequest : public Object {
  FENNICK_DECLARE_CLASS(OVReceptionistSubscriptionRequest, Object)

 public:
  static Ref<OVReceptionistSubscriptionRequest> requestWithObjectsInfo_keyPathesInfo_context(
      const Id& objectsInfo, const Id& keyPathesInfo, void* context);
  static Ref<OVReceptionistSubscriptionRequest> initWithPrototype(
      const Ref<OVReceptionistSubscriptionRequest>& prototype);

  const Id& keyPathesInfo() const { return keyPathesInfo_; }
  /// Stores a copy.
  void setKeyPathesInfo(const Id& keyPathesInfo);
  const Id& objectsInfo() const { return objectsInfo_; }
  void setObjectsInfo(const Id& objectsInfo) { objectsInfo_ = objectsInfo; }
  void* context() const { return context_; }
  void setContext(void* context) { context_ = context; }

  Ref<class OVReceptionistStartSubscriptionRequest> buildStartRequest() const;
  Ref<class OVReceptionistStopSubscriptionRequest> buildStopRequest() const;

  /// Expands the request over its key paths and objects.
  void performForReceptionist(OVReceptionist& receptionist);
  void performForReceptionist_forKeyPath(OVReceptionist& receptionist, const Ref<String>& keyPath);
  /// The base request does nothing; start and stop requests act.
  virtual void performForReceptionist_forKeyPath_object(OVReceptionist& receptionist,
                                                        const Ref<String>& keyPath, const Id& object);
  virtual Ref<OVReceptionistSubscriptionInfo> buildSubscriptionInfoForReceptionist_forKeyPath_object(
      OVReceptionist& receptionist, const Ref<String>& keyPath, const Id& object);

  /// A new request of the receiver's class, made from the receiver.
  Id copy() const override;
  /// Takes the prototype's fields (a start request also takes the start fields
  /// when the prototype is a start request).
  virtual void copyFromPrototype(const OVReceptionistSubscriptionRequest& prototype);

 protected:
  OVReceptionistSubscriptionRequest() = default;
  virtual Ref<OVReceptionistSubscriptionRequest> makeEmpty() const;

 private:
  Id keyPathesInfo_;
  Id objectsInfo_;
  void* context_ = nullptr;
};

class OVReceptionistStartSubscriptionRequest : public OVReceptionistSubscriptionRequest {
  FENNICK_DECLARE_CLASS(OVReceptionistStartSubscriptionRequest, OVReceptionistSubscriptionRequest)

 public:
  static Ref<OVReceptionistStartSubscriptionRequest> request();

  const Id& originalObserver() const { return originalObserver_; }
  void setOriginalObserver(const Id& observer) { originalObserver_ = observer; }
  std::uint64_t options() const { return options_; }
  void setOptions(std::uint64_t options) { options_ = options; }
  const OVReceptionistChangeBlock& changeBlock() const { return changeBlock_; }
  void setChangeBlock(OVReceptionistChangeBlock block) { changeBlock_ = std::move(block); }
  /// Not owned: a target that goes away simply stops receiving calls.
  Id target() const { return target_.lock(); }
  void setTarget(const Id& target) { target_ = target; }
  Selector action() const { return action_; }
  void setAction(Selector action) { action_ = action; }

  /// The handler's signature for `selector`; without a selector, the longest
  /// of "didChange<Key>OfObject:newValue:oldValue:", "...OfObject:newValue:",
  /// "...OfObject:" and "didChange<Key>" that the handler answers.
  static std::optional<OVMethodSignature> methodSignatureForHandler_selector_keyPath(
      const Object& handler, Selector selector, const Ref<String>& keyPath);
  /// A change callback calling `handler` (held weakly) with changed object,
  /// new and old value as its signature has room; the argument bits it needs
  /// are OR-ed into `options`, and the chosen selector is written back.
  /// Without a signature there is no callback.
  static OVReceptionistChangeBlock changeBlockForReceptionist_forKeyPath_object_handler_selector_options(
      OVReceptionist& receptionist, const Ref<String>& keyPath, const Id& object, const Id& handler,
      Selector& selector, std::uint64_t& options);

  void performForReceptionist_forKeyPath_object(OVReceptionist& receptionist,
                                                const Ref<String>& keyPath, const Id& object) override;
  Ref<OVReceptionistSubscriptionInfo> buildSubscriptionInfoForReceptionist_forKeyPath_object(
      OVReceptionist& receptionist, const Ref<String>& keyPath, const Id& object) override;

 protected:
  OVReceptionistStartSubscriptionRequest() = default;

 public:
  void copyFromPrototype(const OVReceptionistSubscriptionRequest& prototype) override;

 protected:
  Ref<OVReceptionistSubscriptionRequest> makeEmpty() const override;

 private:
  Id originalObserver_;
  std::uint64_t options_ = 0;
  OVReceptionistChangeBlock changeBlock_;
  WeakRef<Object> target_;
  Selector action_;
};

class OVReceptionistStopSubscriptionRequest : public OVReceptionistSubscriptionRequest {
  FENNICK_DECLARE_CLASS(OVReceptionistStopSubscriptionRequest, OVReceptionistSubscriptionRequest)

 public:
  static Ref<OVReceptionistStopSubscriptionRequest> request();
  void performForReceptionist_forKeyPath_object(OVReceptionist& receptionist,
                                                const Ref<String>& keyPath, const Id& object) override;

 protected:
  OVReceptionistStopSubscriptionRequest() = default;
  Ref<OVReceptionistSubscriptionRequest> makeEmpty() const override;
};

/// One subscription: an observed object (weakly held), a key path, options and
/// the callback. Two records are equal when they name the same object and key
/// path, whatever their callbacks.
class OVReceptionistSubscriptionInfo : public Object {
  FENNICK_DECLARE_CLASS(OVReceptionistSubscriptionInfo, Object)

 public:
  static Ref<OVReceptionistSubscriptionInfo> info();
  static Ref<OVReceptionistSubscriptionInfo> initWithPrototype(
      const Ref<OVReceptionistSubscriptionInfo>& prototype);

  const Id& originalObserver() const { return originalObserver_; }
  void setOriginalObserver(const Id& observer) { originalObserver_ = observer; }
  const Ref<OVObjectHolder>& observedObjectHolder() const { return observedObjectHolder_; }
  void setObservedObjectHolder(const Ref<OVObjectHolder>& holder);
  const Ref<String>& keyPath() const { return keyPath_; }
  void setKeyPath(const Ref<String>& keyPath);
  std::uint64_t options() const { return options_; }
  void setOptions(std::uint64_t options) { options_ = options; }
  void* context() const { return context_; }
  void setContext(void* context) { context_ = context; }
  const OVReceptionistChangeBlock& changeBlock() const;
  void setChangeBlock(OVReceptionistChangeBlock block);

  /// Delivers a change to the callback; a prior notification only when the
  /// record asked for prior notifications; nothing once the record is stopped.
  void notifyChangeOfObject_keyPath_change_isInitial(const Id& object, const Ref<String>& keyPath,
                                                     const Ref<Dictionary>& change, bool isInitial);
  Ref<OVReceptionistChangeInfo> buildChangeInfoWithChangeDictionary_changedObject_isInitial(
      const Ref<Dictionary>& change, const Id& object, bool isInitial);

  /// Marks the record as stopped: a delivery already on its way checks the
  /// mark just before calling the callback, and drops the change.
  void markStopped() noexcept { stopped_.store(true, std::memory_order_release); }
  bool isStopped() const noexcept { return stopped_.load(std::memory_order_acquire); }

  bool isEqual(const Object* other) const override;
  std::size_t hash() const override;
  /// A copy that is not stopped.
  Id copy() const override;

 protected:
  OVReceptionistSubscriptionInfo() = default;
  void copyFrom(const OVReceptionistSubscriptionInfo& prototype);

 private:
  Id originalObserver_;
  Ref<OVObjectHolder> observedObjectHolder_;
  Ref<String> keyPath_;
  std::uint64_t options_ = 0;
  void* context_ = nullptr;
  // Shared, not copied: every change record made from this record carries it.
  std::shared_ptr<const OVReceptionistChangeBlock> changeBlock_;
  std::atomic<bool> stopped_{false};
};

/// What a subscriber receives: its subscription record plus the change.
class OVReceptionistChangeInfo : public OVReceptionistSubscriptionInfo {
  FENNICK_DECLARE_CLASS(OVReceptionistChangeInfo, OVReceptionistSubscriptionInfo)

 public:
  static Ref<OVReceptionistChangeInfo> initWithPrototype(
      const Ref<OVReceptionistSubscriptionInfo>& prototype);

  /// True only for the synthetic first call.
  bool isInitial() const { return initial_; }
  void setInitial(bool initial) { initial_ = initial; }
  /// The observed object; not owned (nil once it has gone away).
  Id changedObject() const { return changedObject_.lock(); }
  void setChangedObject(const Id& object) { changedObject_ = object; }
  const Ref<Dictionary>& changeDictionary() const { return changeDictionary_; }
  /// Stores a copy.
  void setChangeDictionary(const Ref<Dictionary>& change);
  /// The new / old value, with the null marker mapped to nil.
  Id newValue() const;
  Id oldValue() const;
  /// Whether new and old value differ.
  bool isChanged() const;

 protected:
  OVReceptionistChangeInfo() = default;

 private:
  bool initial_ = false;
  WeakRef<Object> changedObject_;
  Ref<Dictionary> changeDictionary_;
};

/// One per observed object per receptionist: the object's key-value observer,
/// registered once per key path, fanning each change out to the subscriptions.
class OVReceptionistHandlingInfo : public Object {
  FENNICK_DECLARE_CLASS(OVReceptionistHandlingInfo, Object)

 public:
  static Ref<OVReceptionistHandlingInfo> initWithObjectHolder_externalQueue_internalQueue(
      const Ref<OVObjectHolder>& holder, const Ref<dispatch::Queue>& externalQueue,
      const Ref<dispatch::Queue>& internalQueue);

  const Ref<dispatch::Queue>& externalQueue() const { return externalQueue_; }
  const Ref<dispatch::Queue>& internalQueue() const { return internalQueue_; }
  /// Key path -> mutable array of subscription records.
  const Ref<Dictionary>& subsriptionInfosByKeyPath() const { return subsriptionInfosByKeyPath_; }
  const Ref<OVObjectHolder>& objectHolder() const { return objectHolder_; }

  /// Adds the record; the first one of a key path registers this handling
  /// record with the object. Registration calls the object's getters, so it
  /// is made after the bookkeeping lock is released (see
  /// DeferredReceptionistCalls), never under it.
  void startObservationWithInfo_holder(const Ref<OVReceptionistSubscriptionInfo>& info,
                                       const Ref<OVObjectHolder>& holder);
  /// Removes and marks stopped the records equal to `info` (every record
  /// when `info` has no key path); the last one of a key path unregisters.
  void stopObservationWithInfo_holder(const Ref<OVReceptionistSubscriptionInfo>& info,
                                      const Ref<OVObjectHolder>& holder);
  /// Whether the held object is still `object` (not dead, not a new object
  /// that took a dead one's address).
  bool isHandlingObject(const Id& object) const;
  /// True only without a key-path dictionary, which every record has: a
  /// handling record stays listed once made.
  bool isEmpty() const { return subsriptionInfosByKeyPath_ == nullptr; }

  void observeValueForKeyPath_ofObject_change_context(const std::string& keyPath, const Id& object,
                                                      const Ref<Dictionary>& change,
                                                      void* context) override;
  void performInternalOperationFromExternalQueue_block(bool sync, dispatch::Block block);
  void performExternalOperationFromInternalQueue_block(bool sync, dispatch::Block block);

 protected:
  OVReceptionistHandlingInfo() = default;

 private:
  friend class OVReceptionist;
  void deliver(const Ref<String>& keyPath, const Id& object, const Ref<Dictionary>& change, bool prior);
  bool deliversInline() const { return !externalQueue_; }
  void stopRecords(const Ref<String>& keyPath);
  // Brings the key-value registration of `keyPath` in line with whether it
  // has subscriptions. One thread at a time does the work, with the lock
  // released around the (un)registration; others just leave it the change.
  void reconcileRegistration(const Ref<String>& keyPath);
  void scheduleReconcile(const Ref<String>& keyPath);

  struct Registration {
    bool registered = false;
    bool busy = false;
  };

  Ref<dispatch::Queue> externalQueue_;
  Ref<dispatch::Queue> internalQueue_;
  Ref<Dictionary> subsriptionInfosByKeyPath_;
  Ref<OVObjectHolder> objectHolder_;
  // Shared with the receptionist: guards the bookkeeping wherever it runs.
  Ref<std::recursive_mutex> lock_;
  std::unordered_map<std::string, Registration> registrations_;  // by key path, under lock_
};

}  // namespace fennick
