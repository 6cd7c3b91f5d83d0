#include "fennick/Helpers/Data/OVClassReflection.h"

#include "fennick/Dispatch/OVDispatchQueue.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Null.h"

#include <unordered_map>

namespace fennick {

FENNICK_DEFINE_CLASS(OVClassReflection) {}

namespace {

// The process-wide cache: class name -> reflection, or the null marker for a
// class whose makeReflection gave none. Touched only on its queue.
struct ReflectionCache {
  Ref<dispatch::Queue> queue = OVBuildInternalDispatchQueue("reflections-management");
  std::unordered_map<std::string, Id> reflections;

  static ReflectionCache& shared() {
    static ReflectionCache* const cache = new ReflectionCache();  // never destroyed
    return *cache;
  }
};

template <class Body>
void forEachReflection(const Ref<Set>& reflections, Body&& body) {
  for (const Id& member : *reflections) body(static_cast<const OVPropertyReflection&>(*member));
}

}  // namespace

OVClassReflection::OVClassReflection() : reflections_(Set::set()), reflectionsByKey_(Dictionary::dictionary()) {}

Ref<OVClassReflection> OVClassReflection::initPrivate() { return make<OVClassReflection>(); }

Ref<OVClassReflection> OVClassReflection::makeReflectionOfClass(const Class* cls) {
  if (!cls) return nullptr;
  if (Class::ReflectionMaker maker = cls->reflectionMaker()) return dynamicCastObject(maker());
  return initPrivate();
}

Ref<OVClassReflection> OVClassReflection::reflectionOfClass(const Class* cls) {
  if (!cls) return nullptr;
  ReflectionCache& cache = ReflectionCache::shared();
  Id result;
  cache.queue->sync([&] {
    Id& entry = cache.reflections[cls->name()];
    if (!entry) {
      Id made = makeReflectionOfClass(cls);
      entry = made ? made : Id(Null::null());
    }
    result = entry;
  });
  return castObject(result->nonNullObject());
}

void OVClassReflection::addPropertyReflection(Selector selector, ClassList classes, const Id& defaultValue,
                                              const Ref<ValueTransformer>& valueTransformer) {
  auto reflection = OVPropertyReflection::initWithKey_objectClasses_defaultValue_valueTransformer(
      selector.name(), classes, defaultValue, valueTransformer);
  // The set keeps the first reflection of a key, the dictionary the latest.
  reflections_->addObject(reflection);
  reflectionsByKey_->setObject_forKey(reflection, reflection->key());
}

void OVClassReflection::addPropertyForSelector_objectClass(Selector selector, const Class* objectClass) {
  addPropertyForSelector_objectClasses_defaultValue_valueTransformer(selector, {objectClass}, nullptr, nullptr);
}

void OVClassReflection::addPropertyForSelector_containerClass_objectClass(Selector selector,
                                                                          const Class* containerClass,
                                                                          const Class* objectClass) {
  addPropertyForSelector_containerClass_objectClasses_defaultValue_valueTransformer(selector, containerClass,
                                                                                    {objectClass}, nullptr, nullptr);
}

void OVClassReflection::addPropertyForSelector_objectClasses_defaultValue_valueTransformer(
    Selector selector, const ClassList& objectClasses, const Id& defaultValue,
    const Ref<ValueTransformer>& valueTransformer) {
  addPropertyReflection(selector, objectClasses, defaultValue, valueTransformer);
}

void OVClassReflection::addPropertyForSelector_containerClass_objectClasses_defaultValue_valueTransformer(
    Selector selector, const Class* containerClass, const ClassList& objectClasses, const Id& defaultValue,
    const Ref<ValueTransformer>& valueTransformer) {
  ClassList classes{containerClass};
  classes.insert(classes.end(), objectClasses.begin(), objectClasses.end());
  addPropertyReflection(selector, std::move(classes), defaultValue, valueTransformer);
}

Ref<Set> OVClassReflection::propertyReflections() const { return Set::castObject(reflections_->copy()); }

Ref<OVPropertyReflection> OVClassReflection::propertyReflectionForKey(std::string_view key) const {
  return OVPropertyReflection::castObject(reflectionsByKey_->objectForKey(key));
}

void OVClassReflection::decodeObject_withDecoder(Object& object, Coder& decoder) const {
  forEachReflection(reflections_, [&](const OVPropertyReflection& property) {
    object.setValueForKey(property.decodeValueFromDecoder(decoder), property.key()->view());
  });
}

void OVClassReflection::encodeObject_withEncoder(const Object& object, Coder& encoder) const {
  forEachReflection(reflections_, [&](const OVPropertyReflection& property) {
    property.encodeValue_encoder(object.valueForKey(property.key()->view()), encoder);
  });
}

void OVClassReflection::setupPropertiesOfObject_withPrototype(Object& object, const Object& prototype) const {
  forEachReflection(reflections_, [&](const OVPropertyReflection& property) {
    object.setValueForKey(prototype.valueForKey(property.key()->view()), property.key()->view());
  });
}

Id OVClassReflection::copy() const {
  Ref<OVClassReflection> copy = initPrivate();
  copy->reflections_->addObjectsFromArray(reflections_->allObjects());
  copy->reflectionsByKey_->addEntriesFromDictionary(reflectionsByKey_);
  return copy;
}

std::string OVClassReflection::description() const {
  std::string keys;
  forEachReflection(reflections_, [&](const OVPropertyReflection& property) {
    keys += (keys.empty() ? "" : ", ") + property.key()->utf8();
  });
  return fmt::format("<OVClassReflection: {}>", keys);
}

}  // namespace fennick
