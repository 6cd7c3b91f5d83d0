#pragma once
// Reference types shared by every Fennick layer: Ref and WeakRef come from the
// dispatch layer's header, the runtime adds Id.
#include "fennick/Dispatch/Ref.h"

namespace fennick {
class Object;
/// Any runtime object.
using Id = Ref<Object>;
}  // namespace fennick
