#include "fennick/Runtime/ObjectModel/BlockObject.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(BlockObject) {}

}  // namespace fennick
