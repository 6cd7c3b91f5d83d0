#include "fennick/Runtime/Observation/Bindings.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/Observation/ValueTransformer.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace fennick;

namespace {

class Model : public Object {
  FENNICK_DECLARE_CLASS(Model, Object)

 public:
  static Ref<Model> init() { return make<Model>(); }
  Id value() const { return value_; }
  void setValue(Id value) { setAndNotify("value", value_, std::move(value)); }
  Ref<Model> child() const { return child_; }
  void setChild(Ref<Model> child) { setAndNotify("child", child_, std::move(child)); }
  bool flag() const { return flag_; }
  void setFlag(bool flag) { setAndNotify("flag", flag_, flag); }

 protected:
  Model() = default;

 private:
  Id value_;
  Ref<Model> child_;
  bool flag_ = false;
};

FENNICK_DEFINE_CLASS(Model) {
  builder.property("value", &Model::value, &Model::setValue);
  builder.property("child", &Model::child, &Model::setChild);
  builder.property("flag", &Model::flag, &Model::setFlag);
}

std::string text(const Id& value) { return value ? value->description() : "(nil)"; }

TEST(BindingsTest, BoundPropertyFollowsTheObservedKeyPathUntilUnbound) {
  auto source = Model::init();
  auto target = Model::init();
  source->setValue("a"_s);
  target->bind_toObject_withKeyPath_options("value", source, "value", nullptr);
  EXPECT_EQ(text(target->value()), "a");
  source->setValue("b"_s);
  EXPECT_EQ(text(target->value()), "b");

  auto info = target->infoForBinding("value");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->objectForKey(NSObservedObjectKey), source);
  EXPECT_EQ(text(info->objectForKey(NSObservedKeyPathKey)), "value");
  EXPECT_EQ(Dictionary::castObject(info->objectForKey(NSOptionsKey))->count(), 0u);
  EXPECT_FALSE(target->infoForBinding("flag"));

  target->unbind("value");
  EXPECT_FALSE(target->infoForBinding("value"));
  EXPECT_EQ(source->observationCountForKeyPath("value"), 0u);
  source->setValue("c"_s);
  EXPECT_EQ(text(target->value()), "b");
}

TEST(BindingsTest, OptionsTransformAndReplaceNil) {
  auto source = Model::init();
  auto target = Model::init();
  target->bind_toObject_withKeyPath_options(
      "flag", source, "flag",
      Dictionary::dictionaryWithStringKeys(
          {{NSValueTransformerNameBindingOption, String::string(NSNegateBooleanTransformerName)}}));
  EXPECT_TRUE(target->flag());
  source->setFlag(true);
  EXPECT_FALSE(target->flag());

  auto describe = ValueTransformer::valueTransformerWithBlocks(
      [](const Id& v) -> Id { return v ? String::format("<{}>", v->description()) : nullptr; });
  target->bind_toObject_withKeyPath_options(
      "value", source, "value",
      Dictionary::dictionaryWithStringKeys(
          {{NSValueTransformerBindingOption, describe}, {NSNullPlaceholderBindingOption, "none"_s}}));
  EXPECT_EQ(text(target->value()), "none");
  source->setValue(Number::of(7));
  EXPECT_EQ(text(target->value()), "<7>");
}

TEST(BindingsTest, DottedKeyPathsFollowReplacedIntermediates) {
  auto source = Model::init();
  auto first = Model::init();
  first->setValue("first"_s);
  source->setChild(first);
  auto target = Model::init();
  target->bind_toObject_withKeyPath_options("value", source, "child.value", nullptr);
  EXPECT_EQ(text(target->value()), "first");

  auto second = Model::init();
  second->setValue("second"_s);
  source->setChild(second);
  EXPECT_EQ(text(target->value()), "second");
  first->setValue("stale"_s);
  EXPECT_EQ(text(target->value()), "second");
  source->setChild(nullptr);
  EXPECT_FALSE(target->value());
}

TEST(BindingsTest, BadBindingsThrowAndLeaveNothingBehind) {
  auto source = Model::init();
  auto target = Model::init();
  EXPECT_THROW(target->bind_toObject_withKeyPath_options("value", nullptr, "value", nullptr), Exception);
  EXPECT_THROW(target->bind_toObject_withKeyPath_options("nosuchkey", source, "value", nullptr), Exception);
  EXPECT_THROW(target->bind_toObject_withKeyPath_options(
                   "value", source, "value",
                   Dictionary::dictionaryWithStringKeys({{NSValueTransformerNameBindingOption, "Missing"_s}})),
               Exception);
  EXPECT_THROW(target->bind_toObject_withKeyPath_options(
                   "value", source, "value",
                   Dictionary::dictionaryWithStringKeys({{NSValueTransformerBindingOption, "not one"_s}})),
               Exception);
  EXPECT_EQ(source->observationCountForKeyPath("value"), 0u);

  // Binding a name again replaces the earlier binding.
  auto other = Model::init();
  target->bind_toObject_withKeyPath_options("value", source, "value", nullptr);
  target->bind_toObject_withKeyPath_options("value", other, "value", nullptr);
  EXPECT_EQ(source->observationCountForKeyPath("value"), 0u);
  EXPECT_EQ(other->observationCountForKeyPath("value"), 1u);
}

TEST(BindingsTest, NeitherEndKeepsTheOtherAlive) {
  auto source = Model::init();
  {
    auto target = Model::init();
    target->bind_toObject_withKeyPath_options("value", source, "value", nullptr);
    EXPECT_EQ(source->observationCountForKeyPath("value"), 1u);
  }
  EXPECT_EQ(source->observationCountForKeyPath("value"), 0u);

  auto target = Model::init();
  WeakRef<Model> weakSource = source;
  target->bind_toObject_withKeyPath_options("value", source, "value", nullptr);
  source.reset();
  EXPECT_TRUE(weakSource.expired());
  auto info = target->infoForBinding("value");
  ASSERT_TRUE(info);
  EXPECT_FALSE(info->objectForKey(NSObservedObjectKey));

  // Two objects bound to each other: no cycle, no endless ping-pong.
  auto a = Model::init();
  auto b = Model::init();
  WeakRef<Model> weakA = a, weakB = b;
  a->bind_toObject_withKeyPath_options("value", b, "value", nullptr);
  b->bind_toObject_withKeyPath_options("value", a, "value", nullptr);
  a->setValue("ping"_s);
  EXPECT_EQ(text(b->value()), "ping");
  b->setValue("pong"_s);
  EXPECT_EQ(text(a->value()), "pong");
  a.reset();
  b.reset();
  EXPECT_TRUE(weakA.expired());
  EXPECT_TRUE(weakB.expired());
}

TEST(BindingsTest, ObjectsBindAndUnbindConcurrentlyToOneSource) {
  auto source = Model::init();
  source->setValue("shared"_s);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([source] {
      for (int i = 0; i < 50; ++i) {
        auto target = Model::init();
        target->bind_toObject_withKeyPath_options("value", source, "value", nullptr);
        if (i % 2) target->unbind("value");
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(source->observationCountForKeyPath("value"), 0u);
}

}  // namespace
