#pragma once
// Reads typed values out of JSON that has already been decoded into runtime
// objects (JSON::JSONObjectWithData_options_error gives dictionaries with
// string keys, arrays, strings, numbers and the null marker). It does not
// parse text.
//
//   auto reader = OVJSONParser::initWithJSON(document);
//   auto name = reader->stringForKey("name");
//   auto port = reader->integerForKey("port");
//   auto home = reader->URLForKeyPath("links.home");
//   if (reader->lastError()) reject(reader->lastError());  // names the first bad field
//
// Required reads (every getter below except the optional form of
// objectForKeyPath_ofClass_isOptional) record their first failure in
// lastError, and once an error is there every later required read answers
// nil (or 0) without looking: read every field, then look at lastError once.
// Errors are in OVJSONParserErrorDomain:
//   -1000 OVJSONParserErrorCodeMissingValue   "Missing value for key %@"
//   -1001 OVJSONParserErrorCodeIncorrectType  "Incorrect type of value for key %@"
//                                              (the null marker included)
// The texts are looked up in the main bundle's localized strings (gettext in
// the text domain of the main bundle identifier, see Bundle.h), so a host
// application translates them with its own message catalogue.
//
// Key paths are split at every "." (no escaping; "a..b" has an empty middle
// key); there are no dictionary or array getters by key path.
//
// lastError and jsonDict have atomic accessors, but one reader is meant for
// one thread: several threads reading through one reader race for which
// error is recorded first.
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"

#include <atomic>
#include <cstdint>
#include <string_view>

namespace fennick {

inline constexpr const char* OVJSONParserErrorDomain = "com.orvane.OVJSONParserErrorDomain";
enum OVJSONParserErrorCode : std::int64_t {
  OVJSONParserErrorCodeMissingValue = -1000,
  OVJSONParserErrorCodeIncorrectType = -1001,
};

class OVJSONParser : public Object {
  FENNICK_DECLARE_CLASS(OVJSONParser, Object)

 public:
  /// A reader of `json`, or nil when `json` is nil.
  static Ref<OVJSONParser> initWithJSON(const Ref<Dictionary>& json);

  Ref<Error> lastError() const { return lastError_.load(); }
  /// The reader never clears its error; a caller may (nil).
  void setLastError(Ref<Error> error) {
    const bool failed = error != nullptr;
    lastError_.store(std::move(error));
    hasError_.store(failed, std::memory_order_release);
  }
  Ref<Dictionary> jsonDict() const { return jsonDict_.load(); }
  void setJsonDict(Ref<Dictionary> json) { jsonDict_.store(std::move(json)); }

  // -- Required reads by key ----------------------------------------------------------
  Ref<Number> numberForKey(std::string_view key);
  Ref<String> stringForKey(std::string_view key);
  Ref<Dictionary> dictionaryForKey(std::string_view key);
  Ref<Array> arrayForKey(std::string_view key);
  /// The number's value; 0 on failure (lastError tells a stored 0 apart).
  double doubleForKey(std::string_view key);
  std::int64_t integerForKey(std::string_view key);
  std::uint64_t unsignedIntegerForKey(std::string_view key);
  /// The string as a URL; nil, with no error, when it is not a valid URL.
  Ref<URL> URLForKey(std::string_view key);
  /// The number as seconds since 1 January 1970 UTC, fraction kept.
  Ref<Date> unixtimeBasedDateForKey(std::string_view key);

  // -- Required reads by key path ----------------------------------------------------------
  Ref<Number> numberForKeyPath(std::string_view keyPath);
  Ref<String> stringForKeyPath(std::string_view keyPath);
  Ref<URL> URLForKeyPath(std::string_view keyPath);
  Ref<Date> unixtimeBasedDateForKeyPath(std::string_view keyPath);

  // -- General operations -------------------------------------------------------------------
  Id objectForKeyPath_ofClass(std::string_view keyPath, const Class* cls);
  /// Walks the path through dictionaries and checks the final value's class.
  /// Required: a failure records one error naming the component that failed
  /// (an intermediate one when the walk stopped early). Optional: nil on any
  /// failure, and lastError is neither read nor written.
  Id objectForKeyPath_ofClass_isOptional(std::string_view keyPath, const Class* cls, bool isOptional);
  /// Optional: `value` when it is of the class, else nil. Required: as below.
  Id validatedValue_forKey_isKindOfClass_isOptional(const Id& value, std::string_view key, const Class* cls,
                                                    bool isOptional);
  /// The required check: nil at once after an earlier error; a nil value
  /// records the missing-value error, a value of another class (the null
  /// marker included) the incorrect-type error; else the value.
  Id validatedValue_forKey_isKindOfClass(const Id& value, std::string_view key, const Class* cls);
  /// New error records for a key (not stored).
  Ref<Error> createMissingValueErrorForKey(std::string_view key) const;
  Ref<Error> createIncorrectTypeErrorForKey(std::string_view key) const;

  /// Reads one value by key path out of any decoded object, never recording
  /// an error: nil when a step is not a dictionary or the value is not of
  /// the class.
  static Id validatedObjectFromJSON_forKeyPath_ofClass(const Id& json, std::string_view keyPath, const Class* cls);

 protected:
  explicit OVJSONParser(Ref<Dictionary> json);

 private:
  // The check behind validatedValue: true when the read may go on.
  bool acceptsValue(const Object* value, std::string_view key, const Class* cls, bool isOptional);
  template <class T>
  Ref<T> required(std::string_view key);
  template <class T>
  Ref<T> requiredAtPath(std::string_view keyPath);

  std::atomic<Ref<Error>> lastError_;
  // Mirrors whether lastError_ is set: every step of every read checks for a
  // sticky error, and loading the shared pointer itself takes a lock.
  std::atomic<bool> hasError_{false};
  std::atomic<Ref<Dictionary>> jsonDict_;
};

}  // namespace fennick
