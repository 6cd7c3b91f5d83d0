#pragma once
// A base class for objects that broadcast events to listeners they do not
// own. A subclass adds its own event methods and, for each event, calls
// listenToBlock with a callback that sends the event to one listener.
//
// The router keeps each listener in an unowned holder: it never keeps a
// listener alive. A listener should remove itself (removeListner) before it is
// destroyed; one destroyed while still registered is skipped by listenToBlock,
// but its entry stays until it is removed.
//
// The router has no queue of its own: its owner uses it from one thread or
// queue. (The misspelt names are the interface's own and are kept.)
#include "fennick/Runtime/ObjectModel/Object.h"

#include <functional>

namespace fennick {

class Set;

/// What a router's subclasses consult; they define its operations.
class OVBaseRouterValidator {
 public:
  virtual ~OVBaseRouterValidator() = default;
};

class OVBaseRouter : public Object {
  FENNICK_DECLARE_CLASS(OVBaseRouter, Object)

 public:
  /// A router with no listeners.
  static Ref<OVBaseRouter> init();

  /// The validator, held weakly; the base class only stores it.
  Ref<OVBaseRouterValidator> baseValidator() const { return baseValidator_.lock(); }
  void setBaseValidator(const Ref<OVBaseRouterValidator>& validator) { baseValidator_ = validator; }

  /// The listeners, as a mutable set of unowned holders.
  const Ref<Set>& listners() const noexcept { return listners_; }
  /// Adds a listener; adding it again keeps one entry. Nil is ignored.
  void addListner(const Id& listener);
  /// Removes a listener; an absent one (or nil) is ignored.
  void removeListner(const Id& listener);
  /// Calls `callback` synchronously, on the calling thread, once per live
  /// listener. It walks a copy of the listener set, so the callback may add
  /// and remove listeners (its own included) without disturbing the walk.
  void listenToBlock(const std::function<void(const Id& listener)>& callback) const;

 protected:
  OVBaseRouter();

 private:
  WeakRef<OVBaseRouterValidator> baseValidator_;
  const Ref<Set> listners_;
};

}  // namespace fennick
