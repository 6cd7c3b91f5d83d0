// Dictionary against std::unordered_map: one million inserts of text keys,
// then one million lookups. Keys and values are made before timing. Lookups
// use String instances distinct from the inserted ones (equal text), as they
// usually are in real code, so that equality is tested on text and not on
// identity.
#include "Comparison.h"

#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

#include <fmt/format.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace fennick::bench {
namespace {

constexpr std::size_t kEntries = 1'000'000;

struct Fixture {
  std::vector<std::string> texts;
  std::vector<Ref<String>> keys;
  std::vector<Ref<String>> lookupKeys;
  std::vector<Id> values;

  Fixture() {
    texts.reserve(kEntries);
    keys.reserve(kEntries);
    lookupKeys.reserve(kEntries);
    values.reserve(kEntries);
    for (std::size_t i = 0; i < kEntries; ++i) {
      texts.push_back(fmt::format("key{}", i * 7919 % 10'000'019));
      keys.push_back(String::string(texts.back()));
      lookupKeys.push_back(String::string(texts.back()));
      values.push_back(Number::of(i));
    }
  }
};

const Fixture& fixture() {
  static const Fixture shared;
  return shared;
}

void dictionaryInsertAndLookup(benchmark::State& state) {
  const Fixture& f = fixture();
  for (auto _ : state) {
    auto dictionary = Dictionary::dictionary();
    for (std::size_t i = 0; i < kEntries; ++i) dictionary->setObject_forKey(f.values[i], f.keys[i]);
    std::size_t found = 0;
    for (const Ref<String>& key : f.lookupKeys) found += dictionary->objectForKey(key) != nullptr;
    if (found != kEntries) state.SkipWithError("lookup missed");
    benchmark::DoNotOptimize(found);
  }
}

void unorderedMapInsertAndLookup(benchmark::State& state) {
  const Fixture& f = fixture();
  for (auto _ : state) {
    std::unordered_map<std::string, std::shared_ptr<Object>> map;
    for (std::size_t i = 0; i < kEntries; ++i) map[f.texts[i]] = f.values[i];
    std::size_t found = 0;
    for (const std::string& key : f.texts) found += map.find(key) != map.end();
    if (found != kEntries) state.SkipWithError("lookup missed");
    benchmark::DoNotOptimize(found);
  }
}

}  // namespace

FENNICK_COMPARISON(dictionary_vs_unordered_map, dictionaryInsertAndLookup,
                   unorderedMapInsertAndLookup, .goal = 0.7);

}  // namespace fennick::bench
