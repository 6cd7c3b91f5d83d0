#include "fennick/Helpers/Receptionist/OVReceptionistStopSubscriptionRequest.h"

#include "fennick/Helpers/Receptionist/OVReceptionist.h"
#include "fennick/Helpers/Receptionist/OVReceptionistSubscriptionInfo.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVReceptionistStopSubscriptionRequest) {}

Ref<OVReceptionistStopSubscriptionRequest> OVReceptionistStopSubscriptionRequest::request() {
  return make<OVReceptionistStopSubscriptionRequest>();
}

Ref<OVReceptionistSubscriptionRequest> OVReceptionistStopSubscriptionRequest::makeEmpty() const {
  return make<OVReceptionistStopSubscriptionRequest>();
}

void OVReceptionistStopSubscriptionRequest::performForReceptionist_forKeyPath_object(
    OVReceptionist& receptionist, const Ref<String>& keyPath, const Id& object) {
  receptionist.stopObservationWithInfo_object(
      buildSubscriptionInfoForReceptionist_forKeyPath_object(receptionist, keyPath, object), object);
}

}  // namespace fennick
