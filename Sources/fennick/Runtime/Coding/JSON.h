#pragma once
// JSON text <-> runtime objects.
//
//   Ref<Error> error;
//   Id value = JSON::JSONObjectWithData_options_error(data, {}, &error);
//   Ref<Data> text = JSON::dataWithJSONObject_options_error(value, JSONWritingPrettyPrinted, &error);
//
// Reading makes Dictionary (objects), Array, String, Number and the Null
// singleton (null). Numbers keep their kind: integers become signed integers,
// non-negative integers above INT64_MAX unsigned ones, numbers with a fraction
// or an exponent (and integers beyond 64 bits) doubles, true and false
// booleans. Text is parsed as it streams (no intermediate document).
//
// Reading fails, answering nil and an error (NSCocoaErrorDomain,
// NSPropertyListReadCorruptError = 3840 from PropertyList.h, as the platform
// reports JSON errors)
// whose NSDebugDescription says what and where, and whose
// "NSJSONSerializationErrorIndex" holds the byte offset, for: malformed JSON,
// invalid UTF-8 in strings, trailing text, nesting deeper than maxDepth, and a
// top level that is not an array or object unless JSONReadingFragmentsAllowed.
// Duplicate keys in an object are accepted; the last value wins.
// Containers read are mutable.
//
// All functions are thread-safe; they share no state.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace fennick {

class Data;
class Error;

/// Reading options (the platform's values).
enum JSONReadingOptions : std::uint32_t {
  /// A top-level value that is not an array or object is accepted.
  JSONReadingFragmentsAllowed = 1u << 2,
};

/// Writing options (the platform's values).
enum JSONWritingOptions : std::uint32_t {
  /// Two-space indentation, one member per line, " : " after keys.
  JSONWritingPrettyPrinted = 1u << 0,
  /// Object members in byte order of their keys (otherwise dictionary order).
  JSONWritingSortedKeys = 1u << 1,
  /// A top-level value that is not an array or dictionary is written.
  JSONWritingFragmentsAllowed = 1u << 2,
  /// "/" is written as is (otherwise as "\/", as the platform does).
  JSONWritingWithoutEscapingSlashes = 1u << 3,
};

/// Key of the error user info holding the byte offset of a reading failure.
inline constexpr const char* JSONErrorIndexKey = "NSJSONSerializationErrorIndex";

class JSON {
 public:
  JSON() = delete;

  static Id JSONObjectWithData_options_error(const Ref<Data>& data, std::uint32_t options, Ref<Error>* error);
  static Id JSONObjectWithString_options_error(std::string_view text, std::uint32_t options, Ref<Error>* error);

  /// UTF-8 JSON text for Dictionary (String keys), Array, String, Number
  /// (finite), Null. Anything else, a non-string key, NaN or infinity, invalid
  /// UTF-8 text, nesting deeper than maxDepth (including a container holding
  /// itself) or a top-level fragment without JSONWritingFragmentsAllowed
  /// answers nil with an error (NSCocoaErrorDomain,
  /// NSPropertyListWriteInvalidError = 3852).
  static Ref<Data> dataWithJSONObject_options_error(const Id& object, std::uint32_t options, Ref<Error>* error);
  /// The same text, stored into `text`; false (and `text` untouched) on failure.
  static bool writeJSONObject_toString_options_error(const Id& object, std::string& text, std::uint32_t options,
                                                     Ref<Error>* error);
  /// Whether dataWithJSONObject_options_error would succeed (without fragments).
  static bool isValidJSONObject(const Id& object);

  /// Deepest nesting of arrays and objects read or written.
  static constexpr std::size_t maxDepth = 512;
};

}  // namespace fennick
