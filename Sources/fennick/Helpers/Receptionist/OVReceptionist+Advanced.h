#pragma once
// The machinery behind OVReceptionist: subscription requests over one or many
// objects and key paths, the per-object handling record that is the actual
// key-value observer, subscription records, the change record handed to
// subscribers, and the conversion of a target and selector into a change
// callback by the selector's shape.
#include "fennick/Helpers/Receptionist/OVReceptionistChangeInfo.h"
#include "fennick/Helpers/Receptionist/OVReceptionistHandlingInfo.h"
#include "fennick/Helpers/Receptionist/OVReceptionistStartSubscriptionRequest.h"
#include "fennick/Helpers/Receptionist/OVReceptionistStopSubscriptionRequest.h"
#include "fennick/Helpers/Receptionist/OVReceptionistSubscriptionInfo.h"
#include "fennick/Helpers/Receptionist/OVReceptionistSubscriptionRequest.h"
