#pragma once
// A small table-driven state machine. Its owner (the target) registers rules
// (transitions) that name an action, an optional source state, an optional
// destination and an optional handler, then drives the machine with actions:
// every matching rule contributes to the new state and to the callbacks, the
// state changes once, and then the callbacks run.
//
// States and actions are any copyable runtime objects (strings, in practice);
// the machine stores copies. A rule without a handler can still reach code on
// the target by name: for a string action "start" the target's method
// "startWithTransitionInfo:" (called with the info) or, failing that,
// "startWithInfo:" (called with the action's userInfo dictionary).
//
// Threading: not thread-safe. The machine takes no locks and owns no queue;
// every operation and every callback runs synchronously on the calling
// thread, and the owner serialises access (one queue or one thread per
// machine; the proactor drives its actions' machines on its internal queue).
// Since it owns no queue, no call is barred from any queue: callbacks may add
// and remove rules and perform nested actions on the machine itself.
//
// Errors: none. An action that matches no rule leaves the state as it is;
// removing an unknown handle answers false. Exceptions thrown by callbacks or
// target methods propagate to the caller of performAction_userInfo, and the
// callbacks after the throwing one do not run (the state has already moved).
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/UUID.h"

#include <functional>
#include <memory>
#include <string_view>
#include <vector>

namespace fennick {

class OVStateMachine;

/// One performed action, as callbacks see it. Each callback gets its own
/// copy, whose handle() is the handle of the rule being served.
class OVStateMachineTransitionInfo : public Object {
  FENNICK_DECLARE_CLASS(OVStateMachineTransitionInfo, Object)

 public:
  /// The machine's target when the action started (kept alive by the info).
  const Id& target() const noexcept { return target_; }
  const Ref<OVStateMachine>& stateMachine() const noexcept { return stateMachine_; }
  /// The handle of the rule whose callback receives this info; nil in the
  /// info given to the target's final notification.
  const Ref<UUID>& handle() const noexcept { return handle_; }
  const Id& action() const noexcept { return action_; }
  /// The machine's state when the action started.
  const Id& fromState() const noexcept { return fromState_; }
  /// Where the whole action led: the destination of the last matching rule
  /// that names one, or nil when none does.
  const Id& toState() const noexcept { return toState_; }
  /// An immutable copy of what the caller passed with the action (may be nil).
  const Ref<Dictionary>& userInfo() const noexcept { return userInfo_; }

  /// Removes this info's rule from its machine, making the rule one-shot when
  /// called from its own callback. Answers whether a rule was removed.
  bool removeTransition() const;

  /// A new info with the same seven properties.
  Id copy() const override;
  std::string description() const override;

 protected:
  OVStateMachineTransitionInfo() = default;

 private:
  friend class OVStateMachine;
  void clear() {
    target_ = nullptr;
    stateMachine_ = nullptr;
    handle_ = nullptr;
    action_ = fromState_ = toState_ = nullptr;
    userInfo_ = nullptr;
  }
  Id target_;
  Ref<OVStateMachine> stateMachine_;
  Ref<UUID> handle_;
  Id action_;
  Id fromState_;
  Id toState_;
  Ref<Dictionary> userInfo_;
};

/// A rule's callback.
using OVStateMachineHandler = std::function<void(const Ref<OVStateMachineTransitionInfo>&)>;

/// One registered rule. Equality compares action, source and destination
/// (nil-safe); the handle and the handler take no part in it.
class OVStateMachineTransition : public Object {
  FENNICK_DECLARE_CLASS(OVStateMachineTransition, Object)

 public:
  /// The rule's identity, used to remove it.
  const Ref<UUID>& handle() const noexcept { return handle_; }
  /// The triggering action; nil matches any action.
  const Id& action() const noexcept { return action_; }
  /// The state in which the rule applies; nil matches any state.
  const Id& fromState() const noexcept { return fromState_; }
  /// The destination; nil leaves the state as it is.
  const Id& toState() const noexcept { return toState_; }
  const OVStateMachineHandler& handler() const noexcept { return handler_; }

  bool isEqual(const Object* other) const override;
  std::size_t hash() const override;
  std::string description() const override;

 protected:
  OVStateMachineTransition(Ref<UUID> handle, Id action, Id fromState, Id toState,
                           OVStateMachineHandler handler);

 private:
  friend class OVStateMachine;  // scans with the hashes kept below
  Ref<UUID> handle_;
  Id action_;
  Id fromState_;
  Id toState_;
  OVStateMachineHandler handler_;
  std::size_t actionHash_ = 0;
  std::size_t fromStateHash_ = 0;
};

/// What a machine's target may implement. The machine finds the methods in
/// the target's class method table, by selector name, so a target class
/// registers them with its ClassBuilder:
///
///   class Downloader : public Object, public OVStateMachineTarget { ... };
///   FENNICK_DEFINE_CLASS(Downloader) {
///     OVStateMachineTarget::registerDidPerformTransiton(builder);
///     builder.method("startWithTransitionInfo:", &Downloader::startWithTransitionInfo);
///     builder.method("cancelWithInfo:", &Downloader::cancelWithInfo);
///   }
///
/// Name-based methods take exactly one object argument: the info for
/// "<action>WithTransitionInfo:", the action's userInfo dictionary (maybe nil)
/// for "<action>WithInfo:".
class OVStateMachineTarget {
 public:
  /// The selector of the final notification. The spelling (no second "i" in
  /// "Transiton") is the one targets are matched by; keep it.
  static constexpr std::string_view kDidPerformTransitonSelectorName =
      "stateMachine:didPerformTransiton:affectedHandles:";
  static Selector didPerformTransitonSelector();
  /// "<action>WithTransitionInfo:".
  static Selector transitionInfoSelectorForAction(std::string_view action);
  /// "<action>WithInfo:".
  static Selector infoSelectorForAction(std::string_view action);

  virtual ~OVStateMachineTarget() = default;

  /// Called after every performed action, also when no rule matched, with the
  /// machine, the action's info (nil handle) and the handles of the rules whose
  /// callbacks ran, in order. Only called once registered (below).
  virtual void stateMachine_didPerformTransiton_affectedHandles(
      Ref<OVStateMachine> stateMachine, Ref<OVStateMachineTransitionInfo> info,
      Ref<Array> affectedHandles) = 0;

  /// Enters stateMachine_didPerformTransiton_affectedHandles in T's method
  /// table under the final notification's selector.
  template <class T>
  static void registerDidPerformTransiton(ClassBuilder<T>& builder) {
    builder.method(kDidPerformTransitonSelectorName,
                   [](T& self, Ref<OVStateMachine> machine, Ref<OVStateMachineTransitionInfo> info,
                      Ref<Array> handles) {
                     self.stateMachine_didPerformTransiton_affectedHandles(
                         std::move(machine), std::move(info), std::move(handles));
                   });
  }
};

class OVStateMachine : public Object {
  FENNICK_DECLARE_CLASS(OVStateMachine, Object)

 public:
  /// A machine with no target, a nil state and no rules.
  static Ref<OVStateMachine> init();
  /// A machine with no rules that holds `target` weakly (it never keeps its
  /// target alive) and starts in a copy of `initialState`. Throws Exception
  /// when the state cannot be copied.
  static Ref<OVStateMachine> initWithTarget_initialState(const Id& target, const Id& initialState);

  /// The target, or nil when it has gone away.
  Id target() const { return target_.lock(); }
  const Id& state() const noexcept { return state_; }
  /// The rules in the order they were added (an immutable snapshot).
  Ref<Array> transitions() const;

  /// Appends a rule and returns its fresh handle. Any argument may be nil: a
  /// nil action or source matches anything, a nil destination keeps the
  /// state, a nil handler falls back to the target's methods named after a
  /// string action. A rule equal to an existing one is a second rule.
  Ref<UUID> addTransitionOnAction_fromState_toState_handler(const Id& action, const Id& fromState,
                                                            const Id& toState,
                                                            OVStateMachineHandler handler = nullptr);
  /// One rule per source state, in order; returns their handles in the same
  /// order (empty for an empty or nil array).
  Ref<Array> addTransitionOnAction_fromStates_toState_handler(const Id& action,
                                                              const Ref<Array>& fromStates,
                                                              const Id& toState,
                                                              OVStateMachineHandler handler = nullptr);
  /// Removes the first rule with this handle; false when there is none.
  bool removeTransitionWithHandle(const Id& handle);

  /// Performs `action`: every rule matching the action and the current state
  /// is taken, in the order the rules were added; the state moves to the last
  /// named destination; then each rule's callback runs with its own copy of
  /// the info; finally the target, if it registered the notification, hears
  /// of the action. Callbacks may add and remove rules and perform nested
  /// actions, which start from the new state and finish before the remaining
  /// callbacks of this one run.
  void performAction_userInfo(const Id& action, const Ref<Dictionary>& userInfo = nullptr);

  std::string description() const override;

 protected:
  OVStateMachine(const Id& target, Id state);

 private:
  using Rules = std::vector<Ref<OVStateMachineTransition>>;
  // The rules are shared with the actions scanning them and copied on write:
  // a callback that adds or removes a rule leaves the list that its own
  // action walks untouched, and that list keeps every rule it holds alive.
  Rules& rulesForWriting();
  void recycle(Ref<OVStateMachineTransitionInfo> info);

  std::weak_ptr<Object> target_;
  Id state_;
  // An info that no callback kept, cleared and ready for the next action.
  Ref<OVStateMachineTransitionInfo> spareInfo_;
  std::shared_ptr<Rules> rules_;
};

}  // namespace fennick
