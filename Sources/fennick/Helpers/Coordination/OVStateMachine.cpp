#include "fennick/Helpers/Coordination/OVStateMachine.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
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

// A callback found while scanning the rules, run once the state has moved:
// the rule's handler, or else a target method named after the action, called
// with the info or with its userInfo. The rule stays alive through the rule
// list that the action scans.
struct PendingCallback {
  const OVStateMachineTransition* rule = nullptr;
  const Method* method = nullptr;
  bool passesUserInfo = false;

  void run(const Ref<OVStateMachineTransitionInfo>& info) const {
    if (rule->handler()) return rule->handler()(info);
    const Id argument = passesUserInfo ? Id(info->userInfo()) : Id(info);
    method->implementation(*info->target(), &argument);
  }
};

// Most actions match one or two rules: keep them without allocating.
class PendingCallbacks {
 public:
  void push(const PendingCallback& entry) {
    if (size_ < kInline) inline_[size_] = entry;
    else spill_.push_back(entry);
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

// The target method that a rule without a handler reaches through a string
// action: "<action>WithTransitionInfo:" (given the info), else
// "<action>WithInfo:" (given the userInfo). Looked up once per action.
class TargetMethods {
 public:
  TargetMethods(const Id& target, const Id& action) : target_(target), action_(action) {}

  PendingCallback callbackFor(const OVStateMachineTransition* rule) {
    if (rule->handler()) return {rule};
    if (!looked_) lookUp();
    return {rule, method_, passesUserInfo_};
  }

 private:
  void lookUp() {
    looked_ = true;
    auto* name = dynamic_cast<const String*>(action_.get());
    if (!target_ || !name || name->isEmpty()) return;
    const Class* cls = target_->objectClass();
    method_ = cls->methodForSelector(OVStateMachineTarget::transitionInfoSelectorForAction(name->view()));
    if (method_) return;
    method_ = cls->methodForSelector(OVStateMachineTarget::infoSelectorForAction(name->view()));
    passesUserInfo_ = true;
  }

  const Id& target_;
  const Id& action_;
  bool looked_ = false;
  const Method* method_ = nullptr;
  bool passesUserInfo_ = false;
};

// Compares a rule's member with the performed value: identical objects first
// (small numbers and interned strings usually are), then the hashes, which
// are computed once per action and only when needed, then equality.
class MatchKey {
 public:
  explicit MatchKey(const Id& value) : value_(value) {}
  bool accepts(const Id& mine, std::size_t mineHash) {
    if (!mine || mine == value_) return true;
    if (!value_) return false;
    if (!hashed_) {
      hash_ = value_->hash();
      hashed_ = true;
    }
    return hash_ == mineHash && mine->isEqual(value_.get());
  }

 private:
  const Id& value_;
  bool hashed_ = false;
  std::size_t hash_ = 0;
};

}  // namespace

FENNICK_DEFINE_CLASS(OVStateMachine) {
  builder.property("state", &OVStateMachine::state);
  builder.property("target", &OVStateMachine::target);
  builder.property("transitions", &OVStateMachine::transitions);
}

OVStateMachine::OVStateMachine(const Id& target, Id state)
    : target_(target), state_(std::move(state)), rules_(std::make_shared<Rules>()) {}

Ref<OVStateMachine> OVStateMachine::init() { return initWithTarget_initialState(nullptr, nullptr); }

Ref<OVStateMachine> OVStateMachine::initWithTarget_initialState(const Id& target,
                                                                const Id& initialState) {
  return make<OVStateMachine>(target, copyOrNil(initialState));
}

Ref<Array> OVStateMachine::transitions() const {
  auto list = Array::arrayWithCapacity(rules_->size());
  for (const auto& rule : *rules_) list->addObject(rule);
  list->makeImmutable();
  return list;
}

OVStateMachine::Rules& OVStateMachine::rulesForWriting() {
  // Only a scan in progress shares the list; the machine is not thread-safe,
  // so the count cannot change under us.
  if (rules_.use_count() > 1) rules_ = std::make_shared<Rules>(*rules_);
  return *rules_;
}

Ref<UUID> OVStateMachine::addTransitionOnAction_fromState_toState_handler(
    const Id& action, const Id& fromState, const Id& toState, OVStateMachineHandler handler) {
  Ref<UUID> handle = UUID::init();
  rulesForWriting().push_back(make<OVStateMachineTransition>(handle, copyOrNil(action), copyOrNil(fromState),
                                                             copyOrNil(toState), std::move(handler)));
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
  auto found = std::find_if(rules_->begin(), rules_->end(),
                            [&](const auto& rule) { return isEqualObject_toObject(rule->handle(), handle); });
  if (found == rules_->end()) return false;
  const auto index = found - rules_->begin();
  auto& rules = rulesForWriting();
  rules.erase(rules.begin() + index);
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

  // The scan finishes before any callback runs, and walks a list that later
  // changes do not touch, so callbacks may change the rules freely.
  const std::shared_ptr<const Rules> rules = rules_;
  PendingCallbacks pending;
  MatchKey actionKey(info->action_), stateKey(info->fromState_);
  TargetMethods methods(target, info->action_);
  const OVStateMachineTransition* destination = nullptr;
  for (const auto& rule : *rules) {
    if (!actionKey.accepts(rule->action(), rule->actionHash_) ||
        !stateKey.accepts(rule->fromState(), rule->fromStateHash_))
      continue;
    if (rule->toState()) destination = rule.get();
    PendingCallback callback = methods.callbackFor(rule.get());
    if (callback.rule->handler() || callback.method) pending.push(callback);
  }

  if (destination) {
    info->toState_ = destination->toState();
    if (state_ != info->toState_) state_ = info->toState_;
  }

  // Each callback gets its own copy, made when it runs, so that it sees the new
  // state and the whole action's destination under its own handle. When the
  // target takes no final notification, nobody else ever sees the original,
  // so the last callback may have it.
  for (std::size_t i = 0; i < pending.size(); ++i) {
    const bool lastUse = !notifiesTarget && i + 1 == pending.size();
    auto own = lastUse ? std::move(info) : OVStateMachineTransitionInfo::castObject(info->copy());
    own->handle_ = pending[i].rule->handle();
    pending[i].run(own);
    if (lastUse) return recycle(std::move(own));
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
                     describe(state_), rules_->size());
}

}  // namespace fennick
