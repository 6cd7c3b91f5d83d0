#pragma once
// The outcome of one run of a proactor action: named values, with the error,
// by convention, under "error".
//
// Threading: an action's current result is touched only on the proactor's
// internal queue, through the action's accessors. The copies handed to
// completion handlers belong to the handlers: nobody else changes them, and
// they are not synchronised, so a handler that shares one between threads
// guards it itself.
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/ObjectModel/Object.h"

namespace fennick {

class OVProactorAction;

class OVProactorResult : public Object {
  FENNICK_DECLARE_CLASS(OVProactorResult, Object)

 public:
  /// An empty result of `action`, taking the action's delegate.
  static Ref<OVProactorResult> initWithAction(const Ref<OVProactorAction>& action);

  /// The action this result belongs to.
  Ref<OVProactorAction> action() const;
  /// The action's delegate as it was when the result was made.
  Id delegate() const;
  const Ref<Dictionary>& objectsByKey() const { return objectsByKey_; }
  Id objectForKey(const Id& key) const;
  Id objectForKeyedSubscript(const Id& key) const { return objectForKey(key); }
  /// Ignores a nil object or key.
  void setObject_forKey(const Id& object, const Id& key);
  /// Whatever is stored under "error", unchecked: work that stores something
  /// other than an Error there gets it back as it is.
  Id error() const;
  /// A new result for the same action with a shallow copy of the values. The
  /// copy holds the action and the delegate strongly.
  Id copy() const override;

 protected:
  OVProactorResult() = default;

 private:
  // The action keeps its current result, and the delegate usually owns the
  // proactor that owns the action: that result points back weakly so that
  // neither cycle keeps anything alive. Copies, which only handlers hold,
  // hold both strongly.
  WeakRef<OVProactorAction> weakAction_;
  WeakRef<Object> weakDelegate_;
  Ref<OVProactorAction> action_;
  Id delegate_;
  Ref<Dictionary> objectsByKey_;
};

}  // namespace fennick
