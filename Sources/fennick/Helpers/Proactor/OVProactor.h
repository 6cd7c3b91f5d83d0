#pragma once
// The proactor runs asynchronous work once per distinct request and fans the
// outcome out to everyone who asked for it.
//
// Work is organised in groups (OVProactorGroup), each with an identifier and
// one handler that performs the work for an argument. Within a group there is
// one action (OVProactorAction) per argument: every request for an equal
// argument gets the same action, so duplicate requests are coalesced into one
// run. Requesters attach completion handlers, which receive the outcome
// (OVProactorResult), and completion hooks, which run one after another
// between the end of the work and the delivery.
//
//   auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
//       "download"_s, true, [](const Ref<OVProactorAction>& action) {
//         ... fetch action->argument(), then:
//         action->setObject_forKey(path, "path"_s);
//         action->complete();
//       });
//   group->actionForArgument(url)->addCompletionHandler(
//       [](const Ref<OVProactorResult>& result) { ... result->objectForKey("path"_s) ... });
//
// Threading: the proactor, its groups and its actions are thread-safe. One
// serial internal queue ("com.orvane.Proactor.internal-queue") guards the
// groups, their maps of actions, every action's state and current result.
// Changes are submitted to it; the reads groupWithID, actionForArgument,
// objectForKey, isRunning and isCompleted (and the other synchronous calls
// listed in OVProactorAction.h) run synchronously on it and must not be called
// from it: that would wait forever, so the process aborts with a message
// naming the queue. The
// internal queue runs only the proactor's own code; the work, the hooks, the
// completion handlers and delegate calls run on invocationQueue() (the global
// utility queue), where every operation may be called.
//
// Errors: the proactor has none of its own. An unknown group identifier
// answers nil; calls out of order are ignored; the work reports failure as a
// value of the result, by convention the error under "error".
//
// Ownership: the proactor holds its delegate weakly and results hold it only
// while a handler has them, so a delegate may own its proactor.
#include "fennick/Helpers/Proactor/OVProactorGroup.h"

#include <mutex>

namespace fennick {

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
  /// replacing any group stored under an equal identifier. Synchronous on the
  /// internal queue.
  Ref<OVProactorGroup> addGroupWithID_startsActionAutomatically_handlerBlock(
      const Id& identifier, bool startsActionAutomatically, OVProactorHandler handler);
  /// The same with a handler that calls `selector` on the proactor's delegate
  /// of the moment with the action, on the invocation queue; without a
  /// delegate the work never starts (the action stays running until completed).
  Ref<OVProactorGroup> addGroupWithID_startsActionAutomatically_delegateHandlerSelector(
      const Id& identifier, bool startsActionAutomatically, Selector selector);
  /// The group stored under the identifier, or nil. Synchronous on the
  /// internal queue.
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

}  // namespace fennick
