#pragma once
// A request that stops subscriptions.
//
// Not thread-safe: a receptionist uses it on its internal queue (or under
// its bookkeeping lock when it has no queue).
#include "fennick/Helpers/Receptionist/OVReceptionistSubscriptionRequest.h"

namespace fennick {

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

}  // namespace fennick
