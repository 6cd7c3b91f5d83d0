#include "Runtime/TestObjects.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Number.h"

#include <gtest/gtest.h>

namespace fennick {
namespace {

using testing::Person;

TEST(KeyValueCoding, ReadsAndWritesPropertiesWithBoxing) {
  auto ada = Person::person("Ada", "Lovelace");
  ada->setValueForKey(Number::of(36), "age");
  EXPECT_EQ(ada->age(), 36);
  EXPECT_TRUE(ada->valueForKey("age")->isEqual(Number::of(36)));
  EXPECT_EQ(ada->valueForKey("fullName")->description(), "Ada Lovelace");
}

TEST(KeyValueCoding, FollowsDottedPathsAndStopsAtNil) {
  auto ada = Person::person("Ada");
  auto charles = Person::person("Charles");
  ada->setPartner(charles);
  EXPECT_EQ(ada->valueForKeyPath("partner.firstName")->description(), "Charles");
  ada->setValueForKeyPath("Chas"_s, "partner.firstName");
  EXPECT_EQ(charles->firstName()->utf8(), "Chas");
  EXPECT_EQ(charles->valueForKeyPath("partner.firstName"), nullptr);
  charles->setValueForKeyPath("ignored"_s, "partner.firstName");  // nil link: nothing happens
}

TEST(KeyValueCoding, RejectsUnknownKeysReadOnlyKeysAndNilScalars) {
  auto ada = Person::person();
  EXPECT_THROW(ada->valueForKey("height"), Exception);
  EXPECT_THROW(ada->setValueForKey("x"_s, "height"), Exception);
  EXPECT_THROW(ada->setValueForKey("x"_s, "fullName"), Exception);
  EXPECT_THROW(ada->setValueForKey(nullptr, "age"), Exception);
  EXPECT_THROW(ada->setValueForKey("not a number"_s, "age"), Exception);
  ada->setValueForKey(nullptr, "firstName");  // nil is fine for object properties
  EXPECT_EQ(ada->firstName(), nullptr);
  try {
    ada->valueForKey("height");
  } catch (const Exception& e) {
    EXPECT_EQ(e.name(), NSUndefinedKeyException);
    EXPECT_NE(e.reason().find("not key value coding-compliant for the key height"), std::string::npos);
  }
}

TEST(KeyValueCoding, CollectionsAnswerKeysForTheirMembers) {
  auto people = Array::arrayWithObjects({Person::person("A"), Person::person("B")});
  auto names = Array::dynamicCastObject(people->valueForKey("firstName"));
  ASSERT_TRUE(names);
  EXPECT_EQ(names->componentsJoinedByString(",")->utf8(), "A,B");
  EXPECT_TRUE(people->valueForKey("@count")->isEqual(Number::of(2)));
  auto info = Dictionary::dictionaryWithStringKeys({{"name", "x"_s}});
  EXPECT_EQ(info->valueForKey("name")->description(), "x");
  info->setValueForKey(nullptr, "name");
  EXPECT_EQ(info->count(), 0u);
}

}  // namespace
}  // namespace fennick
