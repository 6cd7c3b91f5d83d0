#include "fennick/Runtime/Observation/ValueTransformer.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <mutex>
#include <shared_mutex>

namespace fennick {

namespace {

class BlockValueTransformer : public ValueTransformer {
  FENNICK_DECLARE_CLASS(BlockValueTransformer, ValueTransformer)

 public:
  bool allowsReverseTransformation() const override { return static_cast<bool>(reverse_); }
  Id transformedValue(const Id& value) const override { return forward_ ? forward_(value) : value; }
  Id reverseTransformedValue(const Id& value) const override {
    return reverse_ ? reverse_(value) : ValueTransformer::reverseTransformedValue(value);
  }

 protected:
  BlockValueTransformer(Transform forward, Transform reverse)
      : forward_(std::move(forward)), reverse_(std::move(reverse)) {}

 private:
  const Transform forward_;
  const Transform reverse_;
};

// The platform's boolValue for text: leading blanks, then an optional sign and
// zeros, then YES for Y, y, T, t or a digit 1-9.
bool textBoolValue(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  while (i < text.size() && text[i] == '0') ++i;
  if (i == text.size()) return false;
  const char c = text[i];
  return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

// Negates a boolean: nil and the null marker count as NO, text as its
// boolValue; other objects have no boolean value and answer nil.
class NegateBooleanTransformer : public ValueTransformer {
  FENNICK_DECLARE_CLASS(NegateBooleanTransformer, ValueTransformer)

 public:
  const Class* transformedValueClass() const override { return Number::staticClass(); }
  Id transformedValue(const Id& value) const override {
    if (isNilOrNull(value)) return Number::numberWithBool(true);
    if (auto* number = dynamic_cast<const Number*>(value.get()))
      return Number::numberWithBool(!number->boolValue());
    if (auto* text = dynamic_cast<const String*>(value.get()))
      return Number::numberWithBool(!textBoolValue(text->view()));
    return nullptr;
  }

 protected:
  NegateBooleanTransformer() = default;
};

// Answers whether the value is nil (or, with `negated`, is not).
class NilTestTransformer : public ValueTransformer {
  FENNICK_DECLARE_CLASS(NilTestTransformer, ValueTransformer)

 public:
  const Class* transformedValueClass() const override { return Number::staticClass(); }
  bool allowsReverseTransformation() const override { return false; }
  Id transformedValue(const Id& value) const override {
    return Number::numberWithBool((value == nullptr) != negated_);
  }

 protected:
  explicit NilTestTransformer(bool negated = false) : negated_(negated) {}

 private:
  const bool negated_;
};

struct Registry {
  std::shared_mutex mutex;
  std::map<std::string, Ref<ValueTransformer>, std::less<>> byName;
};

Registry& registry() {
  static Registry* instance = [] {
    auto* fresh = new Registry;  // lives as long as the process
    fresh->byName.emplace(NSNegateBooleanTransformerName, make<NegateBooleanTransformer>());
    fresh->byName.emplace(NSIsNilTransformerName, make<NilTestTransformer>(false));
    fresh->byName.emplace(NSIsNotNilTransformerName, make<NilTestTransformer>(true));
    return fresh;
  }();
  return *instance;
}

}  // namespace

FENNICK_DEFINE_CLASS(ValueTransformer) { builder.archiveNames({"NSValueTransformer"}); }
FENNICK_DEFINE_CLASS(BlockValueTransformer) {}
FENNICK_DEFINE_CLASS(NegateBooleanTransformer) {}
FENNICK_DEFINE_CLASS(NilTestTransformer) {}

Ref<ValueTransformer> ValueTransformer::init() { return make<ValueTransformer>(); }

Ref<ValueTransformer> ValueTransformer::valueTransformerWithBlocks(Transform forward, Transform reverse) {
  return make<BlockValueTransformer>(std::move(forward), std::move(reverse));
}

void ValueTransformer::setValueTransformer_forName(const Ref<ValueTransformer>& transformer,
                                                   std::string_view name) {
  Registry& r = registry();
  std::unique_lock lock(r.mutex);
  if (!transformer) {
    if (auto it = r.byName.find(name); it != r.byName.end()) r.byName.erase(it);
    return;
  }
  r.byName.insert_or_assign(std::string(name), transformer);
}

Ref<ValueTransformer> ValueTransformer::valueTransformerForName(std::string_view name) {
  Registry& r = registry();
  std::shared_lock lock(r.mutex);
  auto it = r.byName.find(name);
  return it == r.byName.end() ? nullptr : it->second;
}

Ref<Array> ValueTransformer::valueTransformerNames() {
  Registry& r = registry();
  std::shared_lock lock(r.mutex);
  auto names = Array::arrayWithCapacity(r.byName.size());
  for (const auto& entry : r.byName) names->addObject(String::string(entry.first));
  return names;
}

const Class* ValueTransformer::transformedValueClass() const { return Object::staticClass(); }

bool ValueTransformer::allowsReverseTransformation() const { return true; }

Id ValueTransformer::transformedValue(const Id& value) const { return value; }

Id ValueTransformer::reverseTransformedValue(const Id& value) const {
  if (!allowsReverseTransformation())
    throw Exception(NSInternalInconsistencyException,
                    fmt::format("{}: reverse transformation is not allowed", description()));
  return transformedValue(value);
}

}  // namespace fennick
