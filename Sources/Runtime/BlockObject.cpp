#include "fennick/Runtime/BlockObject.h"

#include "fennick/Runtime/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(BlockObject) {}

}  // namespace fennick
