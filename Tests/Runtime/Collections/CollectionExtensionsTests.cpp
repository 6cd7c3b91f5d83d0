#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Collections/Set.h"
#include "fennick/Runtime/Values/String.h"

#include <gtest/gtest.h>

namespace fennick {
namespace {

Id n(std::int64_t value) { return Number::of(value); }
std::int64_t intOf(const Id& object) { return Number::castObject(object)->integerValue(); }

std::vector<std::int64_t> ints(const Ref<Array>& array) {
  std::vector<std::int64_t> values;
  for (const Id& object : *array) values.push_back(intOf(object));
  return values;
}

bool sameInt(const Id& a, const Id& b) { return intOf(a) == intOf(b); }

TEST(ArrayExtensions, MapSkipsNilAndHonoursStop) {
  auto array = Array::arrayWithObjects({n(1), n(2), n(3), n(4)});
  auto mapped = array->map([](const Id& o, std::size_t, bool&) { return intOf(o) == 2 ? nullptr : o; });
  EXPECT_EQ(ints(mapped), (std::vector<std::int64_t>{1, 3, 4}));
  EXPECT_TRUE(mapped->isMutable());

  std::vector<std::size_t> seen;
  auto stopped = array->map([&](const Id& o, std::size_t i, bool& stop) {
    seen.push_back(i);
    stop = i == 1;
    return o;
  });
  EXPECT_EQ(seen, (std::vector<std::size_t>{0, 1}));
  EXPECT_EQ(ints(stopped), (std::vector<std::int64_t>{1, 2}));

  auto flat = array->flatMap([](const Id& o, std::size_t, bool&) -> Ref<Array> {
    if (intOf(o) % 2) return Array::array();
    return Array::arrayWithObjects({o, o});
  });
  EXPECT_EQ(ints(flat), (std::vector<std::int64_t>{2, 2, 4, 4}));
  auto odd = array->filter([](const Id& o, std::size_t, bool&) { return intOf(o) % 2 == 1; });
  EXPECT_EQ(ints(odd), (std::vector<std::int64_t>{1, 3}));
}

TEST(ArrayExtensions, GroupingAndKeyedIndexing) {
  auto array = Array::arrayWithObjects({"ant"_s, "bee"_s, "asp"_s, "cow"_s});
  auto firstLetter = [](const Id& o, std::size_t) -> Id {
    return String::string(String::castObject(o)->view().substr(0, 1));
  };
  auto groups = array->groupBy(firstLetter);
  ASSERT_EQ(groups->count(), 3u);
  auto a = Array::castObject(groups->objectForKey("a"));
  EXPECT_TRUE(a->isEqual(Array::arrayWithObjects({"ant"_s, "asp"_s})));
  EXPECT_TRUE(a->isMutable());
  EXPECT_THROW(array->groupBy([](const Id&, std::size_t) -> Id { return nullptr; }), Exception);

  auto byLetter = array->makeDictionaryWithKeyMaker(
      [&](const Id& o, std::size_t i) -> Id { return i == 3 ? nullptr : firstLetter(o, i); });
  EXPECT_EQ(byLetter->count(), 2u);  // "cow" skipped
  EXPECT_TRUE(byLetter->objectForKey("a")->isEqual("asp"_s));  // the later one wins
}

TEST(ArrayExtensions, SingleSafeAndPrefix) {
  auto pair = Array::arrayWithObjects({n(1), n(2)});
  EXPECT_EQ(intOf(pair->singleObject()), 2);
  EXPECT_EQ(pair->singleObjectOrNil(), nullptr);
  EXPECT_EQ(intOf(Array::arrayWithObjects({n(7)})->singleObjectOrNil()), 7);
  EXPECT_EQ(Array::array()->singleObject(), nullptr);

  EXPECT_EQ(pair->safeObjectAtIndex(-1), nullptr);
  EXPECT_EQ(pair->safeObjectAtIndex(2), nullptr);
  EXPECT_EQ(intOf(pair->safeObjectAtIndex(1)), 2);

  auto three = Array::arrayWithObjects({n(1), n(2), n(3)});
  EXPECT_EQ(ints(three->prefix(5)), (std::vector<std::int64_t>{1, 2, 3}));
  EXPECT_EQ(ints(three->prefix(2)), (std::vector<std::int64_t>{1, 2}));
  EXPECT_TRUE(three->prefix(0)->isEmpty());
  EXPECT_EQ(Array::array()->prefix(3), Array::emptyArray());
}

TEST(ArrayExtensions, MatchingStopsAtFirstEqualMember) {
  auto mine = Array::arrayWithObjects({n(1), n(2), n(3), n(2)});
  auto theirs = Array::arrayWithObjects({n(2), n(5), n(2)});
  int calls = 0;
  auto counting = [&](const Id& a, const Id& b) {
    ++calls;
    return sameInt(a, b);
  };
  EXPECT_EQ(ints(mine->intersectionWithArray_block(theirs, counting)), (std::vector<std::int64_t>{2, 2}));
  EXPECT_EQ(calls, 3 + 1 + 3 + 1);  // misses walk all three; hits stop at the first
  EXPECT_EQ(ints(mine->subtractArray_withBlock(theirs, sameInt)), (std::vector<std::int64_t>{1, 3}));
  EXPECT_EQ(ints(mine->subtractArray_withBlock(nullptr, sameInt)), ints(mine));
  EXPECT_TRUE(mine->intersectionWithArray_block(Array::array(), sameInt)->isEmpty());
}

TEST(MutableArrayExtensions, SafeAddAndFilterIn) {
  auto array = Array::arrayWithObjects({n(1)});
  EXPECT_FALSE(array->safeAddObject(nullptr));
  EXPECT_TRUE(array->safeAddObject(n(1)));  // duplicates are appended
  EXPECT_EQ(ints(array), (std::vector<std::int64_t>{1, 1}));

  auto values = Array::arrayWithObjects({n(1), n(2), n(3), n(4), n(5)});
  values->filterIn([](const Id& o, std::size_t i, bool& stop) {
    stop = i == 2;
    return intOf(o) % 2 == 1;
  });
  // 2 fails the test; 4 and 5 were never visited and stay.
  EXPECT_EQ(ints(values), (std::vector<std::int64_t>{1, 3, 4, 5}));

  auto frozen = Array::castObject(values->copy());
  int visited = 0;
  EXPECT_THROW(frozen->filterIn([&](const Id&, std::size_t, bool&) { return ++visited, false; }),
               Exception);
  EXPECT_EQ(visited, 0);
}

TEST(MutableArrayExtensions, TakeOperations) {
  auto array = Array::arrayWithObjects({n(0), n(1), n(2), n(3), n(4)});
  auto taken = array->takeObjectsAtIndexes({3, 0, 3});
  EXPECT_EQ(ints(taken), (std::vector<std::int64_t>{0, 3}));
  EXPECT_EQ(ints(array), (std::vector<std::int64_t>{1, 2, 4}));
  EXPECT_THROW(array->takeObjectsAtIndexes({1, 3}), Exception);
  EXPECT_EQ(array->count(), 3u);  // nothing removed by the refused call

  EXPECT_EQ(intOf(array->takeObjectAtIndex(1)), 2);
  EXPECT_THROW(array->takeObjectAtIndex(2), Exception);
  EXPECT_EQ(intOf(array->takeFirstObject()), 1);
  EXPECT_EQ(intOf(array->takeLastObject()), 4);
  EXPECT_EQ(array->takeLastObject(), nullptr);
  EXPECT_EQ(array->takeFirstObject(), nullptr);
}

TEST(SetExtensions, UnionReturnsArgumentsThemselves) {
  auto empty = Set::set();
  auto some = Set::setWithObjects({n(1)});
  auto other = Set::setWithObjects({n(2), n(1)});
  EXPECT_EQ(Set::setByUnionOfSet_andSet2(empty, some), some);
  EXPECT_EQ(Set::setByUnionOfSet_andSet2(nullptr, some), some);
  EXPECT_EQ(Set::setByUnionOfSet_andSet2(some, nullptr), some);
  auto both = Set::setByUnionOfSet_andSet2(some, other);
  EXPECT_TRUE(both->isEqual(Set::setWithObjects({n(1), n(2)})));
  EXPECT_NE(both, some);
  auto none = Set::setByUnionOfSet_andSet2(nullptr, nullptr);
  ASSERT_NE(none, nullptr);
  EXPECT_TRUE(none->isEmpty());

  auto fresh = Set::mutableSetByUnionOfSet_andSet2(empty, some);
  EXPECT_NE(fresh, some);
  EXPECT_TRUE(fresh->isMutable());
  EXPECT_TRUE(fresh->isEqual(some));
  EXPECT_TRUE(Set::mutableSetByUnionOfSet_andSet2(nullptr, nullptr)->isEmpty());
}

TEST(SetExtensions, MapCollapsesAndStops) {
  auto set = Set::setWithObjects({n(1), n(2), n(3), n(4)});
  auto parity = set->map([](const Id& o, bool&) -> Id { return n(intOf(o) % 2); });
  EXPECT_TRUE(parity->isEqual(Set::setWithObjects({n(0), n(1)})));
  int visits = 0;
  set->forEach([&](const Id&, bool& stop) { stop = ++visits == 2; });
  EXPECT_EQ(visits, 2);
  auto flat = set->flatMap([](const Id& o, bool&) -> Ref<Set> {
    return intOf(o) > 2 ? Set::setWithObjects({n(intOf(o) * 10), n(0)}) : nullptr;
  });
  EXPECT_TRUE(flat->isEqual(Set::setWithObjects({n(30), n(40), n(0)})));
  auto even = set->filter([](const Id& o, bool&) { return intOf(o) % 2 == 0; });
  EXPECT_TRUE(even->isEqual(Set::setWithObjects({n(2), n(4)})));

  auto groups = set->groupBy([](const Id& o) { return n(intOf(o) % 2); });
  EXPECT_TRUE(groups->objectForKey(n(0))->isEqual(even));
  EXPECT_THROW(set->groupBy([](const Id&) -> Id { return nullptr; }), Exception);
  auto keyed = set->makeDictionaryWithKeyMaker([](const Id& o) -> Id { return intOf(o) > 2 ? o : nullptr; });
  EXPECT_EQ(keyed->count(), 2u);
}

TEST(SetExtensions, MatchingAndIntersectingPairs) {
  auto mine = Set::setWithObjects({n(1), n(2), n(3)});
  auto theirs = Set::setWithObjects({n(3), n(2), n(9)});
  EXPECT_TRUE(mine->intersectionWithSet_block(theirs, sameInt)->isEqual(Set::setWithObjects({n(2), n(3)})));
  EXPECT_TRUE(mine->subtractSet_withBlock(theirs, sameInt)->isEqual(Set::setWithObjects({n(1)})));

  // Each member of the receiver maps to its first match, or else to the
  // member of the other set visited last.
  auto pairs = mine->intersectingPairsWithSet_block(theirs, sameInt);
  ASSERT_EQ(pairs->count(), 3u);
  EXPECT_EQ(intOf(pairs->objectForKey(n(1))), 9);
  EXPECT_EQ(intOf(pairs->objectForKey(n(2))), 2);
  EXPECT_EQ(intOf(pairs->objectForKey(n(3))), 3);
  auto never = Set::setWithObjects({"x"_s})->intersectingPairsWithSet_block(
      Set::setWithObjects({"p"_s, "q"_s}), [](const Id&, const Id&) { return false; });
  EXPECT_TRUE(never->objectForKey("x")->isEqual("q"_s));
  EXPECT_TRUE(mine->intersectingPairsWithSet_block(Set::set(), sameInt)->isEmpty());
}

TEST(MutableSetExtensions, AddReplaceFilterTake) {
  auto stored = String::string("k");
  auto equal = String::string("k");
  auto set = Set::setWithObjects({stored});
  EXPECT_FALSE(set->safeAddObject(equal));
  EXPECT_FALSE(set->safeAddObject(nullptr));
  EXPECT_TRUE(set->safeAddObject("m"_s));

  set->addOrReplaceObject(equal);
  EXPECT_EQ(set->member(stored), equal);

  auto taken = set->takeObject(String::string("k"));
  EXPECT_EQ(taken, equal);  // the stored instance, not the argument
  EXPECT_FALSE(set->containsObject(stored));
  EXPECT_EQ(set->takeObject("absent"_s), nullptr);

  auto numbers = Set::setWithObjects({n(1), n(2), n(3), n(4)});
  numbers->filterIn([](const Id& o, bool&) { return intOf(o) > 2; });
  EXPECT_TRUE(numbers->isEqual(Set::setWithObjects({n(3), n(4)})));
}

TEST(DictionaryExtensions, InverseAndMapValues) {
  auto dictionary = Dictionary::dictionaryWithStringKeys({{"a", n(1)}, {"b", n(1)}, {"c", n(2)}});
  auto inverse = dictionary->dictionaryByInversingKeysAndValues();
  ASSERT_EQ(inverse->count(), 2u);
  EXPECT_TRUE(inverse->objectForKey(n(1))->isEqual("b"_s));  // enumerated last
  EXPECT_TRUE(inverse->objectForKey(n(2))->isEqual("c"_s));

  auto doubled = dictionary->mapValues([](const Id& key, const Id& value, bool&) -> Id {
    return key->isEqual("c"_s) ? nullptr : n(intOf(value) * 2);
  });
  EXPECT_TRUE(doubled->isEqual(Dictionary::dictionaryWithStringKeys({{"a", n(2)}, {"b", n(2)}})));
  EXPECT_FALSE(doubled->isMutable());
}

TEST(MutableDictionaryExtensions, SafeTakeAndFetchOrCreate) {
  auto dictionary = Dictionary::dictionary();
  EXPECT_FALSE(dictionary->safeSetObject_forKey(nullptr, "k"_s));
  EXPECT_FALSE(dictionary->safeSetObject_forKey(n(1), nullptr));
  EXPECT_TRUE(dictionary->safeSetObject_forKey(n(1), "k"_s));

  EXPECT_EQ(intOf(dictionary->takeObjectForKey("k"_s)), 1);
  EXPECT_TRUE(dictionary->isEmpty());
  EXPECT_EQ(dictionary->takeObjectForKey("k"_s), nullptr);
  EXPECT_EQ(dictionary->takeObjectForKey(nullptr), nullptr);

  int calls = 0;
  auto create = [&]() -> Id { return ++calls, n(42); };
  EXPECT_EQ(intOf(dictionary->fetchOrCreateObjectForKey_creationBlock("x"_s, create)), 42);
  EXPECT_EQ(intOf(dictionary->fetchOrCreateObjectForKey_creationBlock("x"_s, create)), 42);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(dictionary->fetchOrCreateObjectForKey_creationBlock("y"_s, [] { return Id(); }), nullptr);
  EXPECT_EQ(dictionary->objectForKey("y"), nullptr);
}

TEST(MutableDictionaryExtensions, AddAndRemoveOrDieCheckOnlyInDiagnosticBuilds) {
  auto dictionary = Dictionary::dictionaryWithStringKeys({{"k", n(1)}});
  dictionary->addObject_forKey(n(2), "new"_s);
  dictionary->removeObjectOrDieForKey("new"_s);
#if defined(FENNICK_DIAGNOSTICS) || !defined(NDEBUG)
  EXPECT_THROW(dictionary->addObject_forKey(n(3), "k"_s), Exception);
  EXPECT_THROW(dictionary->removeObjectOrDieForKey("absent"_s), Exception);
#else
  dictionary->addObject_forKey(n(3), "k"_s);
  dictionary->removeObjectOrDieForKey("absent"_s);
#endif
  // Either way the change itself was made.
  EXPECT_EQ(intOf(dictionary->objectForKey("k")), 3);
  EXPECT_EQ(dictionary->count(), 1u);
}

}  // namespace
}  // namespace fennick
