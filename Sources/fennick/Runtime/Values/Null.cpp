#include "fennick/Runtime/Values/Null.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(Null) {
  builder.archiveNames({"NSNull"});
  builder.allocator([] { return std::static_pointer_cast<Object>(null()); });
}

const Ref<Null>& Null::null() {
  static const Ref<Null>& instance = *new Ref<Null>(make<Null>());
  return instance;
}

}  // namespace fennick
