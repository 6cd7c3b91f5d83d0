#include "Support/HelpersTestSupport.h"

#include "fennick/Dispatch/Queue.h"
#include "fennick/Helpers/Coordination/OVCancellation.h"
#include "fennick/Helpers/Coordination/OVCancellationGroup.h"
#include "fennick/Helpers/Receptionist/OVReceptionist.h"
#include "fennick/Runtime/Values/Number.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

namespace fennick {
namespace {

using testing::eventually;
using testing::Latch;

// Waits until a handler added now has run. Added after a cancel, it is
// submitted to the utility queue after anything that cancel submitted, and
// starts after it: a duplicate run of earlier handlers has shown by then.
void waitForLaterHandlers(OVCancellation& cancellation) {
  auto ran = std::make_shared<Latch>();
  cancellation.addCancellationHandler([ran] { ran->signal(); });
  ASSERT_TRUE(ran->waitFor(1));
}

TEST(OVCancellationToken, HandlersRunOnceInOrderOnTheUtilityQueue) {
  auto token = OVCancellationToken::init();
  EXPECT_EQ(token->internalQueue()->label(), "com.orvane.cancellation-token-internal.internal-queue");
  // Handlers share their state with the test, which may end before they run.
  struct Seen {
    std::mutex mutex;
    std::vector<char> order;
    std::atomic<bool> offCaller{true};
  };
  auto seen = std::make_shared<Seen>();
  const auto caller = std::this_thread::get_id();
  for (char name : {'a', 'b', 'c'})
    token->addCancellationHandler([seen, caller, name] {
      if (std::this_thread::get_id() == caller) seen->offCaller = false;
      std::lock_guard lock(seen->mutex);
      seen->order.push_back(name);
    });
  EXPECT_FALSE(token->isCancelled());
  token->cancel();
  token->cancel();
  EXPECT_TRUE(token->isCancelled());
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(seen->mutex);
    return seen->order.size() == 3;
  }));
  waitForLaterHandlers(*token);
  std::lock_guard lock(seen->mutex);
  EXPECT_EQ(seen->order, (std::vector<char>{'a', 'b', 'c'}));
  EXPECT_TRUE(seen->offCaller);
}

TEST(OVCancellationToken, LateHandlersRunAloneAndMayCallBack) {
  auto token = OVCancellationToken::init();
  token->cancel();
  auto ran = std::make_shared<Latch>();
  auto stillCancelled = std::make_shared<std::atomic<bool>>(false);
  token->addCancellationHandler([token, ran, stillCancelled] {
    *stillCancelled = token->isCancelled();
    // Re-entry from a handler is fine, and handlers may be move-only.
    token->addCancellationHandler([ran, owned = std::make_unique<int>(7)] {
      if (*owned == 7) ran->signal();
    });
    ran->signal();
  });
  EXPECT_TRUE(ran->waitFor(2));
  EXPECT_TRUE(*stillCancelled);
}

TEST(OVCancellationToken, ManyThreadsCancellingWhileHandlersAreAdded) {
  for (int round = 0; round < 20; ++round) {
    auto token = OVCancellationToken::init();
    auto runs = std::make_shared<std::atomic<int>>(0);
    constexpr int kAdders = 4, kPerAdder = 25;
    std::vector<std::thread> threads;
    for (int t = 0; t < kAdders; ++t)
      threads.emplace_back([&] {
        for (int i = 0; i < kPerAdder; ++i) token->addCancellationHandler([runs] { ++*runs; });
      });
    for (int t = 0; t < 3; ++t) threads.emplace_back([&] { token->cancel(); });
    for (auto& thread : threads) thread.join();
    ASSERT_TRUE(eventually([&] { return *runs == kAdders * kPerAdder; }));
  }
}

TEST(OVCancellationGroup, AnyPolicyCancelsWithTheFirstChild) {
  auto group = OVCancellationGroup::initWithPolicy(OVCancellationGroupPolicyAny);
  EXPECT_EQ(group->internalQueue()->label(), "com.orvane.cancellation-group-internal.internal-queue");
  auto a = OVCancellationToken::init(), b = OVCancellationToken::init();
  auto handlers = std::make_shared<Latch>();
  group->addCancellationHandler([handlers] { handlers->signal(); });
  group->addChild(a);
  group->addChild(b);
  a->cancel();
  ASSERT_TRUE(eventually([&] { return group->isCancelled() && b->isCancelled(); }));
  EXPECT_TRUE(handlers->waitFor(1));
  group->cancel();
  waitForLaterHandlers(*group);
  EXPECT_EQ(handlers->count(), 1);
}

TEST(OVCancellationGroup, AllPolicyWaitsForEveryChild) {
  auto group = OVCancellationGroup::initWithPolicy(OVCancellationGroupPolicyAll);
  auto a = OVCancellationToken::init(), b = OVCancellationToken::init();
  group->addChild(a);
  group->addChild(b);
  a->cancel();
  group->internalQueue()->sync([] {});  // let the receptionist deliver
  group->internalQueue()->sync([] {});
  EXPECT_FALSE(group->isCancelled());
  b->cancel();
  EXPECT_TRUE(eventually([&] { return group->isCancelled(); }));
}

TEST(OVCancellationGroup, CancelledChildrenAndCancelledGroups) {
  // One cancelled child and none left: the All policy cancels at once.
  auto all = OVCancellationGroup::initWithPolicy(OVCancellationGroupPolicyAll);
  auto cancelled = OVCancellationToken::init();
  cancelled->cancel();
  all->addChild(cancelled);
  EXPECT_TRUE(all->isCancelled());

  // A child added to a cancelled group is cancelled at once.
  auto fresh = OVCancellationToken::init();
  all->addChild(fresh);
  EXPECT_TRUE(fresh->isCancelled());

  waitForLaterHandlers(*all);
}

TEST(OVCancellationGroup, GroupsNestAndCancelTheirTrees) {
  auto root = OVCancellationGroup::initWithPolicy(OVCancellationGroupPolicyAny);
  auto middle = OVCancellationGroup::initWithPolicy(OVCancellationGroupPolicyAny);
  auto leaf = OVCancellationToken::init();
  root->addChild(middle);
  middle->addChild(leaf);
  leaf->cancel();  // climbs: leaf -> middle -> root
  EXPECT_TRUE(eventually([&] { return root->isCancelled(); }));

  auto other = OVCancellationGroup::initWithPolicy(OVCancellationGroupPolicyAny);
  auto child = OVCancellationGroup::initWithPolicy(OVCancellationGroupPolicyAll);
  auto token = OVCancellationToken::init();
  other->addChild(child);
  child->addChild(token);
  other->cancel();  // descends synchronously
  EXPECT_TRUE(child->isCancelled());
  EXPECT_TRUE(token->isCancelled());
}

// Ten levels deep and a hundred wide, cancelled from many threads at once:
// every group and token cancels once and every handler runs exactly once.
TEST(OVCancellationGroup, WideDeepTreesCancelledFromManyThreads) {
  constexpr int kDepth = 10, kWidth = 100;
  std::vector<Ref<OVCancellationGroup>> chain;
  std::vector<Ref<OVCancellationToken>> leaves;
  auto handlerRuns = std::make_shared<std::atomic<int>>(0);
  for (int level = 0; level < kDepth; ++level) {
    chain.push_back(OVCancellationGroup::initWithPolicy(level % 2 ? OVCancellationGroupPolicyAll
                                                                  : OVCancellationGroupPolicyAny));
    chain.back()->addCancellationHandler([handlerRuns] { ++*handlerRuns; });
    if (level) chain[level - 1]->addChild(chain.back());
  }
  for (int i = 0; i < kWidth; ++i) {
    leaves.push_back(OVCancellationToken::init());
    leaves.back()->addCancellationHandler([handlerRuns] { ++*handlerRuns; });
    chain[static_cast<std::size_t>(i % kDepth)]->addChild(leaves.back());
  }
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      chain[static_cast<std::size_t>(t * 3 % kDepth)]->cancel();
      leaves[static_cast<std::size_t>(t * 17 % kWidth)]->cancel();
    });
  for (auto& thread : threads) thread.join();
  chain.front()->cancel();
  ASSERT_TRUE(eventually([&] { return *handlerRuns == kDepth + kWidth; }));
  for (auto& group : chain) waitForLaterHandlers(*group);
  for (auto& leaf : leaves) waitForLaterHandlers(*leaf);
  EXPECT_EQ(*handlerRuns, kDepth + kWidth);
  for (auto& group : chain) EXPECT_TRUE(group->isCancelled());
  for (auto& leaf : leaves) EXPECT_TRUE(leaf->isCancelled());
}

// Observers of a group's and of its child's isCancelled are called while the
// group cancels. Each waits for another thread that adds a handler to the
// group, which needs the group's lock: that only works because the group
// calls out with its lock released.
TEST(OVCancellationGroup, ObserversCalledDuringACancelMayUseTheGroup) {
  auto group = OVCancellationGroup::initWithPolicy(OVCancellationGroupPolicyAny);
  auto child = OVCancellationToken::init();
  group->addChild(child);
  auto handlersAdded = std::make_shared<Latch>();
  std::vector<std::thread> helpers;
  auto useTheGroupElsewhere = [&](const Id&, const std::string&, const Id& value, const Id&) {
    if (!value || !value->isEqual(Number::numberWithBool(true).get())) return;
    helpers.emplace_back([group, handlersAdded] {
      group->addCancellationHandler([] {});
      handlersAdded->signal();
    });
    EXPECT_TRUE(handlersAdded->waitFor(static_cast<int>(helpers.size()), std::chrono::seconds(5)));
  };
  auto receptionist = OVReceptionist::init();  // delivers inline, on the cancelling thread
  receptionist->startObservationOfObject_forKeyPath_changeBlock(group, "isCancelled", useTheGroupElsewhere);
  receptionist->startObservationOfObject_forKeyPath_changeBlock(child, "isCancelled", useTheGroupElsewhere);
  group->cancel();
  EXPECT_TRUE(child->isCancelled());
  for (auto& helper : helpers) helper.join();
  EXPECT_EQ(helpers.size(), 2u);
}

}  // namespace
}  // namespace fennick
