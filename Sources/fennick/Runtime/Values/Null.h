#pragma once
// The null marker: the one object that stands for "no value" inside
// collections, which cannot hold nil.
#include "fennick/Runtime/ObjectModel/Object.h"

namespace fennick {

class Null : public Object {
  FENNICK_DECLARE_CLASS(Null, Object)

 public:
  /// The singleton; every call returns the same instance.
  static const Ref<Null>& null();

  Id nonNullObject() override { return nullptr; }
  std::string description() const override { return "<null>"; }
  Id copy() const override { return null(); }
  /// The null marker archives with no state and decodes as the singleton.
  void encodeWithCoder(Coder&) const override {}
  void initWithCoder(Coder&) override {}

 protected:
  Null() = default;
};

/// True for nil and for the null singleton.
inline bool isNilOrNull(const Id& object) { return !object || object == Null::null(); }

}  // namespace fennick
