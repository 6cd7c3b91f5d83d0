#pragma once
// Reads keyed archives (binary or XML property lists in the platform's keyed
// layout, see KeyedArchiver.h) back into object graphs, with secure decoding:
//
//   Ref<Error> error;
//   auto list = KeyedUnarchiver::unarchivedObjectOfClasses_fromData_error(
//       {Array::staticClass(), String::staticClass()}, archive, &error);
//
// Secure decoding checks the class of every decoded value against the allowed
// classes before anything of it is made: the root against the classes given
// here, the members of collections against the same classes, and the values
// that an initWithCoder decodes against the classes it asks for. A value of
// another class fails the whole decode; it is never handed back.
//
// Failures are reported as NSCocoaErrorDomain errors whose NSDebugDescription
// says what went wrong:
//   NSCoderReadCorruptError (4864)   not an archive, a property list built to
//                                    harm its parser (see PropertyList.h),
//                                    malformed entries (bad UIDs, wrong types,
//                                    unknown classes, text that is not UTF-8),
//                                    a value of a class that is not allowed,
//                                    an initWithCoder that threw, nesting
//                                    deeper than maxDepth;
//   NSCoderValueNotFoundError (4865) the archive has no root object.
// After the first failure every decode answers nil (or 0, or empty). The
// NSDebugDescription names the entry and the coder's key, never text taken
// from the archive or an exception's reason.
//
// Objects that take part in a cycle are made blank (Class::allocateForDecoding)
// and registered before their initWithCoder runs, so a member that refers back
// to an object still being decoded receives that very instance. Decoded
// collections are mutable. An unarchiver is used from one thread at a time.
#include "fennick/Runtime/Coding/Coder.h"
#include "fennick/Runtime/Coding/KeyedArchiver.h"

#include <memory>

namespace fennick {

class Data;
class Error;

class KeyedUnarchiver final : public Coder {
 public:
  ~KeyedUnarchiver() override;
  KeyedUnarchiver(const KeyedUnarchiver&) = delete;
  KeyedUnarchiver& operator=(const KeyedUnarchiver&) = delete;

  /// The root object if it is of one of the classes; nil with an error
  /// otherwise (see above).
  static Id unarchivedObjectOfClasses_fromData_error(const ClassList& classes, const Ref<Data>& data,
                                                     Ref<Error>* error);
  static Id unarchivedObjectOfClass_fromData_error(const Class* cls, const Ref<Data>& data,
                                                   Ref<Error>* error);
  /// Typed form: unarchivedObjectOfClass<Array>(data, &error).
  template <class T>
  static Ref<T> unarchivedObjectOfClass(const Ref<Data>& data, Ref<Error>* error) {
    return std::static_pointer_cast<T>(unarchivedObjectOfClass_fromData_error(T::staticClass(), data, error));
  }

  /// An unarchiver for reading several top-level keys; nil with an error
  /// (NSCoderReadCorruptError) when the data is not a keyed archive. Secure
  /// coding is required until setRequiresSecureCoding(false).
  static std::unique_ptr<KeyedUnarchiver> initForReadingFromData_error(const Ref<Data>& data,
                                                                       Ref<Error>* error);
  void setRequiresSecureCoding(bool required);
  /// Decodes without a class check; refused (an error, nil) while secure
  /// coding is required.
  Id decodeObjectForKey(std::string_view key);
  /// The first failure, or nil.
  const Ref<Error>& error() const;

  // Coder -----------------------------------------------------------------------
  bool requiresSecureCoding() const override;
  bool containsValueForKey(std::string_view key) const override;
  Id decodeObjectOfClass_forKey(const Class* cls, std::string_view key) override;
  Id decodeObjectOfClasses_forKey(const ClassList& classes, std::string_view key) override;
  const ClassList& allowedClasses() const override;
  bool decodeBoolForKey(std::string_view key) override;
  std::int64_t decodeInt64ForKey(std::string_view key) override;
  double decodeDoubleForKey(std::string_view key) override;
  std::vector<std::uint8_t> decodeBytesForKey(std::string_view key) override;
  std::vector<Id> decodeArrayOfObjectsForKey(std::string_view key) override;
  void failWithError(const Ref<Error>& error) override;

  /// Deepest nesting of objects inside objects that is decoded.
  static constexpr std::size_t maxDepth = KeyedArchiver::maxDepth;

 private:
  struct State;
  explicit KeyedUnarchiver(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace fennick
