#pragma once
// Class reflections: which properties of a class take part in archiving and
// prototype copying, with the classes allowed for each value, a default and an
// optional value transformer. A class declares its reflection once, in a
// static makeReflection() that builds on its superclass's:
//
//   class Track : public Object {
//     FENNICK_DECLARE_CLASS(Track, Object)
//     FENNICK_REFLECTION_CODING()  // encodeWithCoder/initWithCoder by reflection
//    public:
//     static Ref<OVClassReflection> makeReflection() {
//       auto reflection = OVClassReflection::makeReflectionOfClass(Superclass::staticClass());
//       reflection->addPropertyForSelector_objectClass(Selector::named("title"), String::staticClass());
//       reflection->addPropertyForSelector_containerClass_objectClass(
//           Selector::named("tags"), Array::staticClass(), String::staticClass());
//       return reflection;
//     }
//     ...
//   };
//   FENNICK_DEFINE_CLASS(Track) { builder.property("title", ...); ...; builder.coding(); }
//
// Such a class archives through KeyedArchiver and decodes with secure coding:
// each value is checked against its property's classes, and an archive with a
// value of another class is refused before the object sees it.
//
// Only what makeReflection registers takes part; the selector's name is the
// key-value coding key and the archive key. The reflection of a class is made
// once per process, on first demand, and cached by class name on the serial
// "reflections-management" queue (thread-safe). makeReflection runs on that
// queue, so it must never ask for a reflection itself: it builds on
// makeReflectionOfClass of its superclass, never on reflectionOfClass.
//
// A cached reflection is never changed again and may be read from any thread;
// one that a caller makes (makeReflectionOfClass, copy) is the caller's until
// it is handed over.
#include "fennick/Helpers/Data/OVPropertyReflection.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Collections/Set.h"

namespace fennick {

class OVClassReflection : public Object {
  FENNICK_DECLARE_CLASS(OVClassReflection, Object)

 public:
  /// An empty reflection. Only makeReflection implementations and copy()
  /// should make them.
  static Ref<OVClassReflection> initPrivate();

  // -- Class operations ---------------------------------------------------------------
  /// A new reflection of `cls`: its (or its nearest ancestor's) static
  /// makeReflection(), or an empty reflection when no class up the chain
  /// declares one. Not cached; this is what a makeReflection builds on.
  static Ref<OVClassReflection> makeReflectionOfClass(const Class* cls);
  /// The cached reflection of `cls`, made on first demand with its
  /// makeReflection() (called once per class and process); nil when that
  /// gave nil. Must not be called from a makeReflection.
  static Ref<OVClassReflection> reflectionOfClass(const Class* cls);
  template <class T>
  static Ref<OVClassReflection> reflectionOf() {
    return reflectionOfClass(T::staticClass());
  }

  // -- Registration ---------------------------------------------------------------------
  /// Registers the property named by `selector` with one allowed class.
  void addPropertyForSelector_objectClass(Selector selector, const Class* objectClass);
  /// A container property whose members are of one class.
  void addPropertyForSelector_containerClass_objectClass(Selector selector, const Class* containerClass,
                                                         const Class* objectClass);
  void addPropertyForSelector_objectClasses_defaultValue_valueTransformer(
      Selector selector, const ClassList& objectClasses, const Id& defaultValue,
      const Ref<ValueTransformer>& valueTransformer);
  void addPropertyForSelector_containerClass_objectClasses_defaultValue_valueTransformer(
      Selector selector, const Class* containerClass, const ClassList& objectClasses, const Id& defaultValue,
      const Ref<ValueTransformer>& valueTransformer);

  // -- Reading ----------------------------------------------------------------------------
  /// The property reflections, one per key. Registering a key again keeps the
  /// first reflection here (coding and prototype copying use it) while the
  /// dictionary below, and propertyReflectionForKey, answer the second.
  const Ref<Set>& mutablePropertyReflections() const noexcept { return reflections_; }
  const Ref<Dictionary>& mutablePropertyReflectionsByKey() const noexcept { return reflectionsByKey_; }
  /// An immutable copy of the set.
  Ref<Set> propertyReflections() const;
  Ref<OVPropertyReflection> propertyReflectionForKey(std::string_view key) const;

  // -- Operations ---------------------------------------------------------------------------
  /// Sets each reflected property of `object` (key-value coding) to its
  /// decoded value. An unknown key throws the undefined-key Exception.
  void decodeObject_withDecoder(Object& object, Coder& decoder) const;
  /// Encodes each reflected property of `object` (key-value coding).
  void encodeObject_withEncoder(const Object& object, Coder& encoder) const;
  /// Sets each reflected property of `object` to the prototype's value (the
  /// same reference: a shallow copy, no transformer, no default).
  void setupPropertiesOfObject_withPrototype(Object& object, const Object& prototype) const;

  /// A new reflection sharing this one's property reflections, to be
  /// extended separately.
  Id copy() const override;
  std::string description() const override;

 protected:
  OVClassReflection();

 private:
  void addPropertyReflection(Selector selector, ClassList classes, const Id& defaultValue,
                             const Ref<ValueTransformer>& valueTransformer);

  Ref<Set> reflections_;
  Ref<Dictionary> reflectionsByKey_;
};

/// Gives a class encodeWithCoder/initWithCoder that code its reflected
/// properties (use inside the class body; declare coding in describeClass).
#define FENNICK_REFLECTION_CODING()                                                             \
 public:                                                                                        \
  void encodeWithCoder(::fennick::Coder& coder) const override {                                \
    if (auto reflection = ::fennick::OVClassReflection::reflectionOfClass(objectClass()))       \
      reflection->encodeObject_withEncoder(*this, coder);                                       \
  }                                                                                             \
  void initWithCoder(::fennick::Coder& coder) override {                                        \
    if (auto reflection = ::fennick::OVClassReflection::reflectionOfClass(objectClass()))       \
      reflection->decodeObject_withDecoder(*this, coder);                                       \
  }

}  // namespace fennick
