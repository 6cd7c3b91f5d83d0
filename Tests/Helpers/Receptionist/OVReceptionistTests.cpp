#include "Support/HelpersTestSupport.h"

#include "fennick/Dispatch/Main.h"
#include "fennick/Dispatch/Queue.h"
#include "fennick/Helpers/Receptionist/OVReceptionist.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

namespace fennick {
namespace {

using testing::eventually;

// An object with one observable value, safe to change from any thread.
class Gauge : public Object {
  FENNICK_DECLARE_CLASS(Gauge, Object)

 public:
  static Ref<Gauge> gauge(std::int64_t level = 0) {
    auto g = make<Gauge>();
    g->level_ = level;
    return g;
  }
  std::int64_t level() const { return level_.load(); }
  void setLevel(std::int64_t level) { level_.store(level); }
  Id label() const {
    std::lock_guard lock(mutex_);
    return label_;
  }
  void setLabel(Id label) {
    std::lock_guard lock(mutex_);
    label_ = std::move(label);
  }

 protected:
  Gauge() = default;

 private:
  std::atomic<std::int64_t> level_{0};
  mutable std::mutex mutex_;
  Id label_;
};

// Targets that answer different shapes of the level-change selector.
struct Calls {
  std::mutex mutex;
  std::vector<std::string> log;
  void add(std::string entry) {
    std::lock_guard lock(mutex);
    log.push_back(std::move(entry));
  }
  std::vector<std::string> all() {
    std::lock_guard lock(mutex);
    return log;
  }
};

class ShortTarget : public Object {
  FENNICK_DECLARE_CLASS(ShortTarget, Object)
 public:
  Calls calls;
  void didChangeLevel() { calls.add("bare"); }

 protected:
  ShortTarget() = default;
};

class FullTarget : public Object {
  FENNICK_DECLARE_CLASS(FullTarget, Object)
 public:
  Calls calls;
  void two(const Id&, const Id& value) { calls.add("two:" + value->description()); }
  void three(const Id&, const Id& value, const Id& old) {
    calls.add("three:" + value->description() + ":" + (old ? old->description() : "nil"));
  }
  void bare() { calls.add("bare"); }

 protected:
  FullTarget() = default;
};

class TwoArgumentTarget : public Object {
  FENNICK_DECLARE_CLASS(TwoArgumentTarget, Object)
 public:
  Calls calls;
  void two(const Id&, const Id& value) { calls.add("two:" + value->description()); }

 protected:
  TwoArgumentTarget() = default;
};

FENNICK_DEFINE_CLASS(Gauge) {
  builder.observableProperty("level", &Gauge::level, &Gauge::setLevel);
  builder.observableProperty("label", &Gauge::label, &Gauge::setLabel);
}
// A parent whose getter takes a lock of its own, with a hook that can hold
// a reader inside the getter before it takes that lock.
class LockedParent : public Object {
  FENNICK_DECLARE_CLASS(LockedParent, Object)

 public:
  static Ref<LockedParent> parent() {
    auto parent = make<LockedParent>();
    parent->child_ = Gauge::gauge();
    return parent;
  }
  Id child() const {
    if (beforeRead) beforeRead();
    // Polled rather than timed: a timed lock escapes ThreadSanitizer's view.
    std::unique_lock lock(readLock, std::defer_lock);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!lock.try_lock()) {
      if (std::chrono::steady_clock::now() > deadline) {
        timedOut = true;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return child_;
  }
  std::function<void()> beforeRead;
  mutable std::mutex readLock;
  mutable std::atomic<bool> timedOut{false};

 protected:
  LockedParent() = default;

 private:
  Ref<Gauge> child_;
};

FENNICK_DEFINE_CLASS(LockedParent) { builder.property("child", &LockedParent::child); }
FENNICK_DEFINE_CLASS(ShortTarget) { builder.method("didChangeLevel", &ShortTarget::didChangeLevel); }
FENNICK_DEFINE_CLASS(FullTarget) {
  builder.method("didChangeLevelOfObject:newValue:", &FullTarget::two);
  builder.method("didChangeLevelOfObject:newValue:oldValue:", &FullTarget::three);
  builder.method("didChangeLevel", &FullTarget::bare);
}
FENNICK_DEFINE_CLASS(TwoArgumentTarget) {
  builder.method("didChangeLevelOfObject:newValue:", &TwoArgumentTarget::two);
}

TEST(OVReceptionist, WithoutQueuesDeliversOnTheChangingThread) {
  auto receptionist = OVReceptionist::init();
  auto gauge = Gauge::gauge(1);
  std::thread::id deliveredOn;
  std::vector<std::string> seen;
  receptionist->startObservationOfObject_forKeyPath_changeBlock(
      gauge, "level", [&](const Id& object, const std::string& keyPath, const Id& value, const Id& old) {
        deliveredOn = std::this_thread::get_id();
        EXPECT_EQ(object, gauge);
        seen.push_back(keyPath + "=" + value->description() + " was " + old->description());
      });
  std::thread([&] { gauge->setValueForKey(Number::of(2), "level"); }).join();
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0], "level=2 was 1");
  EXPECT_NE(deliveredOn, std::this_thread::get_id());
}

TEST(OVReceptionist, SameObjectAndKeyPathTwiceRegistersOnceAndDeliversTwice) {
  auto receptionist = OVReceptionist::init();
  auto gauge = Gauge::gauge();
  int calls = 0;
  for (int i = 0; i < 2; ++i)
    receptionist->startObservationOfObject_forKeyPath_changeBlock(
        gauge, "level", [&](const Id&, const std::string&, const Id&, const Id&) { ++calls; });
  EXPECT_EQ(gauge->observationCountForKeyPath("level"), 1u);
  gauge->setValueForKey(Number::of(5), "level");
  EXPECT_EQ(calls, 2);

  // One stop removes both subscriptions; the handling record stays listed.
  receptionist->stopObservationOfObject_forKeyPath(gauge, "level");
  gauge->setValueForKey(Number::of(6), "level");
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(gauge->observationCountForKeyPath("level"), 0u);
  EXPECT_EQ(receptionist->handlingInfosByHolder()->count(), 1u);
}

TEST(OVReceptionist, InitialInvocationCarriesTheCurrentValueAndNoOldValue) {
  auto receptionist = OVReceptionist::init();
  auto gauge = Gauge::gauge();
  std::vector<std::pair<Id, Id>> calls;
  receptionist->startObservationOfObject_forKeyPath_wantsInitialInvocation_changeBlock(
      gauge, "label", true,
      [&](const Id&, const std::string&, const Id& value, const Id& old) { calls.emplace_back(value, old); });
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].first, nullptr);  // the null marker arrives as nil
  EXPECT_EQ(calls[0].second, nullptr);

  auto request = OVReceptionistStartSubscriptionRequest::request();
  request->setObjectsInfo(gauge);
  request->setKeyPathesInfo("level"_s);
  request->setOptions(NSKeyValueObservingOptionInitial);
  Ref<OVReceptionistChangeInfo> first;
  request->setChangeBlock([&](const Ref<OVReceptionistChangeInfo>& info) { first = info; });
  receptionist->performRequest(request);
  ASSERT_TRUE(first);
  EXPECT_TRUE(first->isInitial());
  EXPECT_TRUE(first->changeDictionary()->objectForKey(NSKeyValueChangeKindKey)->isEqual(Number::of(1)));
  EXPECT_TRUE(first->newValue()->isEqual(Number::of(0)));
  EXPECT_EQ(first->changeDictionary()->objectForKey(NSKeyValueChangeOldKey), nullptr);
}

TEST(OVReceptionist, TypedBlocksGetTheirClassesAndNilForAnyOther) {
  auto receptionist = OVReceptionist::init();
  auto gauge = Gauge::gauge(3);
  std::vector<std::string> levels;
  receptionist->startObservationOfObject_forKeyPath_wantsInitialInvocation_changeBlock(
      gauge, "level", true,
      [&](const Ref<Gauge>& object, const std::string&, const Ref<Number>& now, const Ref<Number>& before) {
        EXPECT_EQ(object, gauge);
        levels.push_back(std::to_string(now->integerValue()) +
                         (before ? "<" + std::to_string(before->integerValue()) : ""));
      });
  gauge->setValueForKey(Number::of(4), "level");
  EXPECT_EQ(levels, (std::vector<std::string>{"3", "4<3"}));

  // A label that is a number where a string is expected arrives as nil; an
  // untyped old value comes through unconverted.
  std::vector<std::pair<Ref<String>, Id>> labels;
  receptionist->startObservationOfObject_forKeyPath_changeBlock(
      gauge, "label", [&](const Id&, const std::string&, Ref<String> now, const Id& before) {
        labels.emplace_back(std::move(now), before);
      });
  gauge->setValueForKey("north"_s, "label");
  gauge->setValueForKey(Number::of(7), "label");
  ASSERT_EQ(labels.size(), 2u);
  EXPECT_TRUE(labels[0].first->isEqual("north"_s));
  EXPECT_EQ(labels[1].first, nullptr);
  EXPECT_TRUE(labels[1].second->isEqual("north"_s));
}

TEST(OVReceptionist, PriorNotificationsReachOnlyPriorSubscribersInReverseOrder) {
  auto receptionist = OVReceptionist::init();
  auto gauge = Gauge::gauge();
  std::vector<std::string> order;
  auto subscribe = [&](std::string name, std::uint64_t options) {
    auto request = OVReceptionistStartSubscriptionRequest::request();
    request->setObjectsInfo(gauge);
    request->setKeyPathesInfo("level"_s);
    request->setOptions(options);
    request->setChangeBlock([&order, name](const Ref<OVReceptionistChangeInfo>& info) {
      const bool prior = info->changeDictionary()->objectForKey(NSKeyValueChangeNotificationIsPriorKey) != nullptr;
      order.push_back(name + (prior ? "-prior" : ""));
    });
    receptionist->performRequest(request);
  };
  subscribe("a", NSKeyValueObservingOptionPrior);
  subscribe("b", 0);
  subscribe("c", NSKeyValueObservingOptionPrior);
  gauge->setValueForKey(Number::of(1), "level");
  EXPECT_EQ(order, (std::vector<std::string>{"c-prior", "a-prior", "a", "b", "c"}));
}

TEST(OVReceptionist, TargetActionPicksTheLongestFormTheTargetAnswers) {
  auto receptionist = OVReceptionist::init();
  auto gauge = Gauge::gauge(7);
  auto full = make<FullTarget>();
  auto two = make<TwoArgumentTarget>();
  auto bare = make<ShortTarget>();
  for (const Id& target : {Id(full), Id(two), Id(bare)})
    receptionist->startObservationOfObject_forKeyPath_target_action(gauge, "level", target, Selector());
  // Every target/action subscription gets one call at once, with no old value.
  EXPECT_EQ(full->calls.all(), (std::vector<std::string>{"three:7:nil"}));
  EXPECT_EQ(two->calls.all(), (std::vector<std::string>{"two:7"}));
  EXPECT_EQ(bare->calls.all(), (std::vector<std::string>{"bare"}));
  gauge->setValueForKey(Number::of(8), "level");
  EXPECT_EQ(full->calls.all().back(), "three:8:7");
  EXPECT_EQ(two->calls.all().back(), "two:8");
  EXPECT_EQ(bare->calls.all().size(), 2u);

  // A target that answers no form is not subscribed at all.
  receptionist->startObservationOfObject_forKeyPath_target_action(gauge, "label", Gauge::gauge(), Selector());
  gauge->setValueForKey("x"_s, "label");
  EXPECT_EQ(gauge->observationCountForKeyPath("label"), 0u);
}

TEST(OVReceptionist, RequestsExpandOverObjectsAndKeyPaths) {
  auto receptionist = OVReceptionist::init();
  auto first = Gauge::gauge(), second = Gauge::gauge();
  std::atomic<int> calls{0};
  auto request = OVReceptionistStartSubscriptionRequest::request();
  request->setObjectsInfo(Array::arrayWithObjects({first, second}));
  request->setKeyPathesInfo(Array::arrayWithObjects({"level"_s, "label"_s}));
  request->setChangeBlock([&](const Ref<OVReceptionistChangeInfo>&) { ++calls; });
  receptionist->performRequest(request);
  first->setValueForKey(Number::of(1), "level");
  second->setValueForKey("y"_s, "label");
  EXPECT_EQ(calls, 2);
  receptionist->stopAllObservationOfObject(first);
  first->setValueForKey(Number::of(2), "level");
  second->setValueForKey(Number::of(2), "level");
  EXPECT_EQ(calls, 3);
  receptionist->stopAllObservations();
  second->setValueForKey(Number::of(3), "level");
  EXPECT_EQ(calls, 3);
  EXPECT_EQ(second->observationCountForKeyPath("level"), 0u);
}

TEST(OVReceptionist, ConcurrentQueueDeliversThereAndStopsFollowStartsInOrder) {
  auto external = dispatch::Queue::createConcurrent("test.external");
  auto receptionist = OVReceptionist::initWithConcurrentQueue(external);
  ASSERT_TRUE(receptionist->internalQueue());
  EXPECT_EQ(receptionist->internalQueue()->label(),
            "com.orvane." + receptionist->description() + " internal queue");
  EXPECT_EQ(receptionist->internalQueue()->target(), external);

  auto gauge = Gauge::gauge();
  // Shared with the deliveries, which run on the external queue.
  auto calls = std::make_shared<std::atomic<int>>(0);
  auto onExternal = std::make_shared<std::atomic<bool>>(true);
  receptionist->startObservationOfObject_forKeyPath_changeBlock(
      gauge, "level", [external, calls, onExternal](const Id&, const std::string&, const Id&, const Id&) {
        if (!external->isCurrent()) *onExternal = false;
        ++*calls;
      });
  receptionist->internalQueue()->sync([] {});  // the start has been processed
  gauge->setValueForKey(Number::of(1), "level");
  ASSERT_TRUE(eventually([&] { return *calls == 1; }));
  EXPECT_TRUE(*onExternal);

  receptionist->stopObservationOfObject_forKeyPath(gauge, "level");
  receptionist->internalQueue()->sync([] {});
  gauge->setValueForKey(Number::of(2), "level");
  receptionist->internalQueue()->sync([] {});
  EXPECT_EQ(*calls, 1);
}

// Receptionists go away while other threads keep changing what they observe:
// nothing crashes, and no registration stays behind on the observed objects.
TEST(OVReceptionist, DestroyedWhileChangesFlow) {
  std::vector<Ref<Gauge>> gauges;
  for (int i = 0; i < 4; ++i) gauges.push_back(Gauge::gauge());
  std::atomic<bool> stop{false};
  std::vector<std::thread> changers;
  for (int t = 0; t < 2; ++t)
    changers.emplace_back([&, t] {
      for (std::int64_t i = 0; !stop; ++i) gauges[(i + t) % gauges.size()]->setValueForKey(Number::of(i), "level");
    });
  auto external = dispatch::Queue::createConcurrent("test.churn");
  for (int round = 0; round < 50; ++round) {
    auto receptionist = round % 2 ? OVReceptionist::initWithConcurrentQueue(external)
                                  : OVReceptionist::initWithInternalQueue(
                                        dispatch::Queue::createSerial("test.owner"));
    for (auto& gauge : gauges)
      receptionist->startObservationOfObject_forKeyPath_changeBlock(
          gauge, "level", [](const Id&, const std::string&, const Id&, const Id&) {});
    receptionist->internalQueue()->sync([] {});
  }
  stop = true;
  for (auto& changer : changers) changer.join();
  for (auto& gauge : gauges) EXPECT_EQ(gauge->observationCountForKeyPath("level"), 0u);
}

// Registering reads getters (here the parent's, for a dotted path). One
// thread stands in the getter while the test holds the getter's lock and
// stops everything: that can only finish when registration holds no lock of
// the receptionist's.
TEST(OVReceptionist, RegistrationCallsGettersWithoutTheReceptionistsLock) {
  auto receptionist = OVReceptionist::init();
  auto parent = LockedParent::parent();
  auto inGetter = std::make_shared<testing::Latch>(), holding = std::make_shared<testing::Latch>();
  const auto main = std::this_thread::get_id();
  parent->beforeRead = [=] {
    if (std::this_thread::get_id() == main || inGetter->count()) return;
    inGetter->signal();
    holding->waitFor(1);
  };
  std::thread starter([&] {
    receptionist->startObservationOfObject_forKeyPath_changeBlock(
        parent, "child.level", [](const Id&, const std::string&, const Id&, const Id&) {});
  });
  EXPECT_TRUE(inGetter->waitFor(1));
  {
    std::lock_guard lock(parent->readLock);
    holding->signal();
    receptionist->stopAllObservations();
  }
  starter.join();
  EXPECT_FALSE(parent->timedOut);
  EXPECT_EQ(parent->observationCountForKeyPath("child.level"), 0u);
}

// An observed object dies without a stop and a new one takes its address:
// the new one gets a record of its own, is observed, and stops cleanly.
TEST(OVReceptionist, ANewObjectAtADeadObjectsAddressIsObservedAfresh) {
  // Owned apart from its control block (as an adopted pointer is), an
  // object's memory is freed while weak references to it remain.
  auto adopted = [] { return Ref<Gauge>(new detail::Instance<Gauge>()); };
  auto receptionist = OVReceptionist::init();
  const Object* deadAddress = nullptr;
  {
    auto gauge = adopted();
    receptionist->startObservationOfObject_forKeyPath_changeBlock(
        gauge, "level", [](const Id&, const std::string&, const Id&, const Id&) {});
    deadAddress = gauge.get();
  }
  Ref<Gauge> reborn;
  for (int i = 0; i < 100000 && !reborn; ++i)
    if (auto gauge = adopted(); gauge.get() == deadAddress) reborn = gauge;
  if (!reborn) GTEST_SKIP() << "this allocator (a quarantining one) does not hand out a freed address again soon";
  int calls = 0;
  receptionist->startObservationOfObject_forKeyPath_changeBlock(
      reborn, "level", [&](const Id&, const std::string&, const Id&, const Id&) { ++calls; });
  reborn->setValueForKey(Number::of(1), "level");
  EXPECT_EQ(calls, 1);
  receptionist->stopObservationOfObject_forKeyPath(reborn, "level");
  EXPECT_EQ(reborn->observationCountForKeyPath("level"), 0u);
}

// The first subscriber stops everything while the change is being fanned
// out: the second, whose delivery was already under way, is not called.
TEST(OVReceptionist, NoDeliveryAfterAStopHasReturned) {
  for (bool queued : {false, true}) {
    SCOPED_TRACE(queued ? "delivered on a queue" : "delivered inline");
    auto external = dispatch::Queue::createSerial("test.deliveries");
    auto receptionist = queued ? OVReceptionist::initWithConcurrentQueue(external) : OVReceptionist::init();
    auto gauge = Gauge::gauge();
    auto laterCalls = std::make_shared<std::atomic<int>>(0);
    OVReceptionist* raw = receptionist.get();
    receptionist->startObservationOfObject_forKeyPath_changeBlock(
        gauge, "level", [raw](const Id&, const std::string&, const Id&, const Id&) { raw->stopAllObservations(); });
    receptionist->startObservationOfObject_forKeyPath_changeBlock(
        gauge, "level", [laterCalls](const Id&, const std::string&, const Id&, const Id&) { ++*laterCalls; });
    if (queued) receptionist->internalQueue()->sync([] {});
    gauge->setValueForKey(Number::of(1), "level");
    if (queued) {
      receptionist->internalQueue()->sync([] {});
      external->sync([] {});
    }
    EXPECT_EQ(*laterCalls, 0);
  }
}

// gtest runs tests on the main thread: waiting there must serve a
// receptionist whose internal queue is the main queue, and simply wait for
// one whose queue is not.
TEST(OVReceptionist, WaitingForPendingRequestsFromTheMainThread) {
  for (auto queue : {dispatch::mainQueue(), dispatch::Queue::createSerial("test.owner")}) {
    auto receptionist = OVReceptionist::initWithInternalQueue(queue);
    auto gauge = Gauge::gauge();
    receptionist->startObservationOfObject_forKeyPath_changeBlock(
        gauge, "level", [](const Id&, const std::string&, const Id&, const Id&) {});
    receptionist->waitForPendingRequests();
    EXPECT_EQ(gauge->observationCountForKeyPath("level"), 1u);
    receptionist->stopObservationOfObject_forKeyPath(gauge, "level");
    receptionist->waitForPendingRequests();
    EXPECT_EQ(gauge->observationCountForKeyPath("level"), 0u);
  }
}

// From a block of its own internal queue, everything before has run: the wait
// returns at once, also when that queue drains on the main thread (where
// waiting would serve a main queue whose serial queue cannot run again).
TEST(OVReceptionist, WaitingForPendingRequestsOnTheInternalQueueReturnsAtOnce) {
  auto owner = dispatch::Queue::createSerial("test.owner.main", QOS_CLASS_UNSPECIFIED, dispatch::mainQueue());
  auto receptionist = OVReceptionist::initWithInternalQueue(owner);
  auto returned = std::make_shared<std::atomic<bool>>(false);
  owner->async([receptionist, returned] {
    receptionist->waitForPendingRequests();
    returned->store(true);
  });
  EXPECT_TRUE(dispatch::runMainQueueUntil([&] { return returned->load(); }, std::chrono::seconds(20)));
}

}  // namespace
}  // namespace fennick
