#include "Support/HelpersTestSupport.h"
#include "Runtime/TestObjects.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <atomic>
#include <mutex>
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
    ada->removeObserver_forKeyPath(recorder, "age");
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

// A removal frees the nodes of a dotted path while other threads change the
// objects on it: nothing on the change path may follow a freed link.
TEST(KeyValueObserving, RemovalRacingWithChangesAlongADottedPath) {
  auto root = Person::person("root");
  root->setPartner(Person::person("middle"));
  root->partner()->setPartner(Person::person("leaf"));
  std::atomic<bool> stop{false};
  std::vector<std::thread> changers;
  for (int t = 0; t < 2; ++t)
    changers.emplace_back([&, t] {
      for (int i = t; !stop; ++i) {
        auto middle = root->partner();
        if (i % 64 == 0) {
          auto replacement = Person::person("middle");
          replacement->setPartner(Person::person("leaf"));
          root->setValueForKey(replacement, "partner");
        } else if (i % 8 == 0) {
          middle->setValueForKey(Person::person("leaf"), "partner");
        } else if (auto leaf = middle->partner()) {
          leaf->setValueForKey(String::string(std::to_string(i)), "firstName");
        }
      }
    });
  for (int i = 0; i < 20000; ++i) {
    auto recorder = Recorder::recorder();
    root->addObserver_forKeyPath_options_context(recorder, "partner.partner.firstName", kNewOld, nullptr);
    root->removeObserver_forKeyPath(recorder.get(), "partner.partner.firstName");
  }
  stop = true;
  for (auto& changer : changers) changer.join();
  EXPECT_EQ(root->observationCountForKeyPath("partner.partner.firstName"), 0u);
}

// Made on first read, and announced to observers as a change of "child":
// a getter that changes a value on the chain it is read for.
class LazyParent : public Object {
  FENNICK_DECLARE_CLASS(LazyParent, Object)

 public:
  static Ref<LazyParent> parent() { return make<LazyParent>(); }
  Ref<Person> child() const {
    if (!child_ && !making_) {
      making_ = true;
      const_cast<LazyParent*>(this)->setAndNotify("child", child_, Person::person("made"));
      making_ = false;
    }
    return child_;
  }

 protected:
  LazyParent() = default;

 private:
  mutable Ref<Person> child_;
  mutable bool making_ = false;
};
FENNICK_DEFINE_CLASS(LazyParent) { builder.property("child", &LazyParent::child); }

TEST(KeyValueObserving, GettersMayChangeTheChainTheyAreReadFor) {
  auto parent = LazyParent::parent();
  auto recorder = Recorder::recorder();
  parent->addObserver_forKeyPath_options_context(recorder, "child.firstName", kNewOld, nullptr);
  ASSERT_EQ(recorder->count(), 1u);  // the getter's own announcement
  EXPECT_EQ(text(recorder->changes()[0].change->objectForKey(NSKeyValueChangeNewKey)), "made");
  parent->child()->setValueForKey("renamed"_s, "firstName");  // the chain follows the made child
  ASSERT_EQ(recorder->count(), 2u);
  EXPECT_EQ(text(recorder->changes()[1].change->objectForKey(NSKeyValueChangeOldKey)), "made");
  parent->removeObserver_forKeyPath(recorder.get(), "child.firstName");
}

// A getter with a lock of its own. The test holds that lock while it
// removes the observation, on one thread, while a re-link on another thread
// reads the getter: the two locks are taken in opposite orders, which is
// safe only because observation never calls a getter under its own lock.
class GuardedParent : public Object {
  FENNICK_DECLARE_CLASS(GuardedParent, Object)

 public:
  static Ref<GuardedParent> parent() { return make<GuardedParent>(); }
  Ref<Person> child() const {
    if (beforeRead) beforeRead();
    std::lock_guard lock(readLock);
    std::lock_guard data(dataMutex_);
    return child_;
  }
  void setChild(Ref<Person> child) {
    std::lock_guard data(dataMutex_);
    child_ = std::move(child);
  }
  std::function<void()> beforeRead;
  mutable std::mutex readLock;

 protected:
  GuardedParent() = default;

 private:
  mutable std::mutex dataMutex_;
  Ref<Person> child_;
};
FENNICK_DEFINE_CLASS(GuardedParent) {
  builder.observableProperty("child", &GuardedParent::child, &GuardedParent::setChild);
}

TEST(KeyValueObserving, GettersTakingTheirOwnLocksDoNotDeadlock) {
  auto parent = GuardedParent::parent();
  parent->setChild(Person::person("first"));
  auto recorder = Recorder::recorder();
  parent->addObserver_forKeyPath_options_context(recorder, "child.age", NSKeyValueObservingOptionNew, nullptr);
  auto inGetter = std::make_shared<testing::Latch>(), holding = std::make_shared<testing::Latch>();
  const auto main = std::this_thread::get_id();
  parent->beforeRead = [=] {
    if (std::this_thread::get_id() == main || inGetter->count()) return;
    inGetter->signal();    // the replacing thread is re-linking the chain...
    holding->waitFor(1);  // ...and reads the getter once the test holds its lock
  };
  std::thread replacer([&] { parent->setValueForKey(Person::person("second"), "child"); });
  ASSERT_TRUE(inGetter->waitFor(1));
  {
    std::lock_guard lock(parent->readLock);
    holding->signal();
    parent->removeObserver_forKeyPath(recorder.get(), "child.age");
  }
  replacer.join();
  EXPECT_EQ(parent->observationCountForKeyPath("child.age"), 0u);
}

TEST(KeyValueObserving, AChangeThatThrowsLeavesNothingPending) {
  auto ada = Person::person("Ada");
  auto recorder = Recorder::recorder();
  ada->addObserver_forKeyPath_options_context(recorder, "age", kNewOld | NSKeyValueObservingOptionPrior, nullptr);
  EXPECT_THROW(ada->setValueForKey("old enough"_s, "age"), Exception);  // the setter cannot take text
  ASSERT_EQ(recorder->count(), 1u);  // only the prior notification went out
  ada->didChangeValueForKey("age");  // a did without its will: no old value to pick up
  ASSERT_EQ(recorder->count(), 2u);
  EXPECT_EQ(recorder->changes()[1].change->objectForKey(NSKeyValueChangeOldKey), nullptr);
  ada->removeObserver_forKeyPath(recorder.get(), "age");
  EXPECT_FALSE(ada->removeObserverIfRegistered_forKeyPath(recorder.get(), "age"));
}

class Note : public Object {
  FENNICK_DECLARE_CLASS(Note, Object)

 public:
  std::string title_;
  std::int64_t revision_ = 0;
};

FENNICK_DEFINE_CLASS(Note) {
  builder.observableProperty("title", &Note::title_);
  builder.observableProperty("revision", &Note::revision_);
}

TEST(KeyValueObserving, DataMemberPropertiesNotifyOncePerChange) {
  auto note = make<Note>();
  std::vector<std::string> seen;
  KeyValueObservation watch = note->addObserver_forKeyPath_options(
      "title", NSKeyValueObservingOptionNew,
      [&](const Ref<Dictionary>& change) { seen.push_back(text(change->objectForKey(NSKeyValueChangeNewKey))); });
  note->setValueForKey("Draft"_s, "title");
  note->setValueForKey(Number::of(3), "revision");
  EXPECT_EQ(note->title_, "Draft");
  EXPECT_EQ(note->revision_, 3);
  EXPECT_EQ(text(note->valueForKey("revision")), "3");
  EXPECT_EQ(seen, std::vector<std::string>{"Draft"});
}

class CountingGauge : public Object {
  FENNICK_DECLARE_CLASS(CountingGauge, Object)

 public:
  std::int64_t level() const {
    ++reads;
    return level_;
  }
  void setLevel(std::int64_t level) { level_ = level; }
  mutable int reads = 0;

 private:
  std::int64_t level_ = 0;
};
FENNICK_DEFINE_CLASS(CountingGauge) { builder.observableProperty("level", &CountingGauge::level, &CountingGauge::setLevel); }

// Observers of one key path read the value once per change and share one
// change dictionary, unless one of them changes the value again: those after
// it then end with the newest value, never with the one it replaced.
TEST(KeyValueObserving, ObserversOfOneKeyPathShareOneReadingUntilOneOfThemChangesTheValue) {
  auto gauge = make<CountingGauge>();
  constexpr int kObservers = 5;
  std::vector<const Dictionary*> received(kObservers);
  std::vector<std::int64_t> latest(kObservers, -1);
  std::vector<KeyValueObservation> watches;
  for (int i = 0; i < kObservers; ++i) {
    watches.push_back(gauge->addObserver_forKeyPath_options(
        "level", NSKeyValueObservingOptionNew | NSKeyValueObservingOptionOld, [&, i](const Ref<Dictionary>& change) {
          received[i] = change.get();
          latest[i] = Number::castObject(change->objectForKey(NSKeyValueChangeNewKey))->integerValue();
          // The middle observer puts the level up again when it hears 1.
          if (i == kObservers / 2 && latest[i] == 1) gauge->setValueForKey(Number::of(2), "level");
        }));
  }
  gauge->setValueForKey(Number::of(7), "level");
  EXPECT_EQ(gauge->reads, 2);  // the old value once, the new value once
  EXPECT_EQ(std::count(received.begin(), received.end(), received[0]), kObservers);

  gauge->setValueForKey(Number::of(1), "level");
  EXPECT_EQ(latest, std::vector<std::int64_t>(kObservers, 2));
}

// A setter that notifies by itself, declared both ways: as a plain property
// it is announced once; as an observable property it would be announced twice
// (once automatically), which stops the program at the first change. Setting
// the same key of another object from inside the setter is not that mistake.
class SelfNotifyingNote : public Object {
  FENNICK_DECLARE_CLASS(SelfNotifyingNote, Object)

 public:
  std::string title() const { return title_; }
  void setTitle(std::string title) {
    if (linked) linked->setValueForKey(String::string(title), "title");
    setAndNotify("title", title_, std::move(title));
  }
  std::string title_;
  Ref<Note> linked;
};
FENNICK_DEFINE_CLASS(SelfNotifyingNote) { builder.property("title", &SelfNotifyingNote::title, &SelfNotifyingNote::setTitle); }

class DoublyNotifyingNote : public SelfNotifyingNote {
  FENNICK_DECLARE_CLASS(DoublyNotifyingNote, SelfNotifyingNote)
};
FENNICK_DEFINE_CLASS(DoublyNotifyingNote) {
  builder.observableProperty("title", &DoublyNotifyingNote::title, &DoublyNotifyingNote::setTitle);
}

TEST(KeyValueObservingDeathTest, AnObservablePropertyWhoseSetterAlsoNotifiesStopsAtItsFirstChange) {
  auto note = make<SelfNotifyingNote>();
  note->linked = make<Note>();
  int heard = 0;
  KeyValueObservation watch =
      note->addObserver_forKeyPath_options("title", NSKeyValueObservingOptionNew, [&](const Ref<Dictionary>&) { ++heard; });
  note->setValueForKey("Draft"_s, "title");
  EXPECT_EQ(heard, 1);
  EXPECT_EQ(note->linked->title_, "Draft");

  auto doubly = make<DoublyNotifyingNote>();
  EXPECT_DEATH(doubly->setValueForKey("Draft"_s, "title"),
               "setter of DoublyNotifyingNote's observable property \"title\" notifies observers itself");
}

TEST(KeyValueObserving, CallableObservationLastsAsLongAsItsHandle) {
  auto ada = Person::person("Ada");
  std::vector<std::string> seen;
  KeyValueObservation watch = ada->addObserver_forKeyPath_options(
      "firstName", NSKeyValueObservingOptionNew | NSKeyValueObservingOptionOld,
      [&](const Ref<Dictionary>& change) {
        seen.push_back(text(change->objectForKey(NSKeyValueChangeOldKey)) + ">" +
                       text(change->objectForKey(NSKeyValueChangeNewKey)));
      });
  ada->setValueForKey("Augusta"_s, "firstName");
  KeyValueObservation moved = std::move(watch);
  EXPECT_FALSE(watch);
  ada->setValueForKey("Ada"_s, "firstName");
  EXPECT_EQ(seen, (std::vector<std::string>{"Ada>Augusta", "Augusta>Ada"}));

  moved = KeyValueObservation();  // assigning over a live handle ends its observation
  EXPECT_EQ(ada->observationCountForKeyPath("firstName"), 0u);
  ada->setValueForKey("Countess"_s, "firstName");
  EXPECT_EQ(seen.size(), 2u);

  // A handle that outlives the observed object ends quietly.
  KeyValueObservation orphan = Person::person("Byron")->addObserver_forKeyPath_options(
      "age", NSKeyValueObservingOptionNew, [](const Ref<Dictionary>&) {});
  orphan.reset();
  EXPECT_FALSE(orphan);
}

}  // namespace
}  // namespace fennick
