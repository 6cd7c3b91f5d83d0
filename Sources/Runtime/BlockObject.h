#pragma once
// A callback as a runtime object, so that callbacks can travel where objects
// do (in dictionaries and arrays). Immutable: copy() returns the receiver.
#include "fennick/Runtime/Object.h"

#include <any>
#include <functional>

namespace fennick {

class BlockObject : public Object {
  FENNICK_DECLARE_CLASS(BlockObject, Object)

 public:
  /// Boxes a std::function (kept as a copy).
  template <class Signature>
  static Ref<BlockObject> blockWithFunction(std::function<Signature> function) {
    return make<BlockObject>(std::any(std::move(function)));
  }
  /// The boxed function if it has this signature, else nullptr.
  template <class Signature>
  const std::function<Signature>* function() const {
    return std::any_cast<std::function<Signature>>(&function_);
  }

  Id copy() const override { return std::const_pointer_cast<Object>(self()); }

 protected:
  explicit BlockObject(std::any function) : function_(std::move(function)) {}

 private:
  const std::any function_;
};

}  // namespace fennick
