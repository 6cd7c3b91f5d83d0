#pragma once
// A callback as a runtime object, so that callbacks can travel where objects
// do (in dictionaries and arrays). Immutable: copy() returns the receiver.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <functional>
#include <typeinfo>

namespace fennick {

class BlockObject : public Object {
  FENNICK_DECLARE_CLASS(BlockObject, Object)

 public:
  /// Boxes a std::function (kept as a copy).
  template <class Signature>
  static Ref<BlockObject> blockWithFunction(std::function<Signature> function);
  /// The boxed function if it has this signature, else nullptr.
  template <class Signature>
  const std::function<Signature>* function() const {
    return signature() == typeid(Signature) ? &static_cast<const Typed<Signature>*>(this)->function_
                                            : nullptr;
  }

  Id copy() const override { return std::const_pointer_cast<Object>(self()); }

 protected:
  BlockObject() = default;

 private:
  template <class Signature>
  class Typed;
  virtual const std::type_info& signature() const = 0;
};

// One allocation per box: the function lives in the object.
template <class Signature>
class BlockObject::Typed final : public BlockObject {
 public:
  explicit Typed(std::function<Signature> function) : function_(std::move(function)) {}
  const std::function<Signature> function_;

 private:
  const std::type_info& signature() const override { return typeid(Signature); }
};

template <class Signature>
Ref<BlockObject> BlockObject::blockWithFunction(std::function<Signature> function) {
  return std::make_shared<Typed<Signature>>(std::move(function));
}

}  // namespace fennick
