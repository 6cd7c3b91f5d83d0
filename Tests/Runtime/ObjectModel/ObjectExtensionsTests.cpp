#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Observation/Bindings.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/ObjectModel/Log.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/Observation/ValueTransformer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace fennick;

namespace {

class Account : public Object {
  FENNICK_DECLARE_CLASS(Account, Object)

 public:
  static Ref<Account> init() { return make<Account>(); }
  Id balance() const { return balance_; }
  void setBalance(Id balance) { setAndNotify("balance", balance_, std::move(balance)); }

 protected:
  Account() = default;

 private:
  Id balance_;
};

FENNICK_DEFINE_CLASS(Account) { builder.property("balance", &Account::balance, &Account::setBalance); }

// Answers a fixed binding record, as an object with bindings of its own would.
class CustomBinder : public Object {
  FENNICK_DECLARE_CLASS(CustomBinder, Object)

 public:
  Ref<Dictionary> info;
  Ref<Dictionary> infoForBinding(std::string_view) const override { return info; }

 protected:
  CustomBinder() = default;
};

FENNICK_DEFINE_CLASS(CustomBinder) {}

// Records every change notification it receives, prior ones marked.
class ChangeRecorder : public Object {
  FENNICK_DECLARE_CLASS(ChangeRecorder, Object)

 public:
  std::vector<std::string> events;
  void observeValueForKeyPath_ofObject_change_context(const std::string& keyPath, const Id&,
                                                      const Ref<Dictionary>& change, void*) override {
    events.push_back((change->objectForKey(NSKeyValueChangeNotificationIsPriorKey) ? "will " : "did ") + keyPath);
  }

 protected:
  ChangeRecorder() = default;
};

FENNICK_DEFINE_CLASS(ChangeRecorder) {}

constexpr const char* kMethod = "-[NSObject(Extensions) propagateValue:forBinding:]";

Ref<Dictionary> options(std::initializer_list<std::pair<std::string_view, Id>> entries) {
  return Dictionary::dictionaryWithStringKeys(entries);
}

TEST(PropagateValueTest, WritesBackThroughTheReverseTransformer) {
  auto account = Account::init();
  auto view = Account::init();
  auto doubler = ValueTransformer::valueTransformerWithBlocks(
      [](const Id& v) { return Number::of(unbox<int>(v) * 2); },
      [](const Id& v) { return Number::of(unbox<int>(v) / 2); });
  account->setBalance(Number::of(5));
  view->bind_toObject_withKeyPath_options("balance", account, "balance",
                                          options({{NSValueTransformerBindingOption, doubler}}));
  EXPECT_EQ(unbox<int>(view->balance()), 10);

  LogCapture log;
  view->propagateValue_forBinding(Number::of(40), "balance");
  EXPECT_EQ(unbox<int>(account->balance()), 20);
  EXPECT_EQ(unbox<int>(view->balance()), 40);  // and the binding brings it back
  view->propagateValue_forBinding(Number::of(1), "unbound");
  EXPECT_TRUE(log.lines().empty());

  // A transformer found by name; the null marker in the direct option is ignored.
  ValueTransformer::setValueTransformer_forName(doubler, "PropagateDoubler");
  auto other = Account::init();
  other->bind_toObject_withKeyPath_options(
      "balance", account, "balance",
      options({{NSValueTransformerBindingOption, Null::null()},
               {NSValueTransformerNameBindingOption, "PropagateDoubler"_s}}));
  other->propagateValue_forBinding(Number::of(8), "balance");
  EXPECT_EQ(unbox<int>(account->balance()), 4);
  ValueTransformer::setValueTransformer_forName(nullptr, "PropagateDoubler");
}

TEST(PropagateValueTest, OneWayTransformerWarnsAndWritesTheValueAsItIs) {
  auto account = Account::init();
  auto view = Account::init();
  view->bind_toObject_withKeyPath_options(
      "balance", account, "balance",
      options({{NSValueTransformerNameBindingOption, String::string(NSIsNilTransformerName)}}));
  LogCapture log;
  view->propagateValue_forBinding("raw"_s, "balance");
  EXPECT_EQ(account->balance()->description(), "raw");
  EXPECT_EQ(log.lines(), std::vector<std::string>{
                             std::string("WARNING: binding \"balance\" has value transformer, but it doesn't "
                                         "allow reverse transformations in ") + kMethod});
}

TEST(PropagateValueTest, MissingObservedObjectOrKeyPathIsLoggedNotRaised) {
  auto view = Account::init();
  {
    auto account = Account::init();
    view->bind_toObject_withKeyPath_options("balance", account, "balance", nullptr);
  }
  LogCapture log;
  view->propagateValue_forBinding(Number::of(1), "balance");

  auto binder = make<CustomBinder>();
  auto account = Account::init();
  binder->info = Dictionary::dictionaryWithStringKeys(
      {{NSObservedObjectKey, account}, {NSObservedKeyPathKey, Null::null()}, {NSOptionsKey, Null::null()}});
  binder->propagateValue_forBinding(Number::of(2), "custom");
  binder->info = Dictionary::dictionaryWithStringKeys({{NSObservedKeyPathKey, "balance"_s}});
  binder->propagateValue_forBinding(Number::of(3), "custom");
  EXPECT_FALSE(account->balance());
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{
                std::string("ERROR: NSObservedObjectKey was nil for binding \"balance\" in ") + kMethod,
                std::string("ERROR: NSObservedKeyPathKey was nil for binding \"custom\" in ") + kMethod,
                std::string("ERROR: NSObservedObjectKey was nil for binding \"custom\" in ") + kMethod}));
}

TEST(ObjectOperationsTest, NilSafeEqualityAndNullFilter) {
  EXPECT_TRUE(Object::isEqualObject_toObject(Id(), Id()));
  EXPECT_FALSE(Object::isEqualObject_toObject("a"_s, nullptr));
  EXPECT_TRUE(Object::isEqualObject_toObject("a"_s, "a"_s));
  EXPECT_FALSE(Object::isEqualObject_toObject("a"_s, "b"_s));
  EXPECT_FALSE(Null::null()->nonNullObject());
  auto text = "x"_s;
  EXPECT_EQ(text->nonNullObject(), text);
}

TEST(ObjectOperationsTest, GroupedChangeNotificationsNest) {
  auto account = Account::init();
  auto recorder = make<ChangeRecorder>();
  for (const char* key : {"a", "b", "c"})
    account->addObserver_forKeyPath_options_context(recorder, key, NSKeyValueObservingOptionPrior, nullptr);
  auto keys = Array::arrayWithObjects({"a"_s, "b"_s, "c"_s});
  bool ranBetween = false;
  account->changeValuesForKeys_withBlock(keys, [&] {
    ranBetween = recorder->events.size() == 3;
  });
  EXPECT_TRUE(ranBetween);
  EXPECT_EQ(recorder->events,
            (std::vector<std::string>{"will a", "will b", "will c", "did c", "did b", "did a"}));
  for (const char* key : {"a", "b", "c"}) account->removeObserver_forKeyPath(recorder.get(), key);
}

}  // namespace
