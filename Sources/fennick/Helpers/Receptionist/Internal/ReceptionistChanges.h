#pragma once
// Reading the change dictionaries that key-value observation hands the
// receptionist.
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/Number.h"

namespace fennick::detail {

inline bool isPriorChange(const Ref<Dictionary>& change) {
  auto* flag = dynamic_cast<const Number*>(change->objectForKey(NSKeyValueChangeNotificationIsPriorKey).get());
  return flag && flag->boolValue();
}

}  // namespace fennick::detail
