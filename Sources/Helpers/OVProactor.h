#pragma once
// The proactor runs asynchronous work once per distinct request and fans the
// outcome out to everyone who asked for it.
//
// Work is organised in groups, each with an identifier and one handler that
// performs the work for an argument. Within a group there is one action per
// argument: every request for an equal argument gets the same OVProactorAction,
// so duplicate requests are coalesced into one run. Requesters attach
// completion handlers (they receive the outcome) and completion hooks (they
// run one after another between the end of the work and the delivery).
//
// Queues: every state change happens on the proactor's serial internal queue;
// the work, the hooks, the completion handlers and delegate calls run on
// invocationQueue(), the global utility queue. The synchronous reads
// (groupWithID, actionForArgument, objectForKey, isRunning, isCompleted) must
// not be called from the internal queue itself.
#include "fennick/Dispatch/Queue.h"
#include "fennick/Helpers/OVStateMachine.h"
#include "fennick/Runtime/Dictionary.h"
#include "fennick/Runtime/Error.h"
#include "fennick/Runtime/Object.h"

#include <functional>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

namespace fennick {

class OVProactorAction;
class OVProactorGroup;
class OVProactorResult;

/// States of an action's machine.
enum OVProactorActionState : std::int64_t {
  OVProactorActionStateIdle = 0,        // made or reset, work not started
  OVProactorActionStateRunning = 1,     // the group's handler has been dispatched
  OVProactorActionStateCompleting = 2,  // the work completed; hooks are running
  OVProactorActionStateCompleted = 3,   // the outcome was delivered
};
/// Actions of an action's machine.
enum OVProactorActionEvent : std::int64_t {
  OVProactorActionEventStart = 0,
  OVProactorActionEventRestart = 1,
  OVProactorActionEventComplete = 2,
  OVProactorActionEventFinish = 3,
  OVProactorActionEventAddCompletionHandler = 4,
  OVProactorActionEventAddCompletionHook = 5,
  OVProactorActionEventReset = 6,
};

using OVProactorHandler = std::function<void(const Ref<OVProactorAction>&)>;
using OVProactorCompletionHandler = std::function<void(const Ref<OVProactorResult>&)>;
using OVProactorCompletionHook = std::function<void(const Ref<OVProactorAction>&)>;

/// The delegate receives handler selectors (methods registered in its class
/// that take the action as their one argument); the proactor calls nothing
/// else on it.
class OVProactor : public Object {
  FENNICK_DECLARE_CLASS(OVProactor, Object)

 public:
  /// The global utility queue, where handlers, hooks, completions and delegate
  /// calls run.
  static Ref<dispatch::Queue> invocationQueue();
  static Ref<OVProactor> init();
  /// The delegate is held weakly.
  static Ref<OVProactor> initWithDelegate(const Id& delegate);

  Id delegate() const;
  void setDelegate(const Id& delegate);
  const Ref<dispatch::Queue>& internalQueue() const { return internalQueue_; }

  /// Makes a group (on the calling thread) and stores it under the identifier,
  /// replacing any group stored under an equal identifier.
  Ref<OVProactorGroup> addGroupWithID_startsActionAutomatically_handlerBlock(
      const Id& identifier, bool startsActionAutomatically, OVProactorHandler handler);
  /// The same with a handler that calls `selector` on the proactor's delegate
  /// of the moment with the action, on the invocation queue; without a
  /// delegate the work never starts (the action stays running until completed).
  Ref<OVProactorGroup> addGroupWithID_startsActionAutomatically_delegateHandlerSelector(
      const Id& identifier, bool startsActionAutomatically, Selector selector);
  /// The group stored under the identifier, or nil.
  Ref<OVProactorGroup> groupWithID(const Id& identifier) const;
  Ref<OVProactorGroup> objectForKeyedSubscript(const Id& identifier) const { return groupWithID(identifier); }

 protected:
  OVProactor();

 private:
  mutable std::mutex delegateMutex_;
  WeakRef<Object> delegate_;
  const Ref<dispatch::Queue> internalQueue_;
  const Ref<Dictionary> groupsByID_ = Dictionary::dictionary();  // internal queue only
};

class OVProactorGroup : public Object {
  FENNICK_DECLARE_CLASS(OVProactorGroup, Object)

 public:
  static Ref<OVProactorGroup> initWithIdentifier_proactor_startsActionAutomatically_handlerBlock(
      const Id& identifier, const Ref<OVProactor>& proactor, bool startsActionAutomatically,
      OVProactorHandler handler);

  const Id& identifier() const { return identifier_; }
  Ref<OVProactor> proactor() const { return proactor_.lock(); }
  bool startsActionAutomatically() const { return startsActionAutomatically_.load(); }
  void setStartsActionAutomatically(bool value) { startsActionAutomatically_.store(value); }
  OVProactorHandler handlerBlock() const;
  void setHandlerBlock(OVProactorHandler handler);
  const Ref<dispatch::Queue>& internalQueue() const { return internalQueue_; }

  /// The one action for the argument (nil stands for the null marker), made on
  /// first request. Asking never starts it.
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
  // Actions are never removed from a group, so an action found here is the
  // one the queue would answer: repeat requests need not wait behind the
  // queue's backlog. Written on the internal queue when an action is made.
  mutable std::shared_mutex knownActionsMutex_;
  std::unordered_map<Id, Ref<OVProactorAction>, IdHash, IdEqual> knownActions_;
};

class OVProactorAction : public Object {
  FENNICK_DECLARE_CLASS(OVProactorAction, Object)

 public:
  static Ref<OVProactorAction> init();
  static Ref<OVProactorAction> initWithGroup_argument(const Ref<OVProactorGroup>& group, const Id& argument);

  const Id& argument() const { return argument_; }
  Ref<OVProactorGroup> group() const { return group_.lock(); }
  Id delegate() const { return delegate_.lock(); }
  const Ref<dispatch::Queue>& internalQueue() const { return internalQueue_; }
  const Ref<OVStateMachine>& stateMachine() const { return stateMachine_; }
  /// The group's identifier.
  Id groupID() const;

  /// A fresh empty result and empty handler and hook lists.
  void setup();
  // Asynchronous: each takes effect when the internal queue runs it.
  void start();
  void restart();
  /// Reports the work (or a hook) done.
  void complete();
  /// Returns a completed action to idle with a fresh result.
  void reset();
  /// Adds a handler for the outcome (asynchronously: it may not be registered
  /// when the call returns). After delivery, a handler is called at once with
  /// a copy of the outcome.
  void addCompletionHandler(OVProactorCompletionHandler handler);
  /// Adds a hook (synchronously: it is registered when the call returns). A
  /// hook runs between completion and delivery and must call complete().
  void addCompletionHook(OVProactorCompletionHook hook);

  // Synchronous on the internal queue: values of the current result.
  void setObject_forKey(const Id& object, const Id& key);
  void setObject_forKeyedSubscript(const Id& object, const Id& key) { setObject_forKey(object, key); }
  Id objectForKey(const Id& key);
  Id objectForKeyedSubscript(const Id& key) { return objectForKey(key); }
  /// Calls the block with the current result's values, to change several at once.
  void updateWithBlock(const std::function<void(const Ref<Dictionary>&)>& block);
  /// Stores a copy under "error"; nil leaves an earlier error in place.
  void setError(const Ref<Error>& error);
  Ref<Error> error();
  /// Running (the handler was dispatched), not while hooks run.
  bool isRunning();
  bool isCompleted();

 protected:
  OVProactorAction() = default;

 private:
  friend void OVProactorAction_setupStateMachine(const Ref<OVProactorAction>& action);
  friend void OVProactorAction_start(const Ref<OVProactorAction>& action);
  friend void OVProactorAction_reset(const Ref<OVProactorAction>& action);
  friend struct ProactorRules;
  void perform(OVProactorActionEvent event, const Ref<Dictionary>& userInfo = nullptr);
  void submit(OVProactorActionEvent event);
  // On the internal queue; inline for an action made without a group (and so
  // without a queue).
  template <class F>
  decltype(auto) onQueueSync(F&& f) {
    if (!internalQueue_) return f();
    return internalQueue_->sync(std::forward<F>(f));
  }
  void onQueueAsync(dispatch::Block block);
  bool stateIs(OVProactorActionState state);

  Id argument_;
  WeakRef<OVProactorGroup> group_;
  WeakRef<Object> delegate_;
  Ref<dispatch::Queue> internalQueue_;
  // All of the below: internal queue only.
  Ref<OVProactorResult> result_;
  std::optional<std::vector<OVProactorCompletionHandler>> completionHandlers_;
  std::vector<OVProactorCompletionHook> completionHooks_;
  Ref<OVStateMachine> stateMachine_;
};

/// The outcome of one run: named values, the error under "error".
class OVProactorResult : public Object {
  FENNICK_DECLARE_CLASS(OVProactorResult, Object)

 public:
  static Ref<OVProactorResult> initWithAction(const Ref<OVProactorAction>& action);

  /// The action this result belongs to.
  Ref<OVProactorAction> action() const;
  const Id& delegate() const { return delegate_; }
  const Ref<Dictionary>& objectsByKey() const { return objectsByKey_; }
  Id objectForKey(const Id& key) const;
  Id objectForKeyedSubscript(const Id& key) const { return objectForKey(key); }
  /// Ignores a nil object or key.
  void setObject_forKey(const Id& object, const Id& key);
  /// The value under "error".
  Ref<Error> error() const;
  /// A new result for the same action with a shallow copy of the values.
  Id copy() const override;

 protected:
  OVProactorResult() = default;

 private:
  // The action's own current result points back weakly, so that an action and
  // its result do not keep each other alive for ever; copies handed to
  // completion handlers hold the action strongly.
  WeakRef<OVProactorAction> weakAction_;
  Ref<OVProactorAction> action_;
  Id delegate_;
  Ref<Dictionary> objectsByKey_;
};

/// Installs the action's rule table.
void OVProactorAction_setupStateMachine(const Ref<OVProactorAction>& action);
/// Dispatches the group's handler with the action on the invocation queue.
void OVProactorAction_start(const Ref<OVProactorAction>& action);
/// setup(): fresh result, handler and hook lists.
void OVProactorAction_reset(const Ref<OVProactorAction>& action);

}  // namespace fennick
