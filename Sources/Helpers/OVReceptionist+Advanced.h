#pragma once
// The machinery behind OVReceptionist: subscription requests over one or many
// objects and key paths, the per-object handling record that is the actual
// key-value observer, subscription records, the change record handed to
// subscribers, and the conversion of a target and selector into a change
// callback by the selector's shape.
#include "fennick/Helpers/OVReceptionistChangeInfo.h"
#include "fennick/Helpers/OVReceptionistHandlingInfo.h"
#include "fennick/Helpers/OVReceptionistStartSubscriptionRequest.h"
#include "fennick/Helpers/OVReceptionistStopSubscriptionRequest.h"
#include "fennick/Helpers/OVReceptionistSubscriptionInfo.h"
#include "fennick/Helpers/OVReceptionistSubscriptionRequest.h"
