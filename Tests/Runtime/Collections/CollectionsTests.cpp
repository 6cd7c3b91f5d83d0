#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Collections/Set.h"
#include "fennick/Runtime/Values/String.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace fennick {
namespace {

Id n(std::int64_t value) { return Number::of(value); }

// Runs `body`, expecting the runtime's exception with this name.
template <class Body>
void expectException(const char* name, Body&& body) {
  try {
    body();
    ADD_FAILURE() << "no exception, expected " << name;
  } catch (const Exception& exception) {
    EXPECT_EQ(exception.name(), name) << exception.reason();
  }
}

TEST(Collections, NilMembersAndKeysAreRefused) {
  auto array = Array::array();
  expectException(NSInvalidArgumentException, [&] { array->addObject(nullptr); });
  expectException(NSInvalidArgumentException, [&] { Array::arrayWithObjects({n(1), nullptr}); });
  expectException(NSInvalidArgumentException, [&] { array->insertObject_atIndex(nullptr, 0); });
  auto set = Set::set();
  expectException(NSInvalidArgumentException, [&] { set->addObject(nullptr); });
  auto dictionary = Dictionary::dictionary();
  expectException(NSInvalidArgumentException, [&] { dictionary->setObject_forKey(n(1), Id()); });
  expectException(NSInvalidArgumentException, [&] { dictionary->setObject_forKey(nullptr, "k"); });
  expectException(NSInvalidArgumentException, [&] { CountedSet::countedSet()->addObject(nullptr); });
  EXPECT_TRUE(array->isEmpty() && set->isEmpty() && dictionary->isEmpty());
  EXPECT_EQ(dictionary->objectForKey(Id()), nullptr);  // lookups of nil just miss
}

TEST(Collections, IndexesOutOfRangeThrow) {
  auto array = Array::arrayWithObjects({n(0), n(1)});
  expectException(NSRangeException, [&] { array->objectAtIndex(2); });
  expectException(NSRangeException, [&] { array->insertObject_atIndex(n(9), 3); });
  expectException(NSRangeException, [&] { array->removeObjectAtIndex(2); });
  expectException(NSRangeException, [&] { array->subarrayWithRange(1, 2); });
  expectException(NSRangeException, [&] { Array::array()->removeLastObject(); });
  array->insertObject_atIndex(n(2), 2);  // at the end is fine
  EXPECT_EQ(array->count(), 3u);
}

TEST(Collections, MutationDuringBlockEnumerationThrows) {
  auto array = Array::arrayWithObjects({n(1), n(2), n(3)});
  expectException(NSGenericException, [&] {
    array->enumerateObjectsUsingBlock([&](const Id&, std::size_t, bool&) { array->addObject(n(4)); });
  });
  auto set = Set::setWithObjects({n(1), n(2)});
  expectException(NSGenericException, [&] {
    set->enumerateObjectsUsingBlock([&](const Id& o, bool&) { set->removeObject(o); });
  });
  auto dictionary = Dictionary::dictionaryWithStringKeys({{"a", n(1)}, {"b", n(2)}});
  expectException(NSGenericException, [&] {
    dictionary->enumerateKeysAndObjectsUsingBlock(
        [&](const Id& key, const Id&, bool&) { dictionary->setObject_forKey(n(0), key); });
  });
}

TEST(Collections, MutationDuringRangeForThrows) {
  auto array = Array::arrayWithObjects({n(1), n(2), n(3)});
  expectException(NSGenericException, [&] {
    for (const Id& object : *array) array->removeObject(object);
  });
  auto set = Set::setWithObjects({n(1), n(2), n(3)});
  expectException(NSGenericException, [&] {
    for (const Id& object : *set) set->addObject(n(Number::castObject(object)->integerValue() + 10));
  });
  auto dictionary = Dictionary::dictionaryWithStringKeys({{"a", n(1)}, {"b", n(2)}});
  expectException(NSGenericException, [&] {
    for (const auto& entry : *dictionary) dictionary->removeObjectForKey(entry.key);
  });
  // Walking without changes sees every member in order.
  std::vector<std::int64_t> seen;
  for (const Id& object : *array) seen.push_back(Number::castObject(object)->integerValue());
  EXPECT_EQ(seen.size(), array->count());
}

TEST(Collections, StopFlagsEndWalks) {
  auto array = Array::arrayWithObjects({n(1), n(2), n(3)});
  std::vector<std::size_t> indexes;
  array->enumerateObjectsUsingBlock([&](const Id&, std::size_t i, bool& stop) {
    indexes.push_back(i);
    stop = i == 1;
  });
  array->enumerateObjectsReverseUsingBlock([&](const Id&, std::size_t i, bool& stop) {
    indexes.push_back(i);
    stop = true;
  });
  EXPECT_EQ(indexes, (std::vector<std::size_t>{0, 1, 2}));

  int setVisits = 0, dictionaryVisits = 0;
  Set::setWithObjects({n(1), n(2), n(3)})->enumerateObjectsUsingBlock([&](const Id&, bool& stop) {
    stop = ++setVisits == 2;
  });
  Dictionary::dictionaryWithStringKeys({{"a", n(1)}, {"b", n(2)}})
      ->enumerateKeysAndObjectsUsingBlock([&](const Id&, const Id&, bool& stop) {
        stop = true;
        ++dictionaryVisits;
      });
  EXPECT_EQ(setVisits, 2);
  EXPECT_EQ(dictionaryVisits, 1);
}

TEST(Collections, DictionaryKeysAreCopiedOnInsertion) {
  auto key = Array::arrayWithObjects({"a"_s});
  auto dictionary = Dictionary::dictionary();
  dictionary->setObject_forKey(n(1), key);
  key->addObject("b"_s);  // changes the caller's key, and its hash

  EXPECT_EQ(dictionary->objectForKey(key), nullptr);
  EXPECT_EQ(dictionary->objectForKey(Array::arrayWithObjects({"a"_s})), n(1));
  const Id stored = dictionary->allKeys()->objectAtIndex(0);
  EXPECT_NE(stored, key);
  EXPECT_FALSE(Array::castObject(stored)->isMutable());
  EXPECT_EQ(dictionary->objectForKey(std::string_view("a")), nullptr);  // text lookups match strings only
}

TEST(Collections, NumbersOfEveryKindAreOneKey) {
  auto dictionary = Dictionary::dictionary();
  dictionary->setObject_forKey("int"_s, Number::of(1));
  dictionary->setObject_forKey("unsigned"_s, Number::of(1u));
  dictionary->setObject_forKey("double"_s, Number::of(1.0));
  dictionary->setObject_forKey("bool"_s, Number::numberWithBool(true));
  ASSERT_EQ(dictionary->count(), 1u);
  EXPECT_TRUE(dictionary->objectForKey(Number::of(std::int8_t{1}))->isEqual("bool"_s));
  EXPECT_EQ(dictionary->objectForKey(Number::of(1.5)), nullptr);

  auto set = Set::setWithObjects({Number::of(2), Number::of(2.0), Number::of(-1), Number::of(2u)});
  EXPECT_EQ(set->count(), 2u);
  EXPECT_TRUE(set->containsObject(Number::of(-1.0)));
  // A huge unsigned value is not the negative number with the same bits.
  EXPECT_FALSE(Object::isEqualObject_toObject(Number::of(std::uint64_t{UINT64_MAX}), n(-1)));
}

TEST(Collections, EqualityFollowsContents) {
  auto a = Array::arrayWithObjects({"x"_s, n(1)});
  auto b = Array::arrayWithObjects({String::string("x"), Number::of(1.0)});
  EXPECT_TRUE(a->isEqual(b));
  EXPECT_EQ(a->hash(), b->hash());
  EXPECT_FALSE(a->isEqual(a->reverseArray()));
  EXPECT_TRUE(Set::setWithObjects({n(1), n(2)})->isEqual(Set::setWithObjects({n(2), n(1)})));
  auto d1 = Dictionary::dictionaryWithStringKeys({{"a", n(1)}, {"b", n(2)}});
  auto d2 = Dictionary::dictionaryWithStringKeys({{"b", n(2)}, {"a", n(1)}});
  EXPECT_TRUE(d1->isEqual(d2));
  d2->setObject_forKey(n(3), "b");
  EXPECT_FALSE(d1->isEqual(d2));
  // Collections as keys and members: by contents.
  auto set = Set::setWithObjects({a});
  EXPECT_TRUE(set->containsObject(b));
}

TEST(Collections, ImmutableCopiesRefuseMutation) {
  auto array = Array::arrayWithObjects({n(1)});
  auto frozenArray = Array::castObject(array->copy());
  EXPECT_EQ(frozenArray->copy(), frozenArray);  // immutable: copy is the same object
  expectException(NSInternalInconsistencyException, [&] { frozenArray->addObject(n(2)); });
  expectException(NSInternalInconsistencyException, [&] { frozenArray->removeAllObjects(); });
  expectException(NSInternalInconsistencyException, [&] { Array::emptyArray()->addObject(n(1)); });
  auto thawed = Array::castObject(frozenArray->mutableCopy());
  thawed->addObject(n(2));
  EXPECT_EQ(frozenArray->count(), 1u);

  auto frozenSet = Set::castObject(Set::setWithObjects({n(1)})->copy());
  expectException(NSInternalInconsistencyException, [&] { frozenSet->addObject(n(2)); });
  expectException(NSInternalInconsistencyException, [&] { frozenSet->removeObject(n(1)); });
  auto frozenDictionary = Dictionary::castObject(Dictionary::dictionaryWithStringKeys({{"a", n(1)}})->copy());
  expectException(NSInternalInconsistencyException, [&] { frozenDictionary->setObject_forKey(n(2), "b"); });
  expectException(NSInternalInconsistencyException, [&] { frozenDictionary->removeObjectForKey("a"); });
  expectException(NSInternalInconsistencyException, [&] { Dictionary::emptyDictionary()->removeAllObjects(); });
  EXPECT_EQ(frozenDictionary->count(), 1u);
}

// Random inserts, replacements and removals against a model that also keeps
// the insertion order, so that holes and compaction get exercised.
TEST(Collections, DictionaryMatchesModelUnderRandomChanges) {
  std::mt19937 random(20240611);
  auto dictionary = Dictionary::dictionary();
  std::unordered_map<std::string, std::int64_t> model;
  std::vector<std::string> order;
  auto keyText = [&] { return fmt::format("k{}", random() % 400); };

  for (int step = 0; step < 20000; ++step) {
    const std::string text = keyText();
    const unsigned operation = random() % 10;
    if (operation < 5) {
      const auto value = static_cast<std::int64_t>(step);
      if (step % 2) dictionary->setObject_forKey(n(value), String::string(text));
      else dictionary->setObject_forKey(n(value), std::string_view(text));
      if (!model.contains(text)) order.push_back(text);
      model[text] = value;
    } else if (operation < 9) {
      if (step % 2) dictionary->removeObjectForKey(String::string(text));
      else dictionary->removeObjectForKey(std::string_view(text));
      if (model.erase(text)) order.erase(std::find(order.begin(), order.end(), text));
    } else if (model.size() > 300 || step % 1000 == 999) {
      dictionary->removeAllObjects();
      model.clear();
      order.clear();
    }
    ASSERT_EQ(dictionary->count(), model.size()) << "step " << step;
    const Id found = dictionary->objectForKey(String::string(text));
    const auto expected = model.find(text);
    ASSERT_EQ(found != nullptr, expected != model.end()) << "step " << step;
    if (found) {
      ASSERT_EQ(Number::castObject(found)->integerValue(), expected->second);
    }
  }
  std::vector<std::string> keys;
  for (const auto& entry : *dictionary) keys.push_back(String::castObject(entry.key)->utf8());
  EXPECT_EQ(keys, order);
  for (const auto& [text, value] : model)
    ASSERT_EQ(Number::castObject(dictionary->objectForKey(text))->integerValue(), value);
}

// Short keys hash by word loads that overlap; a byte that the loads skipped,
// or a length that the mix ignored, would pile such keys into one bucket.
TEST(Collections, TextHashesTellApartKeysThatDifferInOneByteOrInLength) {
  std::unordered_map<std::size_t, std::string> seen;
  auto record = [&](const std::string& text) {
    const auto [it, inserted] = seen.emplace(String::string(text)->hash(), text);
    ASSERT_TRUE(inserted || it->second == text) << "\"" << text << "\" and \"" << it->second << "\"";
  };
  for (std::size_t length = 0; length <= 24; ++length) {
    const std::string base(length, 'a');
    record(base);
    for (std::size_t position = 0; position < length; ++position)
      for (char replacement : {'b', 'A', '.', '\0'}) {
        std::string text = base;
        text[position] = replacement;
        record(text);
      }
  }
  for (int i = 0; i < 200'000; ++i) record(fmt::format("k{}", i));
}

TEST(Collections, SetMatchesModelUnderRandomChanges) {
  std::mt19937 random(7);
  auto set = Set::set();
  std::unordered_map<std::int64_t, bool> model;
  for (int step = 0; step < 20000; ++step) {
    const auto value = static_cast<std::int64_t>(random() % 500);
    if (random() % 2) {
      set->addObject(random() % 2 ? n(value) : Number::of(static_cast<double>(value)));
      model[value] = true;
    } else {
      set->removeObject(n(value));
      model.erase(value);
    }
    ASSERT_EQ(set->count(), model.size());
    ASSERT_EQ(set->containsObject(n(value)), model.contains(value));
  }
  for (const auto& [value, present] : model) ASSERT_TRUE(set->containsObject(n(value)));
}

TEST(Collections, CountedSetCountsAdditions) {
  auto counted = CountedSet::countedSetWithArray(Array::arrayWithObjects({"a"_s, "b"_s, "a"_s}));
  EXPECT_EQ(counted->count(), 2u);
  EXPECT_EQ(counted->countForObject("a"_s), 2u);
  EXPECT_EQ(counted->countForObject("z"_s), 0u);
  counted->removeObject("a"_s);
  EXPECT_TRUE(counted->containsObject("a"_s));
  counted->removeObject("a"_s);
  EXPECT_FALSE(counted->containsObject("a"_s));
  counted->removeObject("a"_s);  // absent: nothing to do
  EXPECT_EQ(counted->countForObject("a"_s), 0u);

  auto other = CountedSet::countedSetWithArray(Array::arrayWithObjects({"b"_s}));
  EXPECT_TRUE(counted->isEqual(other));
  other->addObject("b"_s);
  EXPECT_FALSE(counted->isEqual(other));  // same members, other counts
}

}  // namespace
}  // namespace fennick
