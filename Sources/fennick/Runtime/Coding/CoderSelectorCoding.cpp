// Coding by selector: the Coder operations that name a value by a selector.
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Coding/Coder.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

namespace fennick {

std::string Coder::ov_keyFromSelector(Selector selector) const { return selector.name(); }

void Coder::ov_encodeObject_forSelector(const Id& object, Selector selector) {
  encodeObject_forKey(object, ov_keyFromSelector(selector));
}

void Coder::ov_encodeConditionalObject_forSelector(const Id& object, Selector selector) {
  encodeConditionalObject_forKey(object, ov_keyFromSelector(selector));
}

Id Coder::ov_decodeObjectOfClass_forSelector(const Class* cls, Selector selector) {
  return decodeObjectOfClass_forKey(cls, ov_keyFromSelector(selector));
}

Id Coder::ov_decodeObjectOfClasses_forSelector(const ClassList& classes, Selector selector) {
  return decodeObjectOfClasses_forKey(classes, ov_keyFromSelector(selector));
}

// The decoder has already checked the class of what it answers; the checked
// cast only guards coders that do not (a coder without secure coding).
Ref<String> Coder::ov_decodeStringForSelector(Selector selector) {
  return String::dynamicCastObject(ov_decodeObjectOfClass_forSelector(String::staticClass(), selector));
}

Ref<Number> Coder::ov_decodeNumberForSelector(Selector selector) {
  return Number::dynamicCastObject(ov_decodeObjectOfClass_forSelector(Number::staticClass(), selector));
}

Id Coder::ov_decodeContainerOfClass_objectClass_forSelector(const Class* container, const Class* element,
                                                            Selector selector) {
  return ov_decodeObjectOfClasses_forSelector({container, element}, selector);
}

Id Coder::ov_decodeContainerOfClass_objectClasses_forSelector(const Class* container, const ClassList& elements,
                                                              Selector selector) {
  ClassList classes{container};
  classes.insert(classes.end(), elements.begin(), elements.end());
  return ov_decodeObjectOfClasses_forSelector(classes, selector);
}

Ref<Array> Coder::ov_decodeArrayWithObjectClass_forSelector(const Class* element, Selector selector) {
  return Array::dynamicCastObject(
      ov_decodeContainerOfClass_objectClass_forSelector(Array::staticClass(), element, selector));
}

Ref<Array> Coder::ov_decodeArrayWithObjectClasses_forSelector(const ClassList& elements, Selector selector) {
  return Array::dynamicCastObject(
      ov_decodeContainerOfClass_objectClasses_forSelector(Array::staticClass(), elements, selector));
}

}  // namespace fennick
