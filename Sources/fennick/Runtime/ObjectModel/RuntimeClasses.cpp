// Classes that archives and class look-ups may name before any instance has
// been made. Touching a class's record builds and registers it.
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/UUID.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Collections/Set.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"
#include "fennick/Runtime/Observation/ValueTransformer.h"

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
