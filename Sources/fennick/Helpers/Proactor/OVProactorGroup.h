#pragma once
// A proactor group: one kind of work, identified by a copyable identifier,
// with one handler that performs it and at most one action per argument.
//
// Threading: thread-safe. The identifier is fixed; the handler and the
// automatic-start flag may be changed from any thread and are read when an
// action starts. The map of actions is touched only on the proactor's internal
// queue: actionForArgument runs synchronously there, for a known argument as
// for a new one, and so must not be called from that queue (it aborts the
// process with a message naming the queue).
#include "fennick/Helpers/Proactor/OVProactorAction.h"

#include <atomic>
#include <mutex>

namespace fennick {

class OVProactor;

class OVProactorGroup : public Object {
  FENNICK_DECLARE_CLASS(OVProactorGroup, Object)

 public:
  /// A group of `proactor` (held weakly), sharing its internal queue. A group
  /// made without a proactor has no queue and its caller serialises it.
  static Ref<OVProactorGroup> initWithIdentifier_proactor_startsActionAutomatically_handlerBlock(
      const Id& identifier, const Ref<OVProactor>& proactor, bool startsActionAutomatically,
      OVProactorHandler handler);

  const Id& identifier() const { return identifier_; }
  Ref<OVProactor> proactor() const { return proactor_.lock(); }
  /// When set, adding a completion handler to an idle action starts it.
  bool startsActionAutomatically() const { return startsActionAutomatically_.load(); }
  void setStartsActionAutomatically(bool value) { startsActionAutomatically_.store(value); }
  OVProactorHandler handlerBlock() const;
  void setHandlerBlock(OVProactorHandler handler);
  const Ref<dispatch::Queue>& internalQueue() const { return internalQueue_; }

  /// The one action for the argument (nil stands for the null marker), made on
  /// first request; equal arguments share it. Asking never starts it. Actions
  /// are never removed, so the action lives as long as the group.
  Ref<OVProactorAction> actionForArgument(const Id& argument);
  Ref<OVProactorAction> defaultAction() { return actionForArgument(nullptr); }
  Ref<OVProactorAction> objectForKeyedSubscript(const Id& argument) { return actionForArgument(argument); }

 protected:
  OVProactorGroup(Id identifier, const Ref<OVProactor>& proactor, bool startsActionAutomatically,
                  OVProactorHandler handler);

 private:
  const Id identifier_;
  const WeakRef<OVProactor> proactor_;
  std::atomic<bool> startsActionAutomatically_;
  mutable std::mutex handlerMutex_;
  OVProactorHandler handlerBlock_;
  const Ref<dispatch::Queue> internalQueue_;
  const Ref<Dictionary> actionsByArgument_ = Dictionary::dictionary();  // internal queue only
};

}  // namespace fennick
