// Classes that archives and class look-ups may name before any instance has
// been made. Touching a class's record builds and registers it.
#include "fennick/Runtime/Array.h"
#include "fennick/Runtime/Data.h"
#include "fennick/Runtime/Date.h"
#include "fennick/Runtime/Error.h"
#include "fennick/Runtime/UUID.h"
#include "fennick/Runtime/Dictionary.h"
#include "fennick/Runtime/Null.h"
#include "fennick/Runtime/Number.h"
#include "fennick/Runtime/Set.h"
#include "fennick/Runtime/String.h"
#include "fennick/Runtime/URL.h"
#include "fennick/Runtime/ValueTransformer.h"

#include <mutex>

namespace fennick::detail {

void registerBuiltinClasses() {
  static std::once_flag once;
  std::call_once(once, [] {
    for (const Class* cls : {Object::staticClass(), String::staticClass(), Number::staticClass(),
                             Null::staticClass(), Array::staticClass(), Dictionary::staticClass(),
                             Set::staticClass(), CountedSet::staticClass(),
                             Data::staticClass(), Date::staticClass(), UUID::staticClass(),
                             Error::staticClass(), URL::staticClass(), ValueTransformer::staticClass()})
      (void)cls;
  });
}

}  // namespace fennick::detail
