#pragma once
// One unit of coalesced work of a proactor group: the single action that
// every request for an equal argument receives.
//
// Life cycle: idle (0) → start → running (1): the group's handler runs on the
// invocation queue and calls complete() when done → completing (2): the
// completion hooks run one after another, each calling complete() → completed
// (3): every completion handler receives one shared copy of the result. reset()
// returns a completed action to idle with a fresh result; restart() is start()
// from idle and reset-then-start from completed. Calls that do not fit the
// state (start while running, complete while idle, reset unless completed) are
// ignored.
//
// Threading: every operation may be called from any thread, and the action is
// thread-safe. Each change happens on the proactor's internal queue:
//  - start, restart, complete, reset and addCompletionHandler submit
//    asynchronously and return at once; their effect is in place once the
//    queue has run them, in the order they were submitted;
//  - addCompletionHook, setObject_forKey, objectForKey, updateWithBlock,
//    setError, error, isRunning and isCompleted run synchronously on the
//    queue, so each sees every asynchronous call made before it by the same
//    thread. They must not be called from the internal queue itself: that
//    aborts the process with a message naming the queue.
// The work, the hooks and the completion handlers run on
// OVProactor::invocationQueue() (the global utility queue), never on the
// internal queue, so they may call any operation.
//
// Errors: the proactor reports none of its own. The work stores its failure
// in the result (setError, or any value under "error"), and every completion
// handler reads it from the result it receives.
#include "fennick/Dispatch/Queue.h"
#include "fennick/Helpers/Proactor/OVProactorResult.h"
#include "fennick/Helpers/Coordination/OVStateMachine.h"
#include "fennick/Runtime/Errors/Error.h"

#include <functional>
#include <optional>
#include <vector>

namespace fennick {

class OVProactorGroup;

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

class OVProactorAction : public Object {
  FENNICK_DECLARE_CLASS(OVProactorAction, Object)

 public:
  /// An action without a group: it has no queue and runs every operation in
  /// place, so its caller serialises it.
  static Ref<OVProactorAction> init();
  static Ref<OVProactorAction> initWithGroup_argument(const Ref<OVProactorGroup>& group, const Id& argument);

  const Id& argument() const { return argument_; }
  Ref<OVProactorGroup> group() const { return group_.lock(); }
  /// The proactor's delegate when the action was made (held weakly).
  Id delegate() const { return delegate_.lock(); }
  const Ref<dispatch::Queue>& internalQueue() const { return internalQueue_; }
  const Ref<OVStateMachine>& stateMachine() const { return stateMachine_; }
  /// The group's identifier.
  Id groupID() const;

  /// A fresh empty result and empty handler and hook lists. Internal queue only.
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
  /// a copy of the outcome. To an idle action the handler is added on a later
  /// turn of the queue, and it starts the action if the group says so; should
  /// the action complete in between, the handler is dropped.
  void addCompletionHandler(OVProactorCompletionHandler handler);
  /// Adds a hook (synchronously: it is registered when the call returns). A
  /// hook runs between completion and delivery and must call complete().
  void addCompletionHook(OVProactorCompletionHook hook);

  // Synchronous on the internal queue: values of the current result.
  void setObject_forKey(const Id& object, const Id& key);
  void setObject_forKeyedSubscript(const Id& object, const Id& key) { setObject_forKey(object, key); }
  Id objectForKey(const Id& key);
  Id objectForKeyedSubscript(const Id& key) { return objectForKey(key); }
  /// Calls the block with the current result's values, to change several at
  /// once. The block runs on the internal queue and must not call back into
  /// the proactor.
  void updateWithBlock(const std::function<void(const Ref<Dictionary>&)>& block);
  /// Stores a copy under "error"; nil leaves an earlier error in place.
  void setError(const Ref<Error>& error);
  /// The value under "error" if it is an Error, else nil.
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
  Ref<OVProactorAction> strongSelf() { return std::static_pointer_cast<OVProactorAction>(self()); }
  void perform(OVProactorActionEvent event, const Ref<Dictionary>& userInfo = nullptr);
  void submit(OVProactorActionEvent event);
  // On the internal queue; in place for an action made without a group.
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

}  // namespace fennick
