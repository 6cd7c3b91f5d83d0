#include "fennick/Helpers/OVStateMachine.h"

#include <array>

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
      handler_(std::move(handler)),
      actionHash_(action_ ? action_->hash() : 0),
      fromStateHash_(fromState_ ? fromState_->hash() : 0) {}

bool OVStateMachineTransition::matches(const Id& action, std::size_t actionHash, const Id& state,
                                       std::size_t stateHash) const {
  if (action_ && (actionHash != actionHash_ || !action)) return false;
  if (fromState_ && (stateHash != fromStateHash_ || !state)) return false;
  return matches(action, state);
}

bool OVStateMachineTransition::matches(const Id& action, const Id& state) const {
  // Identical objects first: small numbers and interned strings usually are.
  auto same = [](const Id& mine, const Id& theirs) {
    return !mine || mine == theirs || (theirs && mine->isEqual(theirs.get()));
  };
  return same(action_, action) && same(fromState_, state);
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
// The rule is kept alive so that its handler may be called even if a callback
// removes the rule first.
struct PendingCallback {
  Ref<OVStateMachineTransition> rule;
  Callback byName;  // for rules without a handler: the target method
  const Callback& callback() const { return rule->handler() ? rule->handler() : byName; }
};

// Most actions match one or two rules: keep them without allocating.
class PendingCallbacks {
 public:
  void push(PendingCallback entry) {
    if (size_ < kInline) inline_[size_] = std::move(entry);
    else spill_.push_back(std::move(entry));
    ++size_;
  }
  std::size_t size() const { return size_; }
  const PendingCallback& operator[](std::size_t i) const { return i < kInline ? inline_[i] : spill_[i - kInline]; }

 private:
  static constexpr std::size_t kInline = 4;
  std::array<PendingCallback, kInline> inline_;
  std::vector<PendingCallback> spill_;
  std::size_t size_ = 0;
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
  auto info = spareInfo_ ? std::move(spareInfo_) : make<OVStateMachineTransitionInfo>();
  info->target_ = target_.lock();
  info->stateMachine_ = std::static_pointer_cast<OVStateMachine>(self());
  info->action_ = copyOrNil(action);
  info->fromState_ = state_;
  info->userInfo_ = userInfo ? Dictionary::castObject(userInfo->copy()) : nullptr;
  const Id& target = info->target_;
  const bool notifiesTarget =
      target && target->respondsToSelector(OVStateMachineTarget::didPerformTransitonSelector());

  // The scan finishes before any callback runs, so callbacks may change the
  // rules freely; a change made during the scan (from another thread) raises.
  PendingCallbacks pending;
  const std::size_t actionHash = info->action_ ? info->action_->hash() : 0;
  const std::size_t stateHash = info->fromState_ ? info->fromState_->hash() : 0;
  for (const Id& object : *transitions_) {
    auto* rule = static_cast<OVStateMachineTransition*>(object.get());
    if (!rule->matches(info->action_, actionHash, info->fromState_, stateHash)) continue;
    if (rule->toState()) info->toState_ = rule->toState();
    Callback byName = rule->handler() ? nullptr : targetCallback(target, info->action_);
    if (!rule->handler() && !byName) continue;
    pending.push({std::static_pointer_cast<OVStateMachineTransition>(object), std::move(byName)});
  }

  if (info->toState_) state_ = info->toState_;

  // Each callback gets its own copy, made when it runs, so that it sees the new
  // state and the whole action's destination under its own handle. When the
  // target takes no final notification, nobody else ever sees the original,
  // so the last callback may have it.
  for (std::size_t i = 0; i < pending.size(); ++i) {
    const bool lastUse = !notifiesTarget && i + 1 == pending.size();
    auto own = lastUse ? info : OVStateMachineTransitionInfo::castObject(info->copy());
    own->handle_ = pending[i].rule->handle();
    pending[i].callback()(own);
  }

  if (!notifiesTarget) return recycle(std::move(info));
  auto affectedHandles = Array::arrayWithCapacity(pending.size());
  for (std::size_t i = 0; i < pending.size(); ++i) affectedHandles->addObject(pending[i].rule->handle());
  target->performSelector(OVStateMachineTarget::didPerformTransitonSelector(), self(), info,
                          affectedHandles);
  recycle(std::move(info));
}

void OVStateMachine::recycle(Ref<OVStateMachineTransitionInfo> info) {
  if (info.use_count() != 1) return;  // a callback kept it
  info->clear();
  spareInfo_ = std::move(info);
}

std::string OVStateMachine::description() const {
  return fmt::format("<OVStateMachine: {} state {}, {} transitions>", static_cast<const void*>(this),
                     describe(state_), transitions_->count());
}

}  // namespace fennick
