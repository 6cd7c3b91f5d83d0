#include "fennick/Helpers/Proactor/OVProactorAction.h"

#include "fennick/Helpers/Proactor/OVProactor.h"
#include "fennick/Helpers/Proactor/OVProactorRuleTable.h"
#include "fennick/Runtime/ObjectModel/BlockObject.h"
#include "fennick/Runtime/Values/Number.h"

namespace fennick {

namespace {

Id number(std::int64_t value) { return Number::numberWithInteger(value); }

const Ref<String>& errorKey() {
  static const Ref<String>& key = *new Ref<String>(String::string("error"));
  return key;
}

// A one-entry user info, frozen so that the state machine need not copy it.
Ref<Dictionary> userInfoWith(const Ref<String>& key, Id value) {
  auto info = Dictionary::dictionaryWithCapacity(1);
  info->setObject_forKey(value, key);
  info->makeImmutable();
  return info;
}

}  // namespace

FENNICK_DEFINE_CLASS(OVProactorAction) {}

Ref<OVProactorAction> OVProactorAction::init() { return initWithGroup_argument(nullptr, nullptr); }

Ref<OVProactorAction> OVProactorAction::initWithGroup_argument(const Ref<OVProactorGroup>& group,
                                                               const Id& argument) {
  auto action = make<OVProactorAction>();
  action->group_ = group;
  action->argument_ = argument;
  auto proactor = group ? group->proactor() : nullptr;
  action->delegate_ = proactor ? proactor->delegate() : nullptr;
  action->stateMachine_ = OVStateMachine::initWithTarget_initialState(action, number(OVProactorActionStateIdle));
  OVProactorAction_setupStateMachine(action);
  action->internalQueue_ = group ? group->internalQueue() : nullptr;
  action->setup();
  return action;
}

Id OVProactorAction::groupID() const {
  auto owner = group();
  return owner ? owner->identifier() : nullptr;
}

void OVProactorAction::setup() {
  result_ = OVProactorResult::initWithAction(strongSelf());
  completionHandlers_.emplace();
  completionHooks_.clear();
}

void OVProactorAction::perform(OVProactorActionEvent event, const Ref<Dictionary>& userInfo) {
  stateMachine_->performAction_userInfo(number(event), userInfo);
}

void OVProactorAction::onQueueAsync(dispatch::Block block) {
  if (internalQueue_) internalQueue_->async(std::move(block));
  else block();
}

void OVProactorAction::submit(OVProactorActionEvent event) {
  onQueueAsync([self = strongSelf(), event] { self->perform(event); });
}

void OVProactorAction::start() { submit(OVProactorActionEventStart); }
void OVProactorAction::restart() { submit(OVProactorActionEventRestart); }
void OVProactorAction::complete() { submit(OVProactorActionEventComplete); }
void OVProactorAction::reset() { submit(OVProactorActionEventReset); }

void OVProactorAction::addCompletionHandler(OVProactorCompletionHandler handler) {
  auto info = userInfoWith(OVProactorCompletionHandlerKey(), BlockObject::blockWithFunction(std::move(handler)));
  onQueueAsync([self = strongSelf(), info] { self->perform(OVProactorActionEventAddCompletionHandler, info); });
}

void OVProactorAction::addCompletionHook(OVProactorCompletionHook hook) {
  auto info = userInfoWith(OVProactorCompletionHookKey(), BlockObject::blockWithFunction(std::move(hook)));
  onQueueSync([&] { perform(OVProactorActionEventAddCompletionHook, info); });
}

void OVProactorAction::setObject_forKey(const Id& object, const Id& key) {
  onQueueSync([&] { result_->setObject_forKey(object, key); });
}

Id OVProactorAction::objectForKey(const Id& key) {
  return onQueueSync([&] { return result_->objectForKey(key); });
}

void OVProactorAction::updateWithBlock(const std::function<void(const Ref<Dictionary>&)>& block) {
  onQueueSync([&] { block(result_->objectsByKey()); });
}

void OVProactorAction::setError(const Ref<Error>& error) {
  setObject_forKeyedSubscript(error ? error->copy() : nullptr, errorKey());
}

Ref<Error> OVProactorAction::error() { return Error::dynamicCastObject(objectForKey(errorKey())); }

bool OVProactorAction::stateIs(OVProactorActionState state) {
  return onQueueSync([&] { return Object::isEqualObject_toObject(stateMachine_->state(), number(state)); });
}

bool OVProactorAction::isRunning() { return stateIs(OVProactorActionStateRunning); }
bool OVProactorAction::isCompleted() { return stateIs(OVProactorActionStateCompleted); }

}  // namespace fennick
