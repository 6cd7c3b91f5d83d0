#include "HelpersTestSupport.h"

#include "fennick/Helpers/OVProactor.h"
#include "fennick/Runtime/ClassBuilder.h"
#include "fennick/Runtime/Null.h"
#include "fennick/Runtime/Number.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <set>
#include <thread>

namespace fennick {
namespace {

using testing::eventually;
using testing::Latch;

struct Collected {
  std::mutex mutex;
  std::vector<Ref<OVProactorResult>> results;
  void add(const Ref<OVProactorResult>& result) {
    std::lock_guard lock(mutex);
    results.push_back(result);
  }
  std::size_t size() {
    std::lock_guard lock(mutex);
    return results.size();
  }
};

TEST(OVProactor, CoalescesRequestsForEqualArguments) {
  auto proactor = OVProactor::init();
  EXPECT_EQ(proactor->internalQueue()->label(), "com.orvane.Proactor.internal-queue");
  std::atomic<int> runs{0};
  auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
      "fetch"_s, false, [&](const Ref<OVProactorAction>& action) {
        ++runs;
        action->setObject_forKey(String::string("done " + action->argument()->description()), "value"_s);
        action->complete();
      });
  EXPECT_EQ(proactor->groupWithID("fetch"_s), group);
  EXPECT_EQ((*proactor).objectForKeyedSubscript("missing"_s), nullptr);
  auto action = group->actionForArgument(String::string("a"));
  EXPECT_EQ(group->actionForArgument("a"_s), action);
  EXPECT_EQ(group->defaultAction(), group->actionForArgument(nullptr));
  EXPECT_EQ(group->defaultAction()->argument(), Null::null());
  EXPECT_TRUE(action->groupID()->isEqual("fetch"_s));

  Collected early;
  for (int i = 0; i < 3; ++i) action->addCompletionHandler([&](const Ref<OVProactorResult>& r) { early.add(r); });
  action->start();
  action->start();  // ignored while running
  ASSERT_TRUE(eventually([&] { return early.size() == 3; }));
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(early.results[0], early.results[1]);  // one shared copy
  EXPECT_EQ(early.results[1], early.results[2]);
  EXPECT_EQ(early.results[0]->objectForKey("value"_s)->description(), "done a");
  EXPECT_EQ(early.results[0]->action(), action);
  EXPECT_TRUE(action->isCompleted());

  Collected late;
  action->addCompletionHandler([&](const Ref<OVProactorResult>& r) { late.add(r); });
  ASSERT_TRUE(eventually([&] { return late.size() == 1; }));
  EXPECT_NE(late.results[0], early.results[0]);
  EXPECT_TRUE(late.results[0]->objectsByKey()->isEqual(early.results[0]->objectsByKey()));
}

TEST(OVProactor, AutomaticStartStartsOnceOnTheFirstHandler) {
  auto proactor = OVProactor::init();
  std::atomic<int> runs{0};
  Latch release;
  auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
      "auto"_s, true, [&](const Ref<OVProactorAction>& action) {
        ++runs;
        release.waitFor(1);
        action->complete();
      });
  auto action = group->defaultAction();
  Collected results;
  action->addCompletionHandler([&](const Ref<OVProactorResult>& r) { results.add(r); });
  ASSERT_TRUE(eventually([&] { return action->isRunning(); }));
  action->addCompletionHandler([&](const Ref<OVProactorResult>& r) { results.add(r); });
  release.signal();
  ASSERT_TRUE(eventually([&] { return results.size() == 2; }));
  EXPECT_EQ(runs, 1);
}

TEST(OVProactor, HooksRunOneByOneBeforeDelivery) {
  auto proactor = OVProactor::init();
  auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
      "hooks"_s, false, [](const Ref<OVProactorAction>& action) { action->complete(); });
  auto action = group->defaultAction();
  Latch firstHook, secondHook;
  Ref<OVProactorAction> firstAction, secondAction;
  action->addCompletionHook([&](const Ref<OVProactorAction>& a) {
    firstAction = a;
    firstHook.signal();
  });
  action->addCompletionHook([&](const Ref<OVProactorAction>& a) {
    secondAction = a;
    secondHook.signal();
  });
  Collected results;
  action->addCompletionHandler([&](const Ref<OVProactorResult>& r) { results.add(r); });
  action->start();
  ASSERT_TRUE(firstHook.waitFor(1));
  EXPECT_FALSE(action->isRunning());  // completing: neither running nor completed
  EXPECT_FALSE(action->isCompleted());
  EXPECT_EQ(secondHook.count(), 0);
  firstAction->complete();
  ASSERT_TRUE(secondHook.waitFor(1));
  EXPECT_EQ(results.size(), 0u);
  secondAction->complete();
  ASSERT_TRUE(eventually([&] { return results.size() == 1; }));
  EXPECT_TRUE(action->isCompleted());
}

TEST(OVProactor, ResetRestartAndErrors) {
  auto proactor = OVProactor::init();
  std::atomic<int> runs{0};
  Latch running;
  auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
      "work"_s, false, [&](const Ref<OVProactorAction>&) {
        ++runs;
        running.signal();
      });
  auto action = group->actionForArgument(Number::of(1));
  action->start();
  ASSERT_TRUE(running.waitFor(1));
  action->setError(Error::errorWithDomain_code_description("test", 1, "first"));
  action->setError(nullptr);  // keeps the first
  EXPECT_EQ(action->error()->code(), 1);
  action->reset();  // ignored while running
  EXPECT_TRUE(action->isRunning());
  action->complete();
  ASSERT_TRUE(eventually([&] { return action->isCompleted(); }));
  EXPECT_EQ(action->error()->localizedDescription(), "first");

  action->reset();
  ASSERT_TRUE(eventually([&] { return !action->isCompleted(); }));
  EXPECT_EQ(action->error(), nullptr);
  action->start();
  ASSERT_TRUE(running.waitFor(2));
  EXPECT_EQ(runs, 2);
  action->complete();
  ASSERT_TRUE(eventually([&] { return action->isCompleted(); }));
  action->restart();  // from completed: reset and start in one step
  ASSERT_TRUE(running.waitFor(3));
  action->updateWithBlock([](const Ref<Dictionary>& values) {
    values->setObject_forKey(Number::of(1), "x");
    values->setObject_forKey(Number::of(2), "y");
  });
  EXPECT_TRUE(action->objectForKey("y"_s)->isEqual(Number::of(2)));
}

class WorkDelegate : public Object {
  FENNICK_DECLARE_CLASS(WorkDelegate, Object)
 public:
  std::atomic<int> calls{0};
  void perform(const Ref<OVProactorAction>& action) {
    ++calls;
    action->setObject_forKey("by delegate"_s, "who"_s);
    action->complete();
  }

 protected:
  WorkDelegate() = default;
};
FENNICK_DEFINE_CLASS(WorkDelegate) { builder.method("performAction:", &WorkDelegate::perform); }

TEST(OVProactor, DelegateSelectorHandlers) {
  auto delegate = make<WorkDelegate>();
  auto proactor = OVProactor::initWithDelegate(delegate);
  auto group = proactor->addGroupWithID_startsActionAutomatically_delegateHandlerSelector(
      "delegated"_s, true, Selector::named("performAction:"));
  Collected results;
  group->defaultAction()->addCompletionHandler([&](const Ref<OVProactorResult>& r) { results.add(r); });
  ASSERT_TRUE(eventually([&] { return results.size() == 1; }));
  EXPECT_EQ(results.results[0]->objectForKey("who"_s)->description(), "by delegate");
  EXPECT_EQ(results.results[0]->delegate(), delegate);

  // Without a delegate the work never starts; the action stays running.
  proactor->setDelegate(nullptr);
  auto orphan = group->actionForArgument("other"_s);
  orphan->start();
  ASSERT_TRUE(eventually([&] { return orphan->isRunning(); }));
  EXPECT_EQ(delegate->calls, 1);
}

// Eight threads issue random operations on shared actions: no handler is called
// twice, and every handler called receives a result of its own action.
TEST(OVProactor, RandomOperationsFromManyThreads) {
  auto proactor = OVProactor::init();
  auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
      "random"_s, false, [](const Ref<OVProactorAction>& action) {
        action->setObject_forKey(action->argument(), "argument"_s);
        action->complete();
      });
  std::vector<Ref<OVProactorAction>> actions;
  for (int i = 0; i < 4; ++i) actions.push_back(group->actionForArgument(Number::of(i)));
  // Late handlers may still run after the test body: they share the counters.
  struct Counters {
    std::atomic<int> wrongResult{0}, calledTwice{0}, called{0}, hooks{0};
  };
  auto counters = std::make_shared<Counters>();
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t));
      for (int i = 0; i < 300; ++i) {
        auto& action = actions[random() % actions.size()];
        switch (random() % 6) {
          case 0: action->start(); break;
          case 1: action->complete(); break;
          case 2: action->reset(); break;
          case 3: action->restart(); break;
          case 4: {
            auto once = std::make_shared<std::atomic<bool>>(false);
            action->addCompletionHandler([counters, once, action](const Ref<OVProactorResult>& result) {
              if (once->exchange(true)) ++counters->calledTwice;
              if (result->action() != action) ++counters->wrongResult;
              ++counters->called;
            });
            break;
          }
          default:
            action->addCompletionHook([counters](const Ref<OVProactorAction>& a) {
              ++counters->hooks;
              a->complete();
            });
        }
      }
    });
  for (auto& thread : threads) thread.join();
  for (auto& action : actions) action->internalQueue()->sync([] {});
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(counters->calledTwice, 0);
  EXPECT_EQ(counters->wrongResult, 0);
  EXPECT_GT(counters->called + counters->hooks, 0);
}

}  // namespace
}  // namespace fennick

namespace fennick {
namespace {

TEST(OVProactor, AnActionWithoutAGroupWorksInline) {
  auto action = OVProactorAction::init();
  EXPECT_EQ(action->groupID(), nullptr);
  action->setObject_forKey(Number::of(1), "n"_s);
  EXPECT_TRUE(action->objectForKey("n"_s)->isEqual(Number::of(1)));
  action->start();  // no group, no handler: the state still moves
  EXPECT_TRUE(action->isRunning());
  action->complete();
  EXPECT_TRUE(action->isCompleted());
}

}  // namespace
}  // namespace fennick
