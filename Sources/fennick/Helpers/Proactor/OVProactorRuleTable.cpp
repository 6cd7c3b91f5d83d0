#include "fennick/Helpers/Proactor/OVProactorRuleTable.h"

#include "fennick/Dispatch/OVDispatchQueue.h"
#include "fennick/Helpers/Proactor/OVProactor.h"
#include "fennick/Runtime/ObjectModel/BlockObject.h"
#include "fennick/Runtime/Values/Number.h"

namespace fennick {

namespace {

Id number(std::int64_t value) { return Number::numberWithInteger(value); }

Ref<OVProactorAction> actionOf(const Ref<OVStateMachineTransitionInfo>& info) {
  return OVProactorAction::castObject(info->target());
}

template <class Signature>
std::function<Signature> callbackIn(const Ref<OVStateMachineTransitionInfo>& info, const Ref<String>& key) {
  auto box = BlockObject::dynamicCastObject(info->userInfo() ? info->userInfo()->objectForKey(key) : nullptr);
  const auto* function = box ? box->function<Signature>() : nullptr;
  return function ? *function : nullptr;
}

OVProactorCompletionHandler handlerIn(const Ref<OVStateMachineTransitionInfo>& info) {
  return callbackIn<void(const Ref<OVProactorResult>&)>(info, OVProactorCompletionHandlerKey());
}

}  // namespace

const Ref<String>& OVProactorCompletionHandlerKey() {
  static const Ref<String>& key = *new Ref<String>(String::string("completionHandler"));
  return key;
}

const Ref<String>& OVProactorCompletionHookKey() {
  static const Ref<String>& key = *new Ref<String>(String::string("completionHook"));
  return key;
}

struct ProactorRules {
  // H: run the next hook, or finish when none is left.
  static void runNextHook(const Ref<OVProactorAction>& action) {
    OVAssertOnQueue(action->internalQueue_);
    if (action->completionHooks_.empty()) return action->perform(OVProactorActionEventFinish);
    OVProactorCompletionHook hook = std::move(action->completionHooks_.front());
    action->completionHooks_.erase(action->completionHooks_.begin());
    OVProactor::invocationQueue()->async([hook = std::move(hook), action] { hook(action); });
  }

  // D: one copy of the result for every handler added before delivery.
  static void deliver(const Ref<OVProactorAction>& action) {
    OVAssertOnQueue(action->internalQueue_);
    auto result = OVProactorResult::castObject(action->result_->copy());
    auto handlers = std::move(action->completionHandlers_);
    action->completionHandlers_.reset();
    if (!handlers) return;
    for (auto& handler : *handlers)
      OVProactor::invocationQueue()->async([handler = std::move(handler), result] { handler(result); });
  }

  // A0: the handler joins the list on a later turn of the queue, whatever the
  // state is by then (after a delivery the list is gone and it is dropped).
  static void deferredAdd(const Ref<OVProactorAction>& action, OVProactorCompletionHandler handler) {
    action->onQueueAsync([action, handler = std::move(handler)] {
      if (action->completionHandlers_) action->completionHandlers_->push_back(handler);
      auto group = action->group();
      if (group && group->startsActionAutomatically()) action->start();
    });
  }

  static void append(const Ref<OVProactorAction>& action, OVProactorCompletionHandler handler) {
    OVAssertOnQueue(action->internalQueue_);
    if (handler && action->completionHandlers_) action->completionHandlers_->push_back(std::move(handler));
  }

  static void lateDelivery(const Ref<OVProactorAction>& action, OVProactorCompletionHandler handler) {
    OVAssertOnQueue(action->internalQueue_);
    if (!handler) return;
    auto result = OVProactorResult::castObject(action->result_->copy());
    OVProactor::invocationQueue()->async([handler = std::move(handler), result] { handler(result); });
  }

  static void appendHook(const Ref<OVProactorAction>& action, OVProactorCompletionHook hook) {
    OVAssertOnQueue(action->internalQueue_);
    if (hook) action->completionHooks_.push_back(std::move(hook));
  }
};

void OVProactorAction_setupStateMachine(const Ref<OVProactorAction>& action) {
  using Info = Ref<OVStateMachineTransitionInfo>;
  using Rules = ProactorRules;
  const auto& machine = action->stateMachine_;
  const Id idle = number(OVProactorActionStateIdle), running = number(OVProactorActionStateRunning),
           completing = number(OVProactorActionStateCompleting),
           completed = number(OVProactorActionStateCompleted);
  auto startWork = [](const Info& info) { OVProactorAction_start(actionOf(info)); };

  machine->addTransitionOnAction_fromState_toState_handler(number(OVProactorActionEventStart), idle, running, startWork);
  machine->addTransitionOnAction_fromState_toState_handler(number(OVProactorActionEventRestart), idle, running, startWork);
  machine->addTransitionOnAction_fromState_toState_handler(
      number(OVProactorActionEventRestart), completed, running, [](const Info& info) {
        OVProactorAction_reset(actionOf(info));
        OVProactorAction_start(actionOf(info));
      });
  machine->addTransitionOnAction_fromStates_toState_handler(
      number(OVProactorActionEventComplete), Array::arrayWithObjects({running, completing}), completing,
      [](const Info& info) { Rules::runNextHook(actionOf(info)); });
  machine->addTransitionOnAction_fromState_toState_handler(
      number(OVProactorActionEventFinish), completing, completed,
      [](const Info& info) { Rules::deliver(actionOf(info)); });
  machine->addTransitionOnAction_fromState_toState_handler(
      number(OVProactorActionEventAddCompletionHandler), idle, nullptr,
      [](const Info& info) { Rules::deferredAdd(actionOf(info), handlerIn(info)); });
  machine->addTransitionOnAction_fromStates_toState_handler(
      number(OVProactorActionEventAddCompletionHandler), Array::arrayWithObjects({running, completing}),
      nullptr, [](const Info& info) { Rules::append(actionOf(info), handlerIn(info)); });
  machine->addTransitionOnAction_fromState_toState_handler(
      number(OVProactorActionEventAddCompletionHandler), completed, nullptr,
      [](const Info& info) { Rules::lateDelivery(actionOf(info), handlerIn(info)); });
  machine->addTransitionOnAction_fromState_toState_handler(
      number(OVProactorActionEventAddCompletionHook), nullptr, nullptr, [](const Info& info) {
        Rules::appendHook(actionOf(info),
                          callbackIn<void(const Ref<OVProactorAction>&)>(info, OVProactorCompletionHookKey()));
      });
  machine->addTransitionOnAction_fromState_toState_handler(
      number(OVProactorActionEventReset), completed, idle,
      [](const Info& info) { OVProactorAction_reset(actionOf(info)); });
}

void OVProactorAction_start(const Ref<OVProactorAction>& action) {
  OVAssertOnQueue(action->internalQueue_);
  auto group = action->group();
  OVProactorHandler handler = group ? group->handlerBlock() : nullptr;
  if (!handler) return;
  OVProactor::invocationQueue()->async([handler = std::move(handler), action] { handler(action); });
}

void OVProactorAction_reset(const Ref<OVProactorAction>& action) {
  OVAssertOnQueue(action->internalQueue_);
  action->setup();
}

}  // namespace fennick
