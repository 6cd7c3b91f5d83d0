#include "Runtime/TestObjects.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"

#include <gtest/gtest.h>

#include <thread>

namespace fennick {
namespace {

using testing::Person;

TEST(ObjectModel, ClassesFormAChainAndRegisterByName) {
  auto person = Person::person("Ada", "Lovelace");
  EXPECT_EQ(person->objectClass(), Person::staticClass());
  EXPECT_TRUE(person->isKindOfClass(Object::staticClass()));
  EXPECT_FALSE(person->isKindOfClass(String::staticClass()));
  EXPECT_EQ(Class::named("Person"), Person::staticClass());
  EXPECT_EQ(Class::named("NSMutableArray"), Array::staticClass());
  EXPECT_EQ(Class::named("NoSuchClass"), nullptr);
  EXPECT_EQ(Person::dynamicCastObject(String::string("x")), nullptr);
  EXPECT_EQ(Person::dynamicCastObject(person), person);
}

TEST(ObjectModel, SelectorsAreInternedAndCountArguments) {
  EXPECT_EQ(Selector::named("didChange:of:"), Selector::named(std::string("didChange:") + "of:"));
  EXPECT_EQ(Selector::named("reset").signatureArgumentCount(), 2u);
  EXPECT_EQ(Selector::named("didChangeFooOfObject:newValue:oldValue:").signatureArgumentCount(), 5u);
  EXPECT_FALSE(Selector());

  // Interning from many threads yields one selector per name.
  std::vector<std::thread> threads;
  std::vector<Selector> seen(8);
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] { seen[t] = Selector::named("raced:selector:"); });
  for (auto& thread : threads) thread.join();
  for (Selector s : seen) EXPECT_EQ(s, seen[0]);
}

TEST(ObjectModel, PerformSelectorBoxesArgumentsAndRejectsUnknownSelectors) {
  auto person = Person::person();
  ASSERT_TRUE(person->respondsToSelector(Selector::named("greet:")));
  EXPECT_FALSE(person->respondsToSelector(Selector::named("greet")));
  Id result = person->performSelector(Selector::named("greet:"), String::string("you"));
  EXPECT_EQ(result->description(), "hello you");
  EXPECT_THROW(person->performSelector(Selector::named("fly")), Exception);
  // A wrong argument class is a clear error, not undefined behaviour.
  EXPECT_THROW(person->performSelector(Selector::named("greet:"), Number::of(3)), Exception);
}

TEST(ObjectModel, NumbersCompareAcrossKindsByValue) {
  EXPECT_TRUE(Number::of(1)->isEqual(Number::of(1.0)));
  EXPECT_TRUE(Number::of(true)->isEqual(Number::of(1u)));
  EXPECT_FALSE(Number::of(-1)->isEqual(Number::of(UINT64_MAX)));
  EXPECT_FALSE(Number::of(0.5)->isEqual(Number::of(0)));
  EXPECT_EQ(Number::of(42)->hash(), Number::of(42.0)->hash());
  EXPECT_EQ(Number::of(std::uint64_t{7})->hash(), Number::of(std::int8_t{7})->hash());
  // 2^63 as a double is exactly representable and beyond every int64.
  EXPECT_TRUE(Number::of(INT64_MAX)->compare(*Number::of(0x1p63)) < 0);
  EXPECT_TRUE(Number::of(std::uint64_t{1} << 63)->isEqual(Number::of(0x1p63)));
  EXPECT_EQ(Number::of(2.5)->description(), "2.5");
}

TEST(ObjectModel, StringsCountUtf16UnitsAndCapitalizeTheFirstLetter) {
  EXPECT_EQ(String::string("h\u00e9llo")->length(), 5u);
  EXPECT_EQ(String::string("\U0001F600")->length(), 2u);
  EXPECT_EQ(String::string("isCancelled")->stringWithCapitalizedFirstLetter()->utf8(), "IsCancelled");
  EXPECT_EQ(String::string("\u00e9t\u00e9")->stringWithCapitalizedFirstLetter()->utf8(), "\u00c9t\u00e9");
  EXPECT_EQ(String::string("")->stringWithCapitalizedFirstLetter()->utf8(), "");
  EXPECT_TRUE(String::string("a")->isEqual("a"_s));
}

TEST(ObjectModel, NullIsASingletonAndNonNullMapsItToNil) {
  EXPECT_EQ(Null::null(), Null::null());
  EXPECT_EQ(Null::null()->nonNullObject(), nullptr);
  auto person = Person::person();
  EXPECT_EQ(person->nonNullObject(), person);
  EXPECT_EQ(Null::null()->copy(), Null::null());
}

TEST(ObjectModel, DefaultObjectsCannotBeCopied) {
  EXPECT_THROW(Person::person()->copy(), Exception);
  auto text = String::string("same");
  EXPECT_EQ(text->copy(), text);
}

}  // namespace
}  // namespace fennick
