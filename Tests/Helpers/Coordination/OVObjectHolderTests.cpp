#include "fennick/Helpers/Coordination/OVObjectHolder.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Collections/Set.h"
#include "fennick/Runtime/Values/String.h"

#include <gtest/gtest.h>

using namespace fennick;

namespace {

TEST(OVObjectHolderTest, HoldersOfOneObjectAreEqualWhateverTheirKind) {
  auto object = "same text"_s;
  auto equalButDistinct = "same text"_s;
  auto strong = OVObjectHolder::strongHolderOfObject(object);
  auto weak = OVObjectHolder::weakHolderForObject(object);
  auto unowned = OVObjectHolder::unownedHolderForObject(object);
  for (const Ref<OVObjectHolder>& a : {Ref<OVObjectHolder>(strong), Ref<OVObjectHolder>(weak),
                                       Ref<OVObjectHolder>(unowned)})
    for (const Ref<OVObjectHolder>& b : {Ref<OVObjectHolder>(strong), Ref<OVObjectHolder>(weak),
                                         Ref<OVObjectHolder>(unowned)}) {
      EXPECT_TRUE(a->isEqual(b)) << a->description() << " vs " << b->description();
      EXPECT_EQ(a->hash(), b->hash());
    }
  // Identity, not the held objects' own equality.
  EXPECT_FALSE(strong->isEqual(OVObjectHolder::strongHolderOfObject(equalButDistinct)));
  EXPECT_FALSE(weak->isEqual(OVObjectHolder::unownedHolderForObject(equalButDistinct)));
  EXPECT_FALSE(strong->isEqual(object));
  EXPECT_FALSE(unowned->isEqual(object));
  EXPECT_EQ(strong->object(), object);
  EXPECT_EQ(weak->weakObject(), object);
  EXPECT_EQ(unowned->object(), object);

  auto empty = OVObjectHolder::init();
  EXPECT_FALSE(empty->object());
  EXPECT_EQ(empty->hash(), 0u);
  EXPECT_TRUE(empty->isEqual(OVStrongObjectHolder::initWithObject(nullptr)));

  auto members = Set::setWithObjects({strong, weak, unowned});
  EXPECT_EQ(members->count(), 1u);
}

TEST(OVObjectHolderTest, WeakHolderKeepsItsAddressAfterTheObjectDies) {
  auto object = "short-lived"_s;
  auto weak = OVObjectHolder::weakHolderForObject(object);
  auto unowned = OVObjectHolder::unownedHolderForObject(object);
  auto table = Dictionary::dictionary();
  table->setObject_forKey("entry"_s, weak);
  const std::size_t hash = weak->hash();
  const Object* address = object.get();

  object.reset();
  EXPECT_FALSE(weak->weakObject());
  EXPECT_FALSE(unowned->object());
  EXPECT_EQ(weak->objectAddress(), address);
  EXPECT_EQ(weak->hash(), hash);
  EXPECT_TRUE(weak->isEqual(unowned));
  EXPECT_TRUE(unowned->isEqual(weak));
  // The dictionary (which copied its key) still finds and removes the entry.
  ASSERT_TRUE(table->objectForKey(unowned));
  table->removeObjectForKey(unowned);
  EXPECT_EQ(table->count(), 0u);

  auto copy = OVWeakObjectHolder::castObject(weak->copy());
  EXPECT_TRUE(copy->isMemberOfClass(OVWeakObjectHolder::staticClass()));
  EXPECT_NE(copy, weak);
  EXPECT_TRUE(copy->isEqual(weak));
}

TEST(OVObjectHolderTest, OnlyStrongHoldersAndTheirCopiesKeepTheObject) {
  auto object = "kept"_s;
  auto strong = OVObjectHolder::strongHolderOfObject(object);
  auto weak = OVObjectHolder::weakHolderForObject(object);
  object.reset();
  auto copy = strong->copy();
  EXPECT_TRUE(copy->isMemberOfClass(OVStrongObjectHolder::staticClass()));
  strong.reset();
  EXPECT_TRUE(weak->weakObject());
  copy.reset();
  EXPECT_FALSE(weak->weakObject());
}

}  // namespace
