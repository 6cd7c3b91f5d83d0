#pragma once
// Writes object graphs as keyed archives: binary property lists in the
// platform's layout, so that archives travel between the platform and Linux.
//
//   Ref<Error> error;
//   Ref<Data> archive = KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(
//       graph, /*secure*/ true, &error);
//
// Layout: a dictionary with "$archiver" = "NSKeyedArchiver", "$version" =
// 100000, "$top" (the top-level keys; the root object under "root") and
// "$objects", whose first member is the string "$null" (what UID 0 refers to).
// Strings, numbers and data are stored inline in "$objects"; every other
// object is a dictionary of its encoded keys plus "$class", a reference to a
// class entry {"$classname", "$classes"} naming the class chain by archive
// names (["NSMutableArray", "NSArray", "NSObject"] for a mutable array).
//
// Each object is written once: later references to the same object (and to
// equal strings and numbers) share its entry, so shared objects and cycles
// survive the round trip. Classes take part by declaring coding
// (ClassBuilder::coding) and implementing encodeWithCoder/initWithCoder.
//
// An archiver is used from one thread at a time.
#include "fennick/Runtime/Coding/Coder.h"

#include <memory>

namespace fennick {

class Data;
class Error;

/// NSCocoaErrorDomain codes of keyed coding.
inline constexpr std::int64_t NSCoderReadCorruptError = 4864;
inline constexpr std::int64_t NSCoderValueNotFoundError = 4865;
inline constexpr std::int64_t NSCoderInvalidValueError = 4866;

class KeyedArchiver final : public Coder {
 public:
  /// With `requiresSecureCoding`, classes that do not support secure coding
  /// are refused.
  explicit KeyedArchiver(bool requiresSecureCoding = true);
  ~KeyedArchiver() override;
  KeyedArchiver(const KeyedArchiver&) = delete;
  KeyedArchiver& operator=(const KeyedArchiver&) = delete;

  /// The archive of `root` (under "root"). Nil when an object of the graph
  /// cannot be archived (its class declares no coding, or no secure coding
  /// when `requiresSecureCoding`), or when an encodeWithCoder throws; then
  /// `error`, when not null, receives an NSCocoaErrorDomain error
  /// (NSCoderInvalidValueError) that names the class.
  static Ref<Data> archivedDataWithRootObject_requiringSecureCoding_error(const Id& root,
                                                                        bool requiresSecureCoding,
                                                                        Ref<Error>* error);

  // Coder -----------------------------------------------------------------------
  void encodeObject_forKey(const Id& object, std::string_view key) override;
  void encodeConditionalObject_forKey(const Id& object, std::string_view key) override;
  void encodeBool_forKey(bool value, std::string_view key) override;
  void encodeInt64_forKey(std::int64_t value, std::string_view key) override;
  void encodeDouble_forKey(double value, std::string_view key) override;
  void encodeBytes_forKey(std::span<const std::uint8_t> bytes, std::string_view key) override;
  void encodeArrayOfObjects_forKey(const std::vector<Id>& objects, std::string_view key) override;
  bool requiresSecureCoding() const override;
  /// Stops archiving: later encodes do nothing and encodedData answers nil.
  void failWithError(const Ref<Error>& error) override;

  /// Ends archiving (idempotent) and answers the archive, or nil after a
  /// failure.
  Ref<Data> encodedData();
  /// The first failure, or nil.
  const Ref<Error>& error() const;

  /// Deepest nesting of objects inside objects that is archived; deeper
  /// graphs fail with NSCoderInvalidValueError instead of exhausting the stack.
  static constexpr std::size_t maxDepth = 512;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace fennick
