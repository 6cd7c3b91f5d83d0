#include "TestObjects.h"

#include "fennick/Runtime/Array.h"
#include "fennick/Runtime/Null.h"
#include "fennick/Runtime/Number.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

namespace fennick {
namespace {

using testing::Person;
using testing::Recorder;

constexpr std::uint64_t kNewOld = NSKeyValueObservingOptionNew | NSKeyValueObservingOptionOld;

std::string text(const Id& value) { return value ? value->description() : "nil"; }

TEST(KeyValueObserving, DeliversNewAndOldValuesSynchronously) {
  auto ada = Person::person("Ada");
  auto recorder = Recorder::recorder();
  int context = 0;
  ada->addObserver_forKeyPath_options_context(recorder, "firstName", kNewOld, &context);
  ada->setValueForKey("Augusta"_s, "firstName");
  ASSERT_EQ(recorder->count(), 1u);
  const auto change = recorder->changes()[0];
  EXPECT_EQ(change.keyPath, "firstName");
  EXPECT_EQ(change.object, ada);
  EXPECT_EQ(change.context, &context);
  EXPECT_TRUE(change.change->objectForKey(NSKeyValueChangeKindKey)->isEqual(Number::of(1)));
  EXPECT_EQ(text(change.change->objectForKey(NSKeyValueChangeNewKey)), "Augusta");
  EXPECT_EQ(text(change.change->objectForKey(NSKeyValueChangeOldKey)), "Ada");

  ada->setValueForKey(nullptr, "firstName");  // nil travels as the null marker
  EXPECT_EQ(recorder->changes()[1].change->objectForKey(NSKeyValueChangeNewKey), Null::null());
  ada->removeObserver_forKeyPath(recorder.get(), "firstName");
  ada->setValueForKey("Ada"_s, "firstName");
  EXPECT_EQ(recorder->count(), 2u);
  EXPECT_THROW(ada->removeObserver_forKeyPath(recorder.get(), "firstName"), Exception);
}

TEST(KeyValueObserving, InitialAndPriorNotifications) {
  auto ada = Person::person("Ada");
  auto recorder = Recorder::recorder();
  ada->addObserver_forKeyPath_options_context(
      recorder, "firstName",
      kNewOld | NSKeyValueObservingOptionInitial | NSKeyValueObservingOptionPrior, nullptr);
  ASSERT_EQ(recorder->count(), 1u);
  auto initial = recorder->changes()[0].change;
  EXPECT_EQ(text(initial->objectForKey(NSKeyValueChangeNewKey)), "Ada");
  EXPECT_EQ(initial->objectForKey(NSKeyValueChangeOldKey), nullptr);

  ada->setValueForKey("Augusta"_s, "firstName");
  ASSERT_EQ(recorder->count(), 3u);
  auto prior = recorder->changes()[1].change;
  EXPECT_TRUE(prior->objectForKey(NSKeyValueChangeNotificationIsPriorKey)->isEqual(Number::of(true)));
  EXPECT_EQ(text(prior->objectForKey(NSKeyValueChangeOldKey)), "Ada");
  EXPECT_EQ(prior->objectForKey(NSKeyValueChangeNewKey), nullptr);
  auto after = recorder->changes()[2].change;
  EXPECT_EQ(after->objectForKey(NSKeyValueChangeNotificationIsPriorKey), nullptr);
  EXPECT_EQ(text(after->objectForKey(NSKeyValueChangeNewKey)), "Augusta");
  ada->removeObserver_forKeyPath(recorder.get(), "firstName");
}

TEST(KeyValueObserving, DottedPathsFollowReplacedIntermediateObjects) {
  auto ada = Person::person("Ada");
  auto charles = Person::person("Charles");
  auto william = Person::person("William");
  ada->setPartner(charles);
  auto recorder = Recorder::recorder();
  ada->addObserver_forKeyPath_options_context(recorder, "partner.firstName", kNewOld, nullptr);

  charles->setValueForKey("Chas"_s, "firstName");
  ASSERT_EQ(recorder->count(), 1u);
  EXPECT_EQ(recorder->changes()[0].object, ada);
  EXPECT_EQ(recorder->changes()[0].keyPath, "partner.firstName");
  EXPECT_EQ(text(recorder->changes()[0].change->objectForKey(NSKeyValueChangeOldKey)), "Charles");

  ada->setValueForKey(william, "partner");
  ASSERT_EQ(recorder->count(), 2u);
  EXPECT_EQ(text(recorder->changes()[1].change->objectForKey(NSKeyValueChangeNewKey)), "William");

  charles->setValueForKey("ignored"_s, "firstName");  // no longer on the path
  EXPECT_EQ(recorder->count(), 2u);
  william->setValueForKey("Bill"_s, "firstName");
  EXPECT_EQ(recorder->count(), 3u);
  EXPECT_EQ(charles->observationCountForKeyPath("firstName"), 0u);

  ada->setValueForKey(nullptr, "partner");
  EXPECT_EQ(recorder->changes()[3].change->objectForKey(NSKeyValueChangeNewKey), Null::null());
  ada->removeObserver_forKeyPath(recorder.get(), "partner.firstName");
  william->setValueForKey("Will"_s, "firstName");
  EXPECT_EQ(recorder->count(), 4u);
}

TEST(KeyValueObserving, DependentKeysNotifyForTheKeysTheyDependOn) {
  auto ada = Person::person("Ada", "Byron");
  auto recorder = Recorder::recorder();
  ada->addObserver_forKeyPath_options_context(recorder, "fullName", kNewOld, nullptr);
  ada->setValueForKey("Lovelace"_s, "lastName");
  ASSERT_EQ(recorder->count(), 1u);
  EXPECT_EQ(text(recorder->changes()[0].change->objectForKey(NSKeyValueChangeOldKey)), "Ada Byron");
  EXPECT_EQ(text(recorder->changes()[0].change->objectForKey(NSKeyValueChangeNewKey)), "Ada Lovelace");
  ada->setValueForKey(Number::of(5), "age");  // unrelated
  EXPECT_EQ(recorder->count(), 1u);
  ada->removeObserver_forKeyPath(recorder.get(), "fullName");
}

TEST(KeyValueObserving, NestedChangesOfSeveralKeysKeepTheirOwnOldValues) {
  auto ada = Person::person("Ada", "Byron");
  auto recorder = Recorder::recorder();
  ada->addObserver_forKeyPath_options_context(recorder, "firstName", kNewOld, nullptr);
  ada->addObserver_forKeyPath_options_context(recorder, "lastName", kNewOld, nullptr);
  auto keys = Array::arrayWithObjects({"firstName"_s, "lastName"_s});
  ada->changeValuesForKeys_withBlock(keys, [&] {
    ada->setFirstName("Augusta"_s);
    ada->setLastName("King"_s);
  });
  const auto changes = recorder->changes();
  ASSERT_EQ(changes.size(), 2u);
  EXPECT_EQ(changes[0].keyPath, "lastName");  // dids run last to first
  EXPECT_EQ(text(changes[0].change->objectForKey(NSKeyValueChangeOldKey)), "Byron");
  EXPECT_EQ(text(changes[1].change->objectForKey(NSKeyValueChangeOldKey)), "Ada");
  EXPECT_EQ(text(changes[1].change->objectForKey(NSKeyValueChangeNewKey)), "Augusta");
}

TEST(KeyValueObserving, SameObserverTwiceAndRemovalFromInsideTheCallback) {
  auto ada = Person::person("Ada");
  auto recorder = Recorder::recorder();
  ada->addObserver_forKeyPath_options_context(recorder, "age", kNewOld, nullptr);
  ada->addObserver_forKeyPath_options_context(recorder, "age", kNewOld, nullptr);
  EXPECT_EQ(ada->observationCountForKeyPath("age"), 2u);
  ada->setValueForKey(Number::of(1), "age");
  EXPECT_EQ(recorder->count(), 2u);

  recorder->onChange = [&](const Recorder::Change&) {
    ada->removeObserver_forKeyPath(recorder.get(), "age");
  };
  ada->setValueForKey(Number::of(2), "age");
  // The first callback removed the newer registration, which then no longer
  // receives the change that was being delivered.
  EXPECT_EQ(recorder->count(), 3u);
  EXPECT_EQ(ada->observationCountForKeyPath("age"), 1u);
  ada->setValueForKey(Number::of(3), "age");
  EXPECT_EQ(recorder->count(), 4u);
  EXPECT_EQ(ada->observationCountForKeyPath("age"), 0u);
  ada->setValueForKey(Number::of(4), "age");
  EXPECT_EQ(recorder->count(), 4u);
}

TEST(KeyValueObserving, ObserversAreNotKeptAlive) {
  auto ada = Person::person("Ada");
  std::weak_ptr<Recorder> weak;
  {
    auto recorder = Recorder::recorder();
    weak = recorder;
    ada->addObserver_forKeyPath_options_context(recorder, "age", kNewOld, nullptr);
  }
  EXPECT_TRUE(weak.expired());
  ada->setValueForKey(Number::of(4), "age");  // the dead observer is skipped
}

TEST(KeyValueObserving, DyingObservedObjectsReleaseTheirPathLinks) {
  auto charles = Person::person("Charles");
  auto recorder = Recorder::recorder();
  {
    auto ada = Person::person("Ada");
    ada->setPartner(charles);
    ada->addObserver_forKeyPath_options_context(recorder, "partner.firstName", kNewOld, nullptr);
  }
  charles->setValueForKey("Chas"_s, "firstName");
  EXPECT_EQ(recorder->count(), 0u);
}

// Several threads change observed properties while others add and remove
// observers. Each registration sees only its own object's changes.
TEST(KeyValueObserving, ChangesAndRegistrationsFromManyThreads) {
  constexpr int kObjects = 4;
  std::vector<Ref<Person>> people;
  for (int i = 0; i < kObjects; ++i) {
    people.push_back(Person::person("p" + std::to_string(i)));
    people.back()->setPartner(Person::person("q"));
  }
  auto steady = Recorder::recorder();
  for (auto& person : people)
    person->addObserver_forKeyPath_options_context(steady, "age", kNewOld, nullptr);

  std::atomic<bool> stop{false};
  std::atomic<int> changes{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(t));
      for (int i = 0; i < 2000; ++i) {
        auto& person = people[random() % kObjects];
        if (i % 3 == 0) person->setValueForKey(Person::person("r"), "partner");
        else person->setValueForKey(Number::of(i), "age");
        ++changes;
      }
    });
  for (int t = 0; t < 3; ++t)
    threads.emplace_back([&, t] {
      std::mt19937 random(static_cast<unsigned>(100 + t));
      while (!stop) {
        auto recorder = Recorder::recorder();
        auto& person = people[random() % kObjects];
        person->addObserver_forKeyPath_options_context(recorder, "partner.firstName", kNewOld, nullptr);
        person->addObserver_forKeyPath_options_context(recorder, "age", NSKeyValueObservingOptionPrior, nullptr);
        std::this_thread::yield();
        person->removeObserver_forKeyPath(recorder.get(), "age");
        person->removeObserver_forKeyPath(recorder.get(), "partner.firstName");
        for (const auto& change : recorder->changes()) ASSERT_EQ(change.object, person);
      }
    });
  for (int t = 0; t < 3; ++t) threads[t].join();
  stop = true;
  for (std::size_t t = 3; t < threads.size(); ++t) threads[t].join();

  // Every age change reached the steady observer exactly once.
  const int ageChanges = 3 * 2000 - 3 * 667;
  EXPECT_EQ(steady->count(), static_cast<std::size_t>(ageChanges));
  for (auto& person : people) {
    person->removeObserver_forKeyPath(steady.get(), "age");
    EXPECT_EQ(person->observationCountForKeyPath("age"), 0u);
  }
}

}  // namespace
}  // namespace fennick
