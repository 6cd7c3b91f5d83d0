#include "fennick/Helpers/Data/OVJSONParser.h"

#include "fennick/Runtime/Processes/Bundle.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVJSONParser) {}

namespace {

constexpr std::string_view missingValueTemplate = "Missing value for key %@";
constexpr std::string_view incorrectTypeTemplate = "Incorrect type of value for key %@";

// Fills a one-argument template: "%@" and "%1$@" take the key, "%%" is a
// percent sign; anything else stays as written.
std::string formatWithKey(std::string_view pattern, std::string_view key) {
  std::string text;
  text.reserve(pattern.size() + key.size());
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] == '%') {
      const std::string_view rest = pattern.substr(i + 1);
      if (rest.starts_with("@")) {
        text += key;
        i += 1;
        continue;
      }
      if (rest.starts_with("1$@")) {
        text += key;
        i += 3;
        continue;
      }
      if (rest.starts_with("%")) {
        text += '%';
        i += 1;
        continue;
      }
    }
    text += pattern[i];
  }
  return text;
}

Ref<Error> makeError(std::string_view pattern, std::int64_t code, std::string_view key) {
  const std::string localized = Bundle::mainBundle()->localizedStringForKey_value_table(pattern, "", "");
  return Error::errorWithDomain_code_description(OVJSONParserErrorDomain, code, formatWithKey(localized, key));
}

// The components of a key path, split at every "." (empty ones kept).
class KeyPathComponents {
 public:
  explicit KeyPathComponents(std::string_view path) : rest_(path) {}
  /// The next intermediate component; false when only the final key is left.
  bool nextIntermediate(std::string_view& component) {
    // Components are short: a plain scan beats a call to memchr.
    for (std::size_t dot = 0; dot < rest_.size(); ++dot) {
      if (rest_[dot] != '.') continue;
      component = rest_.substr(0, dot);
      rest_.remove_prefix(dot + 1);
      return true;
    }
    return false;
  }
  std::string_view finalKey() const { return rest_; }

 private:
  std::string_view rest_;
};

Id valueIn(const Object* container, std::string_view key) {
  const auto* dictionary = static_cast<const Dictionary*>(container);
  return dictionary ? dictionary->objectForKey(key) : nullptr;
}

}  // namespace

OVJSONParser::OVJSONParser(Ref<Dictionary> json) : jsonDict_(std::move(json)) {}

Ref<OVJSONParser> OVJSONParser::initWithJSON(const Ref<Dictionary>& json) {
  return json ? make<OVJSONParser>(json) : nullptr;
}

Ref<Error> OVJSONParser::createMissingValueErrorForKey(std::string_view key) const {
  return makeError(missingValueTemplate, OVJSONParserErrorCodeMissingValue, key);
}

Ref<Error> OVJSONParser::createIncorrectTypeErrorForKey(std::string_view key) const {
  return makeError(incorrectTypeTemplate, OVJSONParserErrorCodeIncorrectType, key);
}

bool OVJSONParser::acceptsValue(const Object* value, std::string_view key, const Class* cls, bool isOptional) {
  if (isOptional) return value && value->isKindOfClass(cls);
  // The first failure is sticky.
  if (hasError_.load(std::memory_order_acquire) && lastError_.load()) return false;
  if (!value) {
    setLastError(createMissingValueErrorForKey(key));
    return false;
  }
  if (!value->isKindOfClass(cls)) {
    setLastError(createIncorrectTypeErrorForKey(key));
    return false;
  }
  return true;
}

Id OVJSONParser::validatedValue_forKey_isKindOfClass(const Id& value, std::string_view key, const Class* cls) {
  return acceptsValue(value.get(), key, cls, false) ? value : nullptr;
}

Id OVJSONParser::validatedValue_forKey_isKindOfClass_isOptional(const Id& value, std::string_view key,
                                                                const Class* cls, bool isOptional) {
  return acceptsValue(value.get(), key, cls, isOptional) ? value : nullptr;
}

Id OVJSONParser::objectForKeyPath_ofClass(std::string_view keyPath, const Class* cls) {
  return objectForKeyPath_ofClass_isOptional(keyPath, cls, false);
}

Id OVJSONParser::objectForKeyPath_ofClass_isOptional(std::string_view keyPath, const Class* cls,
                                                     bool isOptional) {
  KeyPathComponents components(keyPath);
  // The root holds everything below it; the walk borrows the dictionaries on
  // the way and copies only the value it answers.
  const Ref<Dictionary> root = jsonDict();
  const Dictionary* current = root.get();
  std::string_view key;
  while (current && components.nextIntermediate(key)) {
    const Id* next = current->findObjectForKey(key);
    const Object* step = next ? next->get() : nullptr;
    current = acceptsValue(step, key, Dictionary::staticClass(), isOptional) ? static_cast<const Dictionary*>(step)
                                                                             : nullptr;
  }
  // After a failed intermediate step the final check finds the error already
  // recorded (required) or answers nil (optional).
  while (components.nextIntermediate(key)) {
  }
  const Id* value = current ? current->findObjectForKey(components.finalKey()) : nullptr;
  if (!acceptsValue(value ? value->get() : nullptr, components.finalKey(), cls, isOptional)) return nullptr;
  return *value;
}

Id OVJSONParser::validatedObjectFromJSON_forKeyPath_ofClass(const Id& json, std::string_view keyPath,
                                                           const Class* cls) {
  KeyPathComponents components(keyPath);
  const Object* current = Dictionary::dynamicCastObject(json.get());
  Id holder;  // keeps the current dictionary alive while the walk reads it
  std::string_view key;
  while (current && components.nextIntermediate(key)) {
    holder = valueIn(current, key);
    current = Dictionary::dynamicCastObject(holder.get());
  }
  if (!current) return nullptr;
  Id value = valueIn(current, components.finalKey());
  return value && value->isKindOfClass(cls) ? value : nullptr;
}

template <class T>
Ref<T> OVJSONParser::required(std::string_view key) {
  Ref<Dictionary> json = jsonDict();
  return T::castObject(validatedValue_forKey_isKindOfClass(json ? json->objectForKey(key) : nullptr, key,
                                                           T::staticClass()));
}

template <class T>
Ref<T> OVJSONParser::requiredAtPath(std::string_view keyPath) {
  return T::castObject(objectForKeyPath_ofClass(keyPath, T::staticClass()));
}

Ref<Number> OVJSONParser::numberForKey(std::string_view key) { return required<Number>(key); }
Ref<String> OVJSONParser::stringForKey(std::string_view key) { return required<String>(key); }
Ref<Dictionary> OVJSONParser::dictionaryForKey(std::string_view key) { return required<Dictionary>(key); }
Ref<Array> OVJSONParser::arrayForKey(std::string_view key) { return required<Array>(key); }

double OVJSONParser::doubleForKey(std::string_view key) {
  auto number = numberForKey(key);
  return number ? number->doubleValue() : 0.0;
}

std::int64_t OVJSONParser::integerForKey(std::string_view key) {
  auto number = numberForKey(key);
  return number ? number->integerValue() : 0;
}

std::uint64_t OVJSONParser::unsignedIntegerForKey(std::string_view key) {
  auto number = numberForKey(key);
  return number ? number->unsignedIntegerValue() : 0;
}

namespace {
Ref<URL> urlFrom(const Ref<String>& text) { return text ? URL::URLWithString(text->view()) : nullptr; }
Ref<Date> dateFrom(const Ref<Number>& seconds) {
  return seconds ? Date::dateWithTimeIntervalSince1970(seconds->doubleValue()) : nullptr;
}
}  // namespace

Ref<URL> OVJSONParser::URLForKey(std::string_view key) { return urlFrom(stringForKey(key)); }
Ref<Date> OVJSONParser::unixtimeBasedDateForKey(std::string_view key) { return dateFrom(numberForKey(key)); }

Ref<Number> OVJSONParser::numberForKeyPath(std::string_view keyPath) { return requiredAtPath<Number>(keyPath); }
Ref<String> OVJSONParser::stringForKeyPath(std::string_view keyPath) { return requiredAtPath<String>(keyPath); }
Ref<URL> OVJSONParser::URLForKeyPath(std::string_view keyPath) { return urlFrom(stringForKeyPath(keyPath)); }
Ref<Date> OVJSONParser::unixtimeBasedDateForKeyPath(std::string_view keyPath) {
  return dateFrom(numberForKeyPath(keyPath));
}

}  // namespace fennick
