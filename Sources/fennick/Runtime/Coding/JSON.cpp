#include "fennick/Runtime/Coding/JSON.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Coding/PropertyList.h"
#include "fennick/Runtime/Values/String.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <vector>

namespace fennick {

namespace {

Ref<Error> jsonError(std::int64_t code, std::string debugDescription, std::optional<std::size_t> index) {
  auto info = Dictionary::dictionaryWithStringKeys(
      {{NSLocalizedDescriptionKey,
        String::string(code == NSPropertyListReadCorruptError
                           ? "The data couldn\u2019t be read because it isn\u2019t in the correct format."
                           : "The data couldn\u2019t be written because it isn\u2019t in the correct format.")},
       {NSDebugDescriptionErrorKey, String::string(std::move(debugDescription))}});
  if (index) info->setObject_forKey(Number::of(static_cast<std::uint64_t>(*index)), JSONErrorIndexKey);
  return Error::errorWithDomain_code_userInfo(NSCocoaErrorDomain, code, info);
}

// Builds runtime objects from nlohmann's SAX events, keeping the open
// containers on a stack of its own (the parser does not recurse either).
class ObjectBuilder {
 public:
  using json = nlohmann::json;

  bool null() { return add(Null::null()); }
  bool boolean(bool value) { return add(Number::numberWithBool(value)); }
  bool number_integer(json::number_integer_t value) { return add(Number::numberWithInteger(value)); }
  bool number_unsigned(json::number_unsigned_t value) {
    if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
      return add(Number::numberWithInteger(static_cast<std::int64_t>(value)));
    return add(Number::numberWithUnsignedInteger(value));
  }
  bool number_float(json::number_float_t value, const json::string_t&) {
    return add(Number::numberWithDouble(value));
  }
  bool string(json::string_t& value) { return add(String::string(std::move(value))); }
  bool binary(json::binary_t&) { return false; }  // not produced by JSON text

  bool start_object(std::size_t) { return open(Dictionary::dictionary()); }
  bool key(json::string_t& name) {
    pendingKeys_.back() = String::string(std::move(name));
    return true;
  }
  bool end_object() { return close(); }
  bool start_array(std::size_t) { return open(Array::array()); }
  bool end_array() { return close(); }

  bool parse_error(std::size_t position, const std::string&, const nlohmann::detail::exception& exception) {
    std::string message = exception.what();
    // "[json.exception.parse_error.101] parse error at line 1, ..." -> "parse error at ..."
    if (auto bracket = message.find("] "); message.starts_with("[json.") && bracket != std::string::npos)
      message.erase(0, bracket + 2);
    error = jsonError(NSPropertyListReadCorruptError, std::move(message), position ? position - 1 : 0);
    return false;
  }

  Id root;
  Ref<Error> error;

 private:
  bool add(Id value) {
    if (open_.empty()) {
      root = std::move(value);
      return true;
    }
    if (auto* dictionary = dynamic_cast<Dictionary*>(open_.back().get()))
      dictionary->setObject_forKey(value, pendingKeys_.back());
    else
      static_cast<Array*>(open_.back().get())->addObject(value);
    return true;
  }

  bool open(Id container) {
    if (open_.size() >= JSON::maxDepth) {
      error = jsonError(NSPropertyListReadCorruptError,
                        fmt::format("arrays and objects are nested more than {} levels deep", JSON::maxDepth),
                        std::nullopt);
      return false;
    }
    if (!add(container)) return false;
    open_.push_back(std::move(container));
    pendingKeys_.emplace_back();
    return true;
  }

  bool close() {
    open_.pop_back();
    pendingKeys_.pop_back();
    return true;
  }

  std::vector<Id> open_;
  std::vector<Ref<String>> pendingKeys_;
};

class TextWriter {
 public:
  explicit TextWriter(std::uint32_t options) : options_(options) {}

  bool write(const Object& object, std::size_t depth) {
    if (auto* string = dynamic_cast<const String*>(&object)) return writeString(string->view());
    if (auto* number = dynamic_cast<const Number*>(&object)) return writeNumber(*number);
    if (&object == Null::null().get()) {
      text += "null";
      return true;
    }
    if (depth >= JSON::maxDepth)
      return fail(fmt::format("containers nested more than {} levels deep (or holding themselves)", JSON::maxDepth));
    if (auto* array = dynamic_cast<const Array*>(&object)) return writeArray(*array, depth);
    if (auto* dictionary = dynamic_cast<const Dictionary*>(&object)) return writeDictionary(*dictionary, depth);
    return fail(fmt::format("Invalid type in JSON write ({})", object.objectClass()->name()));
  }

  std::string text;
  Ref<Error> error;

 private:
  bool fail(std::string why) {
    if (!error) error = jsonError(NSPropertyListWriteInvalidError, std::move(why), std::nullopt);
    return false;
  }

  bool pretty() const { return options_ & JSONWritingPrettyPrinted; }

  void newline(std::size_t depth) {
    if (!pretty()) return;
    text += '\n';
    text.append(2 * depth, ' ');
  }

  bool writeString(std::string_view value) {
    if (!String::isValidUTF8(value)) return fail("Invalid UTF-8 in JSON string");
    text += '"';
    for (char c : value) {
      switch (c) {
        case '"': text += "\\\""; break;
        case '\\': text += "\\\\"; break;
        case '/': text += (options_ & JSONWritingWithoutEscapingSlashes) ? "/" : "\\/"; break;
        case '\b': text += "\\b"; break;
        case '\f': text += "\\f"; break;
        case '\n': text += "\\n"; break;
        case '\r': text += "\\r"; break;
        case '\t': text += "\\t"; break;
        default:
          if (static_cast<unsigned char>(c) < 0x20) text += fmt::format("\\u{:04x}", static_cast<int>(c));
          else text += c;
      }
    }
    text += '"';
    return true;
  }

  bool writeNumber(const Number& number) {
    switch (number.kind()) {
      case Number::Kind::Bool: text += number.boolValue() ? "true" : "false"; break;
      case Number::Kind::Signed: text += fmt::format("{}", number.integerValue()); break;
      case Number::Kind::Unsigned: text += fmt::format("{}", number.unsignedIntegerValue()); break;
      case Number::Kind::Double: {
        const double value = number.doubleValue();
        if (!std::isfinite(value)) return fail("Invalid number value (NaN or infinity) in JSON write");
        text += fmt::format("{}", value);
        break;
      }
    }
    return true;
  }

  bool writeArray(const Array& array, std::size_t depth) {
    text += '[';
    bool first = true;
    for (const Id& member : array) {
      if (!first) text += ',';
      first = false;
      newline(depth + 1);
      if (!write(*member, depth + 1)) return false;
    }
    if (!first) newline(depth);
    text += ']';
    return true;
  }

  bool writeDictionary(const Dictionary& dictionary, std::size_t depth) {
    std::vector<std::pair<const String*, const Object*>> members;
    members.reserve(dictionary.count());
    for (const Dictionary::Entry& entry : dictionary) {
      auto* key = dynamic_cast<const String*>(entry.key.get());
      if (!key) return fail(fmt::format("Invalid (non-string) key in JSON dictionary ({})",
                                        entry.key->objectClass()->name()));
      members.emplace_back(key, entry.value.get());
    }
    if (options_ & JSONWritingSortedKeys)
      std::sort(members.begin(), members.end(),
                [](const auto& a, const auto& b) { return a.first->view() < b.first->view(); });
    text += '{';
    bool first = true;
    for (const auto& [key, value] : members) {
      if (!first) text += ',';
      first = false;
      newline(depth + 1);
      if (!writeString(key->view())) return false;
      text += pretty() ? " : " : ":";
      if (!write(*value, depth + 1)) return false;
    }
    if (!first) newline(depth);
    text += '}';
    return true;
  }

  std::uint32_t options_;
};

bool isContainer(const Id& object) {
  return dynamic_cast<const Array*>(object.get()) || dynamic_cast<const Dictionary*>(object.get());
}

}  // namespace

Id JSON::JSONObjectWithData_options_error(const Ref<Data>& data, std::uint32_t options, Ref<Error>* error) {
  return JSONObjectWithString_options_error(data ? data->stringView() : std::string_view(), options, error);
}

Id JSON::JSONObjectWithString_options_error(std::string_view text, std::uint32_t options, Ref<Error>* error) {
  ObjectBuilder builder;
  const bool parsed = nlohmann::json::sax_parse(text.begin(), text.end(), &builder,
                                                nlohmann::json::input_format_t::json, /*strict*/ true);
  // nlohmann's lexer takes a NUL byte for the end of the input, as in a C
  // string, so "123\0junk" parses as 123. A NUL is never valid JSON text (a
  // string holds one only as "\u0000"): when the parse went through, any NUL
  // lies after a complete value and is trailing text.
  if (const auto nul = text.find('\0'); parsed && !builder.error && nul != std::string_view::npos)
    builder.error = jsonError(NSPropertyListReadCorruptError, fmt::format("syntax error while parsing value - unexpected NUL byte at {}; expected end of input", nul),
                              nul);
  if (parsed && !(options & JSONReadingFragmentsAllowed) && !isContainer(builder.root))
    builder.error = jsonError(NSPropertyListReadCorruptError,
                              "JSON text did not start with array or object and option to allow fragments not set.",
                              0);
  if (!parsed || builder.error) {
    if (error)
      *error = builder.error ? builder.error
                             : jsonError(NSPropertyListReadCorruptError, "Malformed JSON text", std::nullopt);
    return nullptr;
  }
  return builder.root;
}

bool JSON::writeJSONObject_toString_options_error(const Id& object, std::string& text, std::uint32_t options,
                                                  Ref<Error>* error) {
  TextWriter writer(options);
  if (!object) writer.error = jsonError(NSPropertyListWriteInvalidError, "Invalid top-level object (nil)", std::nullopt);
  else if (!(options & JSONWritingFragmentsAllowed) && !isContainer(object))
    writer.error = jsonError(NSPropertyListWriteInvalidError, "Invalid top-level type in JSON write", std::nullopt);
  else writer.write(*object, 0);
  if (writer.error) {
    if (error) *error = writer.error;
    return false;
  }
  text = std::move(writer.text);
  return true;
}

Ref<Data> JSON::dataWithJSONObject_options_error(const Id& object, std::uint32_t options, Ref<Error>* error) {
  std::string text;
  if (!writeJSONObject_toString_options_error(object, text, options, error)) return nullptr;
  return Data::dataWithString(text);
}

bool JSON::isValidJSONObject(const Id& object) {
  std::string text;
  return writeJSONObject_toString_options_error(object, text, 0, nullptr);
}

}  // namespace fennick
