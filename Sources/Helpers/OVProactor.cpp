#include "fennick/Helpers/OVProactor.h"

#include "fennick/FoundationExtensions/OVDispatchQueue.h"
#include "fennick/Runtime/BlockObject.h"
#include "fennick/Runtime/Null.h"
#include "fennick/Runtime/Number.h"

namespace fennick {

namespace {

constexpr const char* kCompletionHandlerKey = "completionHandler";
constexpr const char* kCompletionHookKey = "completionHook";
constexpr const char* kErrorKey = "error";

Id number(std::int64_t value) { return Number::numberWithInteger(value); }

const Ref<String>& completionHandlerKey() {
  static const Ref<String>& key = *new Ref<String>(String::string(kCompletionHandlerKey));
  return key;
}
const Ref<String>& completionHookKey() {
  static const Ref<String>& key = *new Ref<String>(String::string(kCompletionHookKey));
  return key;
}
const Ref<String>& errorKey() {
  static const Ref<String>& key = *new Ref<String>(String::string(kErrorKey));
  return key;
}

// A one-entry user info, frozen so that the state machine need not copy it.
Ref<Dictionary> userInfoWith(const Ref<String>& key, Id value) {
  auto info = Dictionary::dictionaryWithCapacity(1);
  info->setObject_forKey(value, key);
  info->makeImmutable();
  return info;
}

Ref<OVProactorAction> actionOf(const Ref<OVStateMachineTransitionInfo>& info) {
  return OVProactorAction::castObject(info->target());
}

template <class Signature>
std::function<Signature> callbackIn(const Ref<OVStateMachineTransitionInfo>& info, const Ref<String>& key) {
  auto box = BlockObject::dynamicCastObject(info->userInfo() ? info->userInfo()->objectForKey(key) : nullptr);
  const auto* function = box ? box->function<Signature>() : nullptr;
  return function ? *function : nullptr;
}

}  // namespace

FENNICK_DEFINE_CLASS(OVProactor) {}
FENNICK_DEFINE_CLASS(OVProactorGroup) {}
FENNICK_DEFINE_CLASS(OVProactorAction) {}
FENNICK_DEFINE_CLASS(OVProactorResult) {}

// -- Proactor ------------------------------------------------------------------------

OVProactor::OVProactor() : internalQueue_(OVBuildInternalDispatchQueue("Proactor")) {}

Ref<dispatch::Queue> OVProactor::invocationQueue() { return dispatch::global(QOS_CLASS_UTILITY); }

Ref<OVProactor> OVProactor::init() { return initWithDelegate(nullptr); }

Ref<OVProactor> OVProactor::initWithDelegate(const Id& delegate) {
  auto proactor = make<OVProactor>();
  proactor->delegate_ = delegate;
  return proactor;
}

Id OVProactor::delegate() const {
  std::lock_guard lock(delegateMutex_);
  return delegate_.lock();
}

void OVProactor::setDelegate(const Id& delegate) {
  std::lock_guard lock(delegateMutex_);
  delegate_ = delegate;
}

Ref<OVProactorGroup> OVProactor::addGroupWithID_startsActionAutomatically_handlerBlock(
    const Id& identifier, bool startsActionAutomatically, OVProactorHandler handler) {
  auto group = OVProactorGroup::initWithIdentifier_proactor_startsActionAutomatically_handlerBlock(
      identifier, std::static_pointer_cast<OVProactor>(self()), startsActionAutomatically,
      std::move(handler));
  internalQueue_->sync([&] { groupsByID_->setObject_forKey(group, identifier); });
  return group;
}

Ref<OVProactorGroup> OVProactor::addGroupWithID_startsActionAutomatically_delegateHandlerSelector(
    const Id& identifier, bool startsActionAutomatically, Selector selector) {
  OVProactorHandler handler = [selector](const Ref<OVProactorAction>& action) {
    auto group = action->group();
    auto proactor = group ? group->proactor() : nullptr;
    Id delegate = proactor ? proactor->delegate() : nullptr;
    if (!delegate) return;
    invocationQueue()->async([delegate, selector, action] { delegate->performSelector(selector, action); });
  };
  return addGroupWithID_startsActionAutomatically_handlerBlock(identifier, startsActionAutomatically,
                                                               std::move(handler));
}

Ref<OVProactorGroup> OVProactor::groupWithID(const Id& identifier) const {
  return internalQueue_->sync(
      [&] { return OVProactorGroup::castObject(groupsByID_->objectForKey(identifier)); });
}

// -- Group ---------------------------------------------------------------------------

OVProactorGroup::OVProactorGroup(Id identifier, const Ref<OVProactor>& proactor,
                                 bool startsActionAutomatically, OVProactorHandler handler)
    : identifier_(identifier ? identifier->copy() : nullptr),
      proactor_(proactor),
      startsActionAutomatically_(startsActionAutomatically),
      handlerBlock_(std::move(handler)),
      internalQueue_(proactor ? proactor->internalQueue() : nullptr) {}

Ref<OVProactorGroup> OVProactorGroup::initWithIdentifier_proactor_startsActionAutomatically_handlerBlock(
    const Id& identifier, const Ref<OVProactor>& proactor, bool startsActionAutomatically,
    OVProactorHandler handler) {
  return make<OVProactorGroup>(identifier, proactor, startsActionAutomatically, std::move(handler));
}

OVProactorHandler OVProactorGroup::handlerBlock() const {
  std::lock_guard lock(handlerMutex_);
  return handlerBlock_;
}

void OVProactorGroup::setHandlerBlock(OVProactorHandler handler) {
  std::lock_guard lock(handlerMutex_);
  handlerBlock_ = std::move(handler);
}

Ref<OVProactorAction> OVProactorGroup::actionForArgument(const Id& argument) {
  const Id key = argument ? argument : Id(Null::null());
  {
    std::shared_lock lock(knownActionsMutex_);
    if (auto it = knownActions_.find(key); it != knownActions_.end()) return it->second;
  }
  auto self = std::static_pointer_cast<OVProactorGroup>(Object::self());
  auto findOrMake = [&] {
    if (auto existing = OVProactorAction::castObject(actionsByArgument_->objectForKey(key))) return existing;
    auto action = OVProactorAction::initWithGroup_argument(self, key);
    actionsByArgument_->safeSetObject_forKey(action, key);
    std::unique_lock lock(knownActionsMutex_);
    knownActions_.emplace(key->copy(), action);
    return action;
  };
  // A group made without a proactor has no queue; its caller serialises it.
  return internalQueue_ ? internalQueue_->sync(findOrMake) : findOrMake();
}

// -- Action ----------------------------------------------------------------------------

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
  result_ = OVProactorResult::initWithAction(std::static_pointer_cast<OVProactorAction>(self()));
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
  auto self = std::static_pointer_cast<OVProactorAction>(Object::self());
  onQueueAsync([self, event] { self->perform(event); });
}

void OVProactorAction::start() { submit(OVProactorActionEventStart); }
void OVProactorAction::restart() { submit(OVProactorActionEventRestart); }
void OVProactorAction::complete() { submit(OVProactorActionEventComplete); }
void OVProactorAction::reset() { submit(OVProactorActionEventReset); }

void OVProactorAction::addCompletionHandler(OVProactorCompletionHandler handler) {
  auto self = std::static_pointer_cast<OVProactorAction>(Object::self());
  auto info = userInfoWith(completionHandlerKey(), BlockObject::blockWithFunction(std::move(handler)));
  onQueueAsync([self, info] { self->perform(OVProactorActionEventAddCompletionHandler, info); });
}

void OVProactorAction::addCompletionHook(OVProactorCompletionHook hook) {
  auto info = userInfoWith(completionHookKey(), BlockObject::blockWithFunction(std::move(hook)));
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

// -- The rule table --------------------------------------------------------------------

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
  auto handlerOf = [](const Info& info) {
    return callbackIn<void(const Ref<OVProactorResult>&)>(info, completionHandlerKey());
  };
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
      [handlerOf](const Info& info) { Rules::deferredAdd(actionOf(info), handlerOf(info)); });
  machine->addTransitionOnAction_fromStates_toState_handler(
      number(OVProactorActionEventAddCompletionHandler), Array::arrayWithObjects({running, completing}),
      nullptr, [handlerOf](const Info& info) { Rules::append(actionOf(info), handlerOf(info)); });
  machine->addTransitionOnAction_fromState_toState_handler(
      number(OVProactorActionEventAddCompletionHandler), completed, nullptr,
      [handlerOf](const Info& info) { Rules::lateDelivery(actionOf(info), handlerOf(info)); });
  machine->addTransitionOnAction_fromState_toState_handler(
      number(OVProactorActionEventAddCompletionHook), nullptr, nullptr, [](const Info& info) {
        Rules::appendHook(actionOf(info),
                          callbackIn<void(const Ref<OVProactorAction>&)>(info, completionHookKey()));
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

// -- Result ----------------------------------------------------------------------------

Ref<OVProactorResult> OVProactorResult::initWithAction(const Ref<OVProactorAction>& action) {
  auto result = make<OVProactorResult>();
  result->weakAction_ = action;
  result->delegate_ = action ? action->delegate() : nullptr;
  result->objectsByKey_ = Dictionary::dictionary();
  return result;
}

Ref<OVProactorAction> OVProactorResult::action() const { return action_ ? action_ : weakAction_.lock(); }

Id OVProactorResult::objectForKey(const Id& key) const { return key ? objectsByKey_->objectForKey(key) : nullptr; }

void OVProactorResult::setObject_forKey(const Id& object, const Id& key) {
  objectsByKey_->safeSetObject_forKey(object, key);
}

Ref<Error> OVProactorResult::error() const { return Error::dynamicCastObject(objectsByKey_->objectForKey(kErrorKey)); }

Id OVProactorResult::copy() const {
  auto owner = action();
  auto copy = make<OVProactorResult>();
  copy->action_ = owner;
  copy->weakAction_ = owner;
  copy->delegate_ = owner ? owner->delegate() : nullptr;
  copy->objectsByKey_ = Dictionary::castObject(objectsByKey_->mutableCopy());
  return copy;
}

}  // namespace fennick
