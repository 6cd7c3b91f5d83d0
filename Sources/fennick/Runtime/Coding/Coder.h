#pragma once
// The keyed coder interface that archivable classes write to and read from.
// KeyedArchiver implements the encoding half, KeyedUnarchiver the decoding
// half; each throws Exception (NSInvalidArgumentException) from the half it
// does not implement.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>
#include <vector>

namespace fennick {

class Array;
class Error;
class Number;
class String;

/// Classes allowed by a secure decode.
using ClassList = std::vector<const Class*>;

class Coder {
 public:
  virtual ~Coder() = default;

  // Encoding ------------------------------------------------------------------
  virtual void encodeObject_forKey(const Id& object, std::string_view key);
  /// Encodes the object only if something else encodes it unconditionally;
  /// otherwise it decodes as nil.
  virtual void encodeConditionalObject_forKey(const Id& object, std::string_view key);
  virtual void encodeBool_forKey(bool value, std::string_view key);
  virtual void encodeInt64_forKey(std::int64_t value, std::string_view key);
  virtual void encodeDouble_forKey(double value, std::string_view key);
  /// Encodes raw bytes inline (not as an object reference).
  virtual void encodeBytes_forKey(std::span<const std::uint8_t> bytes, std::string_view key);
  /// Encodes the members as one array of object references (as collections do).
  virtual void encodeArrayOfObjects_forKey(const std::vector<Id>& objects, std::string_view key);

  // Decoding ------------------------------------------------------------------
  /// Whether decoding refuses classes outside the allowed set.
  virtual bool requiresSecureCoding() const { return true; }
  virtual bool containsValueForKey(std::string_view key) const;
  /// The object under the key if it is of the class (or a subclass); nil when
  /// absent. A value of another class fails the decode: nil is returned and
  /// the coder records an error (see KeyedUnarchiver::error).
  virtual Id decodeObjectOfClass_forKey(const Class* cls, std::string_view key);
  /// The same with a set of allowed classes, which also applies to the
  /// members of decoded collections.
  virtual Id decodeObjectOfClasses_forKey(const ClassList& classes, std::string_view key);
  /// The classes allowed for the object currently being decoded (containers
  /// pass them on to their members).
  virtual const ClassList& allowedClasses() const;
  virtual bool decodeBoolForKey(std::string_view key);
  virtual std::int64_t decodeInt64ForKey(std::string_view key);
  virtual double decodeDoubleForKey(std::string_view key);
  /// Bytes written by encodeBytes_forKey; empty when absent.
  virtual std::vector<std::uint8_t> decodeBytesForKey(std::string_view key);
  /// Members of an array written by encodeArrayOfObjects_forKey, each checked
  /// against the allowed classes.
  virtual std::vector<Id> decodeArrayOfObjectsForKey(std::string_view key);
  /// Stops decoding with an error; later decodes answer nil.
  virtual void failWithError(const Ref<Error>& error);

  // Coding by selector ----------------------------------------------------------
  // Properties are often named by their getter's selector; these operations
  // take the selector and code under its key.
  /// The archive key of a selector: its name unchanged, colons included. Every
  /// operation below goes through it, so a subclass changes the rule here.
  virtual std::string ov_keyFromSelector(Selector selector) const;
  void ov_encodeObject_forSelector(const Id& object, Selector selector);
  void ov_encodeConditionalObject_forSelector(const Id& object, Selector selector);
  Id ov_decodeObjectOfClass_forSelector(const Class* cls, Selector selector);
  Id ov_decodeObjectOfClasses_forSelector(const ClassList& classes, Selector selector);
  /// Decoded with the class String (or Number); a value of another class
  /// fails the decode as decodeObjectOfClass_forKey does.
  Ref<String> ov_decodeStringForSelector(Selector selector);
  Ref<Number> ov_decodeNumberForSelector(Selector selector);
  /// A container whose members may be of the element classes.
  Id ov_decodeContainerOfClass_objectClass_forSelector(const Class* container, const Class* element,
                                                       Selector selector);
  Id ov_decodeContainerOfClass_objectClasses_forSelector(const Class* container, const ClassList& elements,
                                                         Selector selector);
  Ref<Array> ov_decodeArrayWithObjectClass_forSelector(const Class* element, Selector selector);
  Ref<Array> ov_decodeArrayWithObjectClasses_forSelector(const ClassList& elements, Selector selector);

 protected:
  [[noreturn]] void unsupported(const char* operation) const;
};

}  // namespace fennick
