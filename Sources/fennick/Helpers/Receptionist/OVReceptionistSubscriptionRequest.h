#pragma once
// The base of receptionist requests: which objects and key paths a start or
// stop applies to, expanded into one call per object and key path.
//
// Not thread-safe: a receptionist uses it on its internal queue (or under
// its bookkeeping lock when it has no queue).
#include "fennick/Runtime/ObjectModel/Object.h"
#include "fennick/Runtime/Values/String.h"

namespace fennick {

class OVReceptionist;
class OVReceptionistStartSubscriptionRequest;
class OVReceptionistStopSubscriptionRequest;
class OVReceptionistSubscriptionInfo;

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

  Ref<OVReceptionistStartSubscriptionRequest> buildStartRequest() const;
  Ref<OVReceptionistStopSubscriptionRequest> buildStopRequest() const;

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

}  // namespace fennick
