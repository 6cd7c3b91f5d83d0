// Keyed archives from outside, decoded with secure coding into plain values
// and into a class archived by its reflection. A decode gives an object of
// an allowed class, nil, or an error; values of other classes
// never reach the reflected object.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sanitizer/lsan_interface.h>
#include <unordered_set>
#include <vector>

#include "fennick/Helpers/Data/OVClassReflection.h"
#include "fennick/Helpers/Data/OVEnumValueTransformer.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/Coding/KeyedUnarchiver.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"

using namespace fennick;

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

class Note : public Object {
  FENNICK_DECLARE_CLASS(Note, Object)
  FENNICK_REFLECTION_CODING()

 public:
  static Ref<OVClassReflection> makeReflection() {
    auto reflection = OVClassReflection::makeReflectionOfClass(Superclass::staticClass());
    reflection->addPropertyForSelector_objectClass(Selector::named("text"), String::staticClass());
    reflection->addPropertyForSelector_containerClass_objectClass(Selector::named("links"), Array::staticClass(),
                                                                  Note::staticClass());
    reflection->addPropertyForSelector_objectClasses_defaultValue_valueTransformer(
        Selector::named("kind"), {String::staticClass()}, nullptr,
        OVEnumValueTransformer::initWithMapping_defaultValue(
            Dictionary::dictionaryWithObjectsAndKeys({{Number::of(1), "plain"_s}, {Number::of(2), "rich"_s}}), 1));
    return reflection;
  }
  Ref<String> text() const { return text_; }
  void setText(Ref<String> text) {
    require(!text || text->isKindOfClass(String::staticClass()));
    text_ = std::move(text);
  }
  Ref<Array> links() const { return links_; }
  void setLinks(Ref<Array> links) {
    if (links)
      for (const Id& link : *links) require(link->isKindOfClass(Note::staticClass()));
    links_ = std::move(links);
  }
  std::int64_t kind() const { return kind_; }
  void setKind(std::int64_t kind) { kind_ = kind; }

 protected:
  Note() = default;

 private:
  Ref<String> text_;
  Ref<Array> links_;
  std::int64_t kind_ = 0;
};

// Archives may describe cycles (a note linking to itself, an array holding
// itself) and the unarchiver rebuilds them faithfully with strong references;
// the caller owns such a graph, so empty every container and link reachable
// from the root to let it go. An immutable collection cannot be emptied: one
// that holds itself stays alive as it would under reference counting, so the
// leak checker is told to expect it.
void releaseGraph(const Id& root) {
  std::vector<Id> pending{root};
  std::unordered_set<const Object*> seen;
  while (!pending.empty()) {
    Id object = std::move(pending.back());
    pending.pop_back();
    if (!object || !seen.insert(object.get()).second) continue;
    if (auto note = Note::dynamicCastObject(object)) {
      pending.push_back(note->links());
      note->setLinks(nullptr);
    } else if (auto array = Array::dynamicCastObject(object)) {
      for (const Id& member : *array) pending.push_back(member);
      if (array->isMutable()) array->removeAllObjects();
      else __lsan_ignore_object(array.get());
    } else if (auto dictionary = Dictionary::dynamicCastObject(object)) {
      const Ref<Array> keys = dictionary->allKeys();
      for (const Id& key : *keys) pending.push_back(dictionary->objectForKey(key));
      if (dictionary->isMutable()) dictionary->removeAllObjects();
      else __lsan_ignore_object(dictionary.get());
    }
  }
}

}  // namespace

FENNICK_DEFINE_CLASS(Note) {
  builder.property("text", &Note::text, &Note::setText);
  builder.property("links", &Note::links, &Note::setLinks);
  builder.property("kind", &Note::kind, &Note::setKind);
  builder.coding();
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  Ref<Data> data = Data::dataWithBytes(bytes, size);
  const ClassList values{Array::staticClass(), Dictionary::staticClass(), String::staticClass(),
                         Number::staticClass(), Data::staticClass(),       Date::staticClass(),
                         Null::staticClass()};
  for (const ClassList& classes : {values, ClassList{Note::staticClass()}}) {
    Ref<Error> error;
    Id root = KeyedUnarchiver::unarchivedObjectOfClasses_fromData_error(classes, data, &error);
    // A nil root without an error is an archive of nil ($null at the top).
    if (!root) continue;
    require(!error);
    bool allowed = false;
    for (const Class* cls : classes) allowed = allowed || root->isKindOfClass(cls);
    require(allowed);
    releaseGraph(root);
  }
  return 0;
}
