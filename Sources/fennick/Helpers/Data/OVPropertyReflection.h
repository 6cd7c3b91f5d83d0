#pragma once
// One property of a class reflection (see OVClassReflection.h): its key (the
// key-value coding key and the archive key), the classes a decoder may
// produce for it, a default for when decoding yields nothing, and an optional
// value transformer applied on the way into and out of the archive.
//
// Immutable after creation: copy() answers the same instance, and it may be
// read from any thread. Two property reflections are equal when their keys are.
#include "fennick/Runtime/Coding/Coder.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/Observation/ValueTransformer.h"

namespace fennick {

class OVPropertyReflection : public Object {
  FENNICK_DECLARE_CLASS(OVPropertyReflection, Object)

 public:
  /// The only initializer. `objectClasses` is kept as a set (duplicates go).
  static Ref<OVPropertyReflection> initWithKey_objectClasses_defaultValue_valueTransformer(
      std::string_view key, const ClassList& objectClasses, const Id& defaultValue,
      const Ref<ValueTransformer>& valueTransformer);

  const Ref<String>& key() const noexcept { return key_; }
  /// Every class the decoder may produce for this key, containers included.
  const ClassList& objectClasses() const noexcept { return objectClasses_; }
  const Id& defaultValue() const noexcept { return defaultValue_; }
  const Ref<ValueTransformer>& valueTransformer() const noexcept { return valueTransformer_; }

  /// The transformer's transformedValue of `value`, or `value` without one.
  Id serializedValue(const Id& value) const;
  /// The transformer's reverseTransformedValue of `value`, or `value`.
  Id deserializedValue(const Id& value) const;
  /// The value under the key, decoded securely with the object classes, then
  /// deserialized; the default value when that gives nil (an absent key, or a
  /// value the decoder refused).
  Id decodeValueFromDecoder(Coder& decoder) const;
  /// Encodes the serialized value under the key.
  void encodeValue_encoder(const Id& value, Coder& encoder) const;

  bool isEqual(const Object* other) const override;
  std::size_t hash() const override { return key_->hash(); }
  std::string description() const override;
  Id copy() const override;

 protected:
  OVPropertyReflection(Ref<String> key, ClassList objectClasses, Id defaultValue,
                       Ref<ValueTransformer> valueTransformer);

 private:
  const Ref<String> key_;
  const ClassList objectClasses_;
  const Id defaultValue_;
  const Ref<ValueTransformer> valueTransformer_;
};

}  // namespace fennick
