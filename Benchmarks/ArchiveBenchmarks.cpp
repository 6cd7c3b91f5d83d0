// Keyed archiving against a plain binary property list of the same data: a
// 10,000-entry dictionary with string keys and mixed values goes through a
// full round trip (runtime objects -> bytes -> runtime objects) on each side.
#include "Comparison.h"

#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Coding/KeyedArchiver.h"
#include "fennick/Runtime/Coding/KeyedUnarchiver.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

#include <plist/plist.h>

#include <cstdlib>

namespace fennick::bench {
namespace {

constexpr int kEntries = 10000;

const Ref<Dictionary>& sampleDictionary() {
  static const Ref<Dictionary> dictionary = [] {
    auto d = Dictionary::dictionaryWithCapacity(kEntries);
    for (int i = 0; i < kEntries; ++i) {
      Id value;
      switch (i % 5) {
        case 0: value = String::format("value number {}", i); break;
        case 1: value = Number::of(static_cast<std::int64_t>(i) * 7919 - 40000); break;
        case 2: value = Number::of(i * 0.25); break;
        case 3: value = Number::numberWithBool(i % 2 == 0); break;
        default: value = Data::dataWithString("bytes-" + std::to_string(i)); break;
      }
      d->setObject_forKey(value, String::format("key-{}", i));
    }
    return d;
  }();
  return dictionary;
}

void keyedArchiveRoundTrip(benchmark::State& state) {
  const Ref<Dictionary>& input = sampleDictionary();
  const ClassList classes{Dictionary::staticClass(), String::staticClass(), Number::staticClass(),
                          Data::staticClass()};
  for (auto _ : state) {
    Ref<Data> archive = KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(input, true, nullptr);
    Id output = KeyedUnarchiver::unarchivedObjectOfClasses_fromData_error(classes, archive, nullptr);
    if (Dictionary::castObject(output)->count() != kEntries) state.SkipWithError("lost entries");
    benchmark::DoNotOptimize(output);
  }
}

plist_t plistValue(const Object& value) {
  if (auto* string = dynamic_cast<const String*>(&value)) return plist_new_string(string->UTF8String());
  if (auto* data = dynamic_cast<const Data*>(&value))
    return plist_new_data(reinterpret_cast<const char*>(data->bytes()), data->length());
  const auto& number = static_cast<const Number&>(value);
  switch (number.kind()) {
    case Number::Kind::Bool: return plist_new_bool(number.boolValue());
    case Number::Kind::Double: return plist_new_real(number.doubleValue());
    default: return plist_new_uint(static_cast<std::uint64_t>(number.integerValue()));
  }
}

Id runtimeValue(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      return String::string(std::string_view(text, length));
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* bytes = plist_get_data_ptr(node, &length);
      return Data::dataWithBytes(bytes, length);
    }
    case PLIST_BOOLEAN: {
      std::uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return Number::numberWithBool(value);
    }
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return Number::numberWithDouble(value);
    }
    default: {
      std::uint64_t value = 0;
      plist_get_uint_val(node, &value);
      return Number::numberWithInteger(static_cast<std::int64_t>(value));
    }
  }
}

void plainPlistRoundTrip(benchmark::State& state) {
  const Ref<Dictionary>& input = sampleDictionary();
  for (auto _ : state) {
    plist_t dict = plist_new_dict();
    for (const Dictionary::Entry& entry : *input)
      plist_dict_set_item(dict, String::castObject(entry.key)->UTF8String(), plistValue(*entry.value));
    char* bytes = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(dict, &bytes, &length);
    plist_free(dict);

    plist_t parsed = nullptr;
    plist_from_bin(bytes, length, &parsed);
    plist_to_bin_free(bytes);
    auto output = Dictionary::dictionaryWithCapacity(plist_dict_get_size(parsed));
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(parsed, &iter);
    for (;;) {
      char* key = nullptr;
      plist_t item = nullptr;
      plist_dict_next_item(parsed, iter, &key, &item);
      if (!item) break;
      output->setObject_forKey(runtimeValue(item), String::string(key));
      std::free(key);
    }
    std::free(iter);
    plist_free(parsed);
    if (output->count() != kEntries) state.SkipWithError("lost entries");
    benchmark::DoNotOptimize(output);
  }
}

FENNICK_COMPARISON(archive_vs_plist, keyedArchiveRoundTrip, plainPlistRoundTrip, .goal = 0.5);

}  // namespace
}  // namespace fennick::bench
