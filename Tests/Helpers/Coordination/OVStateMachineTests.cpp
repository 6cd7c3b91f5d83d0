#include "fennick/Helpers/Coordination/OVStateMachine.h"
#include "fennick/Runtime/Collections/Set.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace fennick {
namespace {

// A target that records what reaches it by name and through the final
// notification. It keeps parts of the infos, not the infos themselves, which
// hold the target strongly.
class StateMachineTestDoor : public Object, public OVStateMachineTarget {
  FENNICK_DECLARE_CLASS(StateMachineTestDoor, Object)

 public:
  std::vector<std::string> events;
  Ref<UUID> lastHandle;
  Id lastToState;
  Ref<Dictionary> lastUserInfo;
  bool notified = false;
  Ref<UUID> finalHandle;
  Id finalToState;
  Ref<Dictionary> finalUserInfo;
  Ref<Array> finalHandles;

  void openWithTransitionInfo(Ref<OVStateMachineTransitionInfo> info) {
    events.push_back("openWithTransitionInfo");
    lastHandle = info->handle();
    lastToState = info->toState();
  }
  void openWithInfo(Ref<Dictionary>) { events.push_back("openWithInfo"); }
  void closeWithInfo(Ref<Dictionary> userInfo) {
    events.push_back("closeWithInfo");
    lastUserInfo = std::move(userInfo);
  }
  void stateMachine_didPerformTransiton_affectedHandles(Ref<OVStateMachine>,
                                                        Ref<OVStateMachineTransitionInfo> info,
                                                        Ref<Array> handles) override {
    events.push_back("did:" + info->action()->description());
    notified = true;
    finalHandle = info->handle();
    finalToState = info->toState();
    finalUserInfo = info->userInfo();
    finalHandles = std::move(handles);
  }

 protected:
  StateMachineTestDoor() = default;
};

FENNICK_DEFINE_CLASS(StateMachineTestDoor) {
  OVStateMachineTarget::registerDidPerformTransiton(builder);
  builder.method("openWithTransitionInfo:", &StateMachineTestDoor::openWithTransitionInfo);
  builder.method("openWithInfo:", &StateMachineTestDoor::openWithInfo);
  builder.method("closeWithInfo:", &StateMachineTestDoor::closeWithInfo);
}

class OVStateMachineTest : public ::testing::Test {
 protected:
  Ref<StateMachineTestDoor> door = make<StateMachineTestDoor>();
  Ref<OVStateMachine> machine = OVStateMachine::initWithTarget_initialState(door, "closed"_s);
};

TEST_F(OVStateMachineTest, EveryMatchingRuleCountsAndCallbacksSeeTheFinalState) {
  std::vector<std::string> seen;
  auto record = [&](const char* name) {
    return [&, name](const Ref<OVStateMachineTransitionInfo>& info) {
      seen.push_back(std::string(name) + ":" + info->toState()->description() + ":" +
                     info->stateMachine()->state()->description());
      EXPECT_TRUE(info->fromState()->isEqual("closed"_s));
      EXPECT_NE(info->handle(), nullptr);
    };
  };
  auto first = machine->addTransitionOnAction_fromState_toState_handler("push"_s, "closed"_s, "ajar"_s, record("a"));
  machine->addTransitionOnAction_fromState_toState_handler("push"_s, "open"_s, "stuck"_s, record("never"));
  auto any = machine->addTransitionOnAction_fromState_toState_handler(nullptr, nullptr, nullptr, record("any"));
  auto second = machine->addTransitionOnAction_fromState_toState_handler("push"_s, nullptr, "open"_s, record("b"));

  machine->performAction_userInfo("push"_s, Dictionary::dictionaryWithStringKeys({{"by", "me"_s}}));
  EXPECT_TRUE(machine->state()->isEqual("open"_s));
  EXPECT_EQ(seen, (std::vector<std::string>{"a:open:open", "any:open:open", "b:open:open"}));
  ASSERT_TRUE(door->notified);
  EXPECT_EQ(door->finalHandle, nullptr);
  EXPECT_TRUE(door->finalUserInfo->objectForKey("by")->isEqual("me"_s));
  EXPECT_TRUE(door->finalHandles->isEqual(Array::arrayWithObjects({first, any, second})));
}

TEST_F(OVStateMachineTest, UnmatchedActionStillNotifiesTarget) {
  machine->addTransitionOnAction_fromState_toState_handler("push"_s, nullptr, "open"_s, nullptr);
  machine->performAction_userInfo("kick"_s);
  EXPECT_TRUE(machine->state()->isEqual("closed"_s));
  EXPECT_EQ(door->events, (std::vector<std::string>{"did:kick"}));
  EXPECT_EQ(door->finalToState, nullptr);
  EXPECT_TRUE(door->finalHandles->isEmpty());
}

TEST_F(OVStateMachineTest, TargetMethodsFoundByActionName) {
  auto open = machine->addTransitionOnAction_fromState_toState_handler("open"_s, "closed"_s, "open"_s);
  machine->performAction_userInfo("open"_s, Dictionary::dictionaryWithStringKeys({{"k", "v"_s}}));
  // Both "openWith..." methods exist: only the TransitionInfo one is called.
  EXPECT_EQ(door->events, (std::vector<std::string>{"openWithTransitionInfo", "did:open"}));
  EXPECT_TRUE(Object::isEqualObject_toObject(door->lastHandle, open));
  EXPECT_TRUE(door->lastToState->isEqual("open"_s));

  door->events.clear();
  machine->addTransitionOnAction_fromState_toState_handler("close"_s, nullptr, "closed"_s);
  auto userInfo = Dictionary::dictionaryWithStringKeys({{"why", "draught"_s}});
  machine->performAction_userInfo("close"_s, userInfo);
  EXPECT_EQ(door->events, (std::vector<std::string>{"closeWithInfo", "did:close"}));
  EXPECT_TRUE(door->lastUserInfo->isEqual(userInfo));

  // A number action has no name: the rule moves the state but has no callback.
  door->events.clear();
  machine->addTransitionOnAction_fromState_toState_handler(Number::of(7), nullptr, "seven"_s);
  machine->addTransitionOnAction_fromState_toState_handler("lock"_s, nullptr, "locked"_s);  // no such method
  machine->performAction_userInfo(Number::of(7));
  EXPECT_TRUE(machine->state()->isEqual("seven"_s));
  EXPECT_TRUE(door->finalHandles->isEmpty());
  machine->performAction_userInfo("lock"_s);
  EXPECT_TRUE(machine->state()->isEqual("locked"_s));
  EXPECT_TRUE(door->finalHandles->isEmpty());
}

TEST_F(OVStateMachineTest, SeveralSourceStatesAndRemoval) {
  int calls = 0;
  auto handles = machine->addTransitionOnAction_fromStates_toState_handler(
      "reset"_s, Array::arrayWithObjects({"closed"_s, "open"_s, "broken"_s}), "closed"_s,
      [&](const Ref<OVStateMachineTransitionInfo>&) { ++calls; });
  ASSERT_EQ(handles->count(), 3u);
  EXPECT_EQ(Set::setWithArray(handles)->count(), 3u);
  EXPECT_TRUE(Array::castObject(machine->transitions()->valueForKey("handle"))->isEqual(handles));
  EXPECT_TRUE(machine->addTransitionOnAction_fromStates_toState_handler("x"_s, Array::array(), nullptr)->isEmpty());

  EXPECT_TRUE(machine->removeTransitionWithHandle(handles->objectAtIndex(0)));
  EXPECT_FALSE(machine->removeTransitionWithHandle(handles->objectAtIndex(0)));
  EXPECT_FALSE(machine->removeTransitionWithHandle(UUID::init()));
  machine->performAction_userInfo("reset"_s);  // from "closed": that rule is gone
  EXPECT_EQ(calls, 0);

  // The other two still work.
  machine->addTransitionOnAction_fromState_toState_handler("break"_s, nullptr, "broken"_s);
  machine->performAction_userInfo("break"_s);
  machine->performAction_userInfo("reset"_s);
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(machine->state()->isEqual("closed"_s));
}

TEST_F(OVStateMachineTest, CallbacksRemoveRulesAndPerformNestedActions) {
  int oneShotCalls = 0;
  machine->addTransitionOnAction_fromState_toState_handler(
      "ring"_s, nullptr, nullptr, [&](const Ref<OVStateMachineTransitionInfo>& info) {
        ++oneShotCalls;
        EXPECT_TRUE(info->removeTransition());
      });
  machine->performAction_userInfo("ring"_s);
  machine->performAction_userInfo("ring"_s);
  EXPECT_EQ(oneShotCalls, 1);

  // A rule removed by an earlier callback of the same action still has its
  // callback run, once; the next action no longer finds it.
  int removerCalls = 0, removedCalls = 0;
  Ref<UUID> removed;
  machine->addTransitionOnAction_fromState_toState_handler(
      "knock"_s, nullptr, nullptr, [&](const Ref<OVStateMachineTransitionInfo>& info) {
        ++removerCalls;
        info->stateMachine()->removeTransitionWithHandle(removed);
      });
  removed = machine->addTransitionOnAction_fromState_toState_handler(
      "knock"_s, nullptr, nullptr, [&](const Ref<OVStateMachineTransitionInfo>&) { ++removedCalls; });
  machine->performAction_userInfo("knock"_s);
  machine->performAction_userInfo("knock"_s);
  EXPECT_EQ(removerCalls, 2);
  EXPECT_EQ(removedCalls, 1);

  // The nested action starts from the outer one's new state and finishes
  // before the outer action's remaining callbacks and notification.
  std::vector<std::string> order;
  machine->addTransitionOnAction_fromState_toState_handler(
      "open"_s, "closed"_s, "open"_s, [&](const Ref<OVStateMachineTransitionInfo>& info) {
        order.push_back("open");
        info->stateMachine()->performAction_userInfo("wedge"_s);
        info->stateMachine()->addTransitionOnAction_fromState_toState_handler("late"_s, nullptr, nullptr);
      });
  machine->addTransitionOnAction_fromState_toState_handler(
      "open"_s, nullptr, nullptr, [&](const Ref<OVStateMachineTransitionInfo>& info) {
        order.push_back("open-second:" + info->stateMachine()->state()->description());
      });
  machine->addTransitionOnAction_fromState_toState_handler(
      "wedge"_s, "open"_s, "wedged"_s, [&](const Ref<OVStateMachineTransitionInfo>& info) {
        order.push_back("wedge-from:" + info->fromState()->description());
      });
  door->events.clear();
  machine->performAction_userInfo("open"_s);
  EXPECT_EQ(order, (std::vector<std::string>{"open", "wedge-from:open", "open-second:wedged"}));
  // Rules with handlers do not reach the target's methods by name.
  EXPECT_EQ(door->events, (std::vector<std::string>{"did:wedge", "did:open"}));
  EXPECT_EQ(machine->transitions()->count(), 5u);
}

TEST_F(OVStateMachineTest, TargetIsHeldWeakly) {
  int handlerCalls = 0;
  machine->addTransitionOnAction_fromState_toState_handler("open"_s, nullptr, "open"_s);
  machine->addTransitionOnAction_fromState_toState_handler(
      "open"_s, nullptr, nullptr, [&](const Ref<OVStateMachineTransitionInfo>&) { ++handlerCalls; });
  std::weak_ptr<StateMachineTestDoor> watcher = door;
  door.reset();
  EXPECT_TRUE(watcher.expired());
  EXPECT_EQ(machine->target(), nullptr);
  machine->performAction_userInfo("open"_s);
  EXPECT_EQ(handlerCalls, 1);
  EXPECT_TRUE(machine->state()->isEqual("open"_s));
}

TEST(OVStateMachineTransition, EqualityIgnoresHandleAndHandler) {
  auto machine = OVStateMachine::init();
  EXPECT_EQ(machine->state(), nullptr);
  machine->addTransitionOnAction_fromState_toState_handler("a"_s, nullptr, "b"_s);
  machine->addTransitionOnAction_fromState_toState_handler(
      "a"_s, nullptr, "b"_s, [](const Ref<OVStateMachineTransitionInfo>&) {});
  machine->addTransitionOnAction_fromState_toState_handler("a"_s, "x"_s, "b"_s);
  auto rules = machine->transitions();
  EXPECT_TRUE(rules->objectAtIndex(0)->isEqual(rules->objectAtIndex(1)));
  EXPECT_EQ(rules->objectAtIndex(0)->hash(), rules->objectAtIndex(1)->hash());
  EXPECT_FALSE(rules->objectAtIndex(0)->isEqual(rules->objectAtIndex(2)));

  // States are stored as copies: later changes to the caller's object do not leak in.
  auto state = Array::arrayWithObjects({"s"_s});
  auto copied = OVStateMachine::initWithTarget_initialState(nullptr, state);
  state->addObject("t"_s);
  EXPECT_EQ(Array::castObject(copied->state())->count(), 1u);
  EXPECT_FALSE(Array::castObject(copied->state())->isMutable());
}

}  // namespace
}  // namespace fennick
