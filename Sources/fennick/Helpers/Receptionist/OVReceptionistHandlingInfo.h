#pragma once
// The receptionist's key-value observer for one object. Its bookkeeping runs
// under the lock it shares with its receptionist; changes arrive on any
// thread and are handed to the internal queue, deliveries to the external one.
#include "fennick/Dispatch/Queue.h"
#include "fennick/Helpers/Receptionist/OVReceptionistSubscriptionInfo.h"
#include "fennick/Runtime/Collections/Dictionary.h"

#include <mutex>
#include <string>
#include <unordered_map>

namespace fennick {

class OVObjectHolder;

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
