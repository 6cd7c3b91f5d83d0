#include "Support/HelpersTestSupport.h"

#include "fennick/Helpers/Proactor/OVProactor.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <thread>

namespace fennick {
namespace {

using testing::Latch;

// Everything a handler touches lives in shared state that the handler holds,
// so a handler that runs after a failed test has returned touches no stack.
class Collected {
 public:
  static std::shared_ptr<Collected> make() { return std::make_shared<Collected>(); }
  static OVProactorCompletionHandler into(const std::shared_ptr<Collected>& collected) {
    return [collected](const Ref<OVProactorResult>& result) { collected->add(result); };
  }
  void add(const Ref<OVProactorResult>& result) {
    {
      std::lock_guard lock(mutex_);
      results_.push_back(result);
    }
    arrived_.signal();
  }
  bool waitFor(int count) { return arrived_.waitFor(count); }
  std::size_t size() {
    std::lock_guard lock(mutex_);
    return results_.size();
  }
  Ref<OVProactorResult> operator[](std::size_t index) {
    std::lock_guard lock(mutex_);
    return results_.at(index);
  }

 private:
  std::mutex mutex_;
  std::vector<Ref<OVProactorResult>> results_;
  Latch arrived_;
};

// Reads of the action are synchronous on the proactor's queue, so each one
// observes every asynchronous call made before it: no waiting is needed.
TEST(OVProactor, CoalescesRequestsForEqualArguments) {
  auto proactor = OVProactor::init();
  EXPECT_EQ(proactor->internalQueue()->label(), "com.orvane.Proactor.internal-queue");
  auto runs = std::make_shared<std::atomic<int>>(0);
  auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
      "fetch"_s, false, [runs](const Ref<OVProactorAction>& action) {
        ++*runs;
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

  auto early = Collected::make();
  for (int i = 0; i < 3; ++i) action->addCompletionHandler(Collected::into(early));
  action->start();
  action->start();  // ignored while running
  ASSERT_TRUE(early->waitFor(3));
  EXPECT_EQ(*runs, 1);
  EXPECT_EQ((*early)[0], (*early)[1]);  // one shared copy
  EXPECT_EQ((*early)[1], (*early)[2]);
  EXPECT_EQ((*early)[0]->objectForKey("value"_s)->description(), "done a");
  EXPECT_EQ((*early)[0]->action(), action);
  EXPECT_TRUE(action->isCompleted());

  auto late = Collected::make();
  action->addCompletionHandler(Collected::into(late));
  ASSERT_TRUE(late->waitFor(1));
  EXPECT_NE((*late)[0], (*early)[0]);
  EXPECT_TRUE((*late)[0]->objectsByKey()->isEqual((*early)[0]->objectsByKey()));
}

TEST(OVProactor, AutomaticStartStartsOnceOnTheFirstHandler) {
  auto proactor = OVProactor::init();
  auto runs = std::make_shared<std::atomic<int>>(0);
  auto started = std::make_shared<Latch>(), release = std::make_shared<Latch>();
  auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
      "auto"_s, true, [=](const Ref<OVProactorAction>& action) {
        ++*runs;
        started->signal();
        release->waitFor(1);
        action->complete();
      });
  auto action = group->defaultAction();
  auto results = Collected::make();
  action->addCompletionHandler(Collected::into(results));
  ASSERT_TRUE(started->waitFor(1));
  EXPECT_TRUE(action->isRunning());
  action->addCompletionHandler(Collected::into(results));
  release->signal();
  ASSERT_TRUE(results->waitFor(2));
  EXPECT_EQ(*runs, 1);
}

TEST(OVProactor, HooksRunOneByOneBeforeDelivery) {
  auto proactor = OVProactor::init();
  auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
      "hooks"_s, false, [](const Ref<OVProactorAction>& action) { action->complete(); });
  auto action = group->defaultAction();
  auto firstHook = std::make_shared<Latch>(), secondHook = std::make_shared<Latch>();
  action->addCompletionHook([firstHook](const Ref<OVProactorAction>&) { firstHook->signal(); });
  action->addCompletionHook([secondHook](const Ref<OVProactorAction>&) { secondHook->signal(); });
  auto results = Collected::make();
  action->addCompletionHandler(Collected::into(results));
  action->start();
  ASSERT_TRUE(firstHook->waitFor(1));
  EXPECT_FALSE(action->isRunning());  // completing: neither running nor completed
  EXPECT_FALSE(action->isCompleted());
  EXPECT_EQ(secondHook->count(), 0);
  action->complete();
  ASSERT_TRUE(secondHook->waitFor(1));
  EXPECT_EQ(results->size(), 0u);
  action->complete();
  ASSERT_TRUE(results->waitFor(1));
  EXPECT_TRUE(action->isCompleted());
}

TEST(OVProactor, ResetRestartAndErrors) {
  auto proactor = OVProactor::init();
  auto running = std::make_shared<Latch>();
  auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
      "work"_s, false, [running](const Ref<OVProactorAction>&) { running->signal(); });
  auto action = group->actionForArgument(Number::of(1));
  action->start();
  ASSERT_TRUE(running->waitFor(1));
  action->setError(Error::errorWithDomain_code_description("test", 1, "first"));
  action->setError(nullptr);  // keeps the first
  EXPECT_EQ(action->error()->code(), 1);
  action->reset();  // ignored while running
  EXPECT_TRUE(action->isRunning());
  action->complete();
  EXPECT_TRUE(action->isCompleted());
  EXPECT_EQ(action->error()->localizedDescription(), "first");

  action->reset();
  EXPECT_FALSE(action->isCompleted());
  EXPECT_EQ(action->error(), nullptr);
  action->start();
  ASSERT_TRUE(running->waitFor(2));
  action->complete();
  EXPECT_TRUE(action->isCompleted());
  action->restart();  // from completed: reset and start in one step
  ASSERT_TRUE(running->waitFor(3));
  EXPECT_EQ(running->count(), 3);
  action->updateWithBlock([](const Ref<Dictionary>& values) {
    values->setObject_forKey(Number::of(1), "x");
    values->setObject_forKey(Number::of(2), "y");
  });
  EXPECT_TRUE(action->objectForKey("y"_s)->isEqual(Number::of(2)));
}

// A result answers whatever is stored under "error"; only the action's own
// accessor treats the value as an error object.
TEST(OVProactor, ResultErrorIsTheStoredValueUnchecked) {
  auto action = OVProactorAction::init();
  action->setObject_forKey("not an error"_s, "error"_s);
  auto result = OVProactorResult::initWithAction(action);
  result->setObject_forKey("not an error"_s, "error"_s);
  EXPECT_TRUE(Object::isEqualObject_toObject(result->error(), "not an error"_s));
  EXPECT_EQ(action->error(), nullptr);
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
  auto results = Collected::make();
  group->defaultAction()->addCompletionHandler(Collected::into(results));
  ASSERT_TRUE(results->waitFor(1));
  EXPECT_EQ((*results)[0]->objectForKey("who"_s)->description(), "by delegate");
  EXPECT_EQ((*results)[0]->delegate(), delegate);

  // Without a delegate the work never starts; the action stays running.
  proactor->setDelegate(nullptr);
  auto orphan = group->actionForArgument("other"_s);
  orphan->start();
  EXPECT_TRUE(orphan->isRunning());
  EXPECT_EQ(delegate->calls, 1);
}

// The usual ownership: a controller (the delegate) owns its proactor. The
// actions' results must not keep the controller alive.
class OwningDelegate : public Object {
  FENNICK_DECLARE_CLASS(OwningDelegate, Object)
 public:
  ~OwningDelegate() override { destroyed->signal(); }
  void perform(const Ref<OVProactorAction>& action) { action->complete(); }
  std::shared_ptr<Latch> destroyed = std::make_shared<Latch>();
  Ref<OVProactor> proactor;

 protected:
  OwningDelegate() = default;
};
FENNICK_DEFINE_CLASS(OwningDelegate) { builder.method("performAction:", &OwningDelegate::perform); }

TEST(OVProactor, DelegateOwningItsProactorIsDestroyed) {
  auto delegate = make<OwningDelegate>();
  auto destroyed = delegate->destroyed;
  delegate->proactor = OVProactor::initWithDelegate(delegate);
  auto group = delegate->proactor->addGroupWithID_startsActionAutomatically_delegateHandlerSelector(
      "owned"_s, true, Selector::named("performAction:"));
  auto results = Collected::make();
  for (int i = 0; i < 2; ++i) group->actionForArgument(Number::of(i))->addCompletionHandler(Collected::into(results));
  ASSERT_TRUE(results->waitFor(2));
  ASSERT_TRUE(group->actionForArgument(Number::of(1))->isCompleted());
  group = nullptr;
  results = nullptr;  // the copies handed out may keep the delegate, as they should
  delegate = nullptr;
  EXPECT_TRUE(destroyed->waitFor(1));
}

// Every read of a proactor is synchronous on its queue and so must not be made
// from it; a known argument is no exception.
TEST(OVProactorDeathTest, ActionForArgumentFromTheQueueAbortsWhetherKnownOrNot) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto proactor = OVProactor::init();
  auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
      "g"_s, false, [](const Ref<OVProactorAction>&) {});
  auto known = group->actionForArgument("known"_s);
  EXPECT_DEATH(proactor->internalQueue()->sync([&] { group->actionForArgument("known"_s); }),
               "would wait forever");
  EXPECT_DEATH(proactor->internalQueue()->sync([&] { group->actionForArgument("new"_s); }),
               "would wait forever");
}

// Eight threads issue random operations on shared actions: no handler is called
// twice and every one receives a result of its own action. Afterwards each
// action still works: a start and a last handler end in a delivery.
TEST(OVProactor, RandomOperationsFromManyThreads) {
  auto proactor = OVProactor::init();
  auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
      "random"_s, false, [](const Ref<OVProactorAction>& action) {
        action->setObject_forKey(action->argument(), "argument"_s);
        action->complete();
      });
  std::vector<Ref<OVProactorAction>> actions;
  for (int i = 0; i < 4; ++i) actions.push_back(group->actionForArgument(Number::of(i)));
  struct Counters {
    std::atomic<int> wrongResult{0}, calledTwice{0};
  };
  auto counters = std::make_shared<Counters>();
  auto checked = [counters](const Ref<OVProactorAction>& action) {
    auto once = std::make_shared<std::atomic<bool>>(false);
    return [counters, once, action](const Ref<OVProactorResult>& result) {
      if (once->exchange(true)) ++counters->calledTwice;
      if (result->action() != action) ++counters->wrongResult;
    };
  };
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
          case 4: action->addCompletionHandler(checked(action)); break;
          default: action->addCompletionHook([](const Ref<OVProactorAction>& a) { a->complete(); });
        }
      }
    });
  for (auto& thread : threads) thread.join();

  // Started first: a handler added to an idle action joins it a turn later,
  // and a stale complete() of the stress may finish the run in between.
  auto last = Collected::make();
  for (auto& action : actions) {
    action->start();
    action->addCompletionHandler(Collected::into(last));
  }
  ASSERT_TRUE(last->waitFor(static_cast<int>(actions.size())));
  EXPECT_EQ(counters->calledTwice, 0);
  EXPECT_EQ(counters->wrongResult, 0);
}

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
