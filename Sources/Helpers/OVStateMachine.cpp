#include "fennick/Helpers/OVStateMachine.h"

#include <fmt/format.h>

#include <vector>

namespace fennick {

namespace {

Id copyOrNil(const Id& object) { return object ? object->copy() : nullptr; }

std::size_t hashOrZero(const Id& object) { return object ? object->hash() : 0; }

std::string describe(const Id& object) { return object ? object->description() : "(nil)"; }

Selector selectorForAction(std::string_view action, std::string_view suffix) {
  std::string name;
  name.reserve(action.size() + suffix.size());
  name.append(action).append(suffix);
  return Selector::named(name);
}

}  // namespace

// -- OVStateMachineTransitionInfo ---------------------------------------------------

FENNICK_DEFINE_CLASS(OVStateMachineTransitionInfo) {
  builder.property("target", &OVStateMachineTransitionInfo::target);
  builder.property("stateMachine", &OVStateMachineTransitionInfo::stateMachine);
  builder.property("handle", &OVStateMachineTransitionInfo::handle);
  builder.property("action", &OVStateMachineTransitionInfo::action);
  builder.property("fromState", &OVStateMachineTransitionInfo::fromState);
  builder.property("toState", &OVStateMachineTransitionInfo::toState);
  builder.property("userInfo", &OVStateMachineTransitionInfo::userInfo);
}

bool OVStateMachineTransitionInfo::removeTransition() const {
  return stateMachine_ && stateMachine_->removeTransitionWithHandle(handle_);
}

Id OVStateMachineTransitionInfo::copy() const {
  auto info = make<OVStateMachineTransitionInfo>();
  info->target_ = target_;
  info->stateMachine_ = stateMachine_;
  info->handle_ = handle_;
  info->action_ = action_;
  info->fromState_ = fromState_;
  info->toState_ = toState_;
  info->userInfo_ = userInfo_;
  return info;
}

std::string OVStateMachineTransitionInfo::description() const {
  return fmt::format("<OVStateMachineTransitionInfo: {} --{}--> {}, handle {}>", describe(fromState_),
                     describe(action_), describe(toState_), describe(handle_));
}

// -- OVStateMachineTransition -----------------------------------------------------------

FENNICK_DEFINE_CLASS(OVStateMachineTransition) {
  builder.property("handle", &OVStateMachineTransition::handle);
  builder.property("action", &OVStateMachineTransition::action);
  builder.property("fromState", &OVStateMachineTransition::fromState);
  builder.property("toState", &OVStateMachineTransition::toState);
}

OVStateMachineTransition::OVStateMachineTransition(Ref<UUID> handle, Id action, Id fromState,
                                                   Id toState, OVStateMachineHandler handler)
    : handle_(std::move(handle)),
      action_(std::move(action)),
      fromState_(std::move(fromState)),
      toState_(std::move(toState)),
      handler_(std::move(handler)) {}

bool OVStateMachineTransition::matches(const Id& action, const Id& state) const {
  return (!action_ || action_->isEqual(action)) && (!fromState_ || fromState_->isEqual(state));
}

bool OVStateMachineTransition::isEqual(const Object* other) const {
  if (other == this) return true;
  if (!other || other->objectClass() != objectClass()) return false;
  const auto& rule = static_cast<const OVStateMachineTransition&>(*other);
  return isEqualObject_toObject(action_, rule.action_) &&
         isEqualObject_toObject(fromState_, rule.fromState_) &&
         isEqualObject_toObject(toState_, rule.toState_);
}

std::size_t OVStateMachineTransition::hash() const {
  return hashOrZero(action_) ^ hashOrZero(fromState_) ^ hashOrZero(toState_);
}

std::string OVStateMachineTransition::description() const {
  return fmt::format("<OVStateMachineTransition: {} --{}--> {}{}, handle {}>", describe(fromState_),
                     describe(action_), describe(toState_), handler_ ? " (handler)" : "",
                     describe(handle_));
}

// -- OVStateMachineTarget ------------------------------------------------------------------

Selector OVStateMachineTarget::didPerformTransitonSelector() {
  static const Selector selector = Selector::named(kDidPerformTransitonSelectorName);
  return selector;
}

Selector OVStateMachineTarget::transitionInfoSelectorForAction(std::string_view action) {
  return selectorForAction(action, "WithTransitionInfo:");
}

Selector OVStateMachineTarget::infoSelectorForAction(std::string_view action) {
  return selectorForAction(action, "WithInfo:");
}

// -- OVStateMachine ---------------------------------------------------------------------------

namespace {

using Callback = std::function<void(const Ref<OVStateMachineTransitionInfo>&)>;

// A callback found while scanning the rules, run once the state has moved.
struct PendingCallback {
  Ref<UUID> handle;
  Callback callback;
};

// The target method a rule without a handler reaches through a string
// action, looked up now and called later through its implementation with one
// argument: the info, or the info's userInfo.
Callback targetCallback(const Id& target, const Id& action) {
  auto* name = dynamic_cast<const String*>(action.get());
  if (!target || !name || name->isEmpty()) return nullptr;
  const Class* cls = target->objectClass();
  if (const Method* method =
          cls->methodForSelector(OVStateMachineTarget::transitionInfoSelectorForAction(name->view())))
    return [target, method](const Ref<OVStateMachineTransitionInfo>& info) {
      const Id argument = info;
      method->implementation(*target, &argument);
    };
  if (const Method* method =
          cls->methodForSelector(OVStateMachineTarget::infoSelectorForAction(name->view())))
    return [target, method](const Ref<OVStateMachineTransitionInfo>& info) {
      const Id argument = info->userInfo();
      method->implementation(*target, &argument);
    };
  return nullptr;
}

}  // namespace

FENNICK_DEFINE_CLASS(OVStateMachine) {
  builder.property("state", &OVStateMachine::state);
  builder.property("target", &OVStateMachine::target);
  builder.property("transitions", &OVStateMachine::transitions);
}

OVStateMachine::OVStateMachine(const Id& target, Id state)
    : target_(target), state_(std::move(state)), transitions_(Array::array()) {}

Ref<OVStateMachine> OVStateMachine::init() { return initWithTarget_initialState(nullptr, nullptr); }

Ref<OVStateMachine> OVStateMachine::initWithTarget_initialState(const Id& target,
                                                                const Id& initialState) {
  return make<OVStateMachine>(target, copyOrNil(initialState));
}

Ref<Array> OVStateMachine::transitions() const { return Array::castObject(transitions_->copy()); }

Ref<UUID> OVStateMachine::addTransitionOnAction_fromState_toState_handler(
    const Id& action, const Id& fromState, const Id& toState, OVStateMachineHandler handler) {
  Ref<UUID> handle = UUID::init();
  transitions_->addObject(make<OVStateMachineTransition>(handle, copyOrNil(action),
                                                         copyOrNil(fromState), copyOrNil(toState),
                                                         std::move(handler)));
  return handle;
}

Ref<Array> OVStateMachine::addTransitionOnAction_fromStates_toState_handler(
    const Id& action, const Ref<Array>& fromStates, const Id& toState,
    OVStateMachineHandler handler) {
  if (!fromStates) return Array::array();
  return fromStates->map([&](const Id& fromState, std::size_t, bool&) -> Id {
    return addTransitionOnAction_fromState_toState_handler(action, fromState, toState, handler);
  });
}

bool OVStateMachine::removeTransitionWithHandle(const Id& handle) {
  std::size_t found = NSNotFound;
  transitions_->enumerateObjectsUsingBlock([&](const Id& rule, std::size_t index, bool& stop) {
    stop = isEqualObject_toObject(OVStateMachineTransition::castObject(rule)->handle(), handle);
    if (stop) found = index;
  });
  if (found == NSNotFound) return false;
  transitions_->removeObjectAtIndex(found);
  return true;
}

void OVStateMachine::performAction_userInfo(const Id& action, const Ref<Dictionary>& userInfo) {
  auto info = make<OVStateMachineTransitionInfo>();
  info->target_ = target_.lock();
  info->stateMachine_ = std::static_pointer_cast<OVStateMachine>(self());
  info->action_ = copyOrNil(action);
  info->fromState_ = state_;
  info->userInfo_ = userInfo ? Dictionary::castObject(userInfo->copy()) : nullptr;

  // The scan finishes before any callback runs, so callbacks may change the
  // rules freely; a change made during the scan (from another thread) raises.
  std::vector<PendingCallback> pending;
  auto affectedHandles = Array::array();
  transitions_->enumerateObjectsUsingBlock([&](const Id& object, std::size_t, bool&) {
    const auto rule = OVStateMachineTransition::castObject(object);
    if (!rule->matches(info->action_, info->fromState_)) return;
    if (rule->toState()) info->toState_ = rule->toState();
    Callback callback = rule->handler() ? rule->handler() : targetCallback(info->target_, info->action_);
    if (!callback) return;
    affectedHandles->addObject(rule->handle());
    pending.push_back({rule->handle(), std::move(callback)});
  });

  if (info->toState_) state_ = info->toState_;

  // Each callback gets a fresh copy made when it runs, so that it sees the
  // new state and the whole action's destination under its own handle.
  for (const PendingCallback& entry : pending) {
    auto own = OVStateMachineTransitionInfo::castObject(info->copy());
    own->handle_ = entry.handle;
    entry.callback(own);
  }

  const Id& target = info->target_;
  if (target && target->respondsToSelector(OVStateMachineTarget::didPerformTransitonSelector()))
    target->performSelector(OVStateMachineTarget::didPerformTransitonSelector(), self(), info,
                            affectedHandles);
}

std::string OVStateMachine::description() const {
  return fmt::format("<OVStateMachine: {} state {}, {} transitions>", static_cast<const void*>(this),
                     describe(state_), transitions_->count());
}

}  // namespace fennick
