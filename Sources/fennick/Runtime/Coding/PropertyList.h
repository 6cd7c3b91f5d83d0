#pragma once
// Property lists: reading binary and XML property lists into runtime objects
// and writing runtime objects back, in either format, through libplist.
//
//   Ref<Error> error;
//   Id plist = PropertyList::propertyListWithData_format_error(data, nullptr, &error);
//   Ref<Data> xml = PropertyList::dataWithPropertyList_format_error(
//       plist, PropertyListFormat::XML, &error);
//
// The types map as follows (both ways):
//   string  <-> String          integer <-> Number (signed or unsigned)
//   real    <-> Number (double) true/false <-> Number (bool)
//   data    <-> Data            date    <-> Date
//   array   <-> Array           dict    <-> Dictionary with String keys
// A keyed-archive UID (which only archives contain) reads as the dictionary
// {"CF$UID": n}, the form XML property lists give it.
//
// Integers: signed values from INT64_MIN to INT64_MAX and unsigned values up to
// UINT64_MAX keep their sign and kind in both directions (unsigned values above
// INT64_MAX are stored in the 128-bit form other readers expect).
// Dates: XML keeps whole seconds (truncated toward 2001); binary keeps
// microseconds. Strings are UTF-8
// text without embedded NUL characters.
//
// Reading answers mutable arrays and dictionaries. All functions are
// thread-safe; they share no state.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>
#include <string_view>

namespace fennick {

class Data;
class Error;
class Number;

/// Error codes of NSCocoaErrorDomain used for property lists.
inline constexpr std::int64_t NSPropertyListReadCorruptError = 3840;
inline constexpr std::int64_t NSPropertyListWriteInvalidError = 3852;

/// The on-disk formats (the platform's numeric values).
enum class PropertyListFormat : std::uint32_t {
  XML = 100,     // NSPropertyListXMLFormat_v1_0
  Binary = 200,  // NSPropertyListBinaryFormat_v1_0
};

class PropertyList {
 public:
  PropertyList() = delete;

  /// The objects in a binary ("bplist00") or XML property list; the format
  /// found is stored in `format` when it is not null. Malformed or empty data
  /// answers nil with an error (NSCocoaErrorDomain,
  /// NSPropertyListReadCorruptError) in `error` when it is not null; so does
  /// data built to harm the reader: containers nested deeper than maxDepth,
  /// reference cycles, shared objects that would expand far beyond the input's
  /// size, keys and strings with a NUL that the parser would cut them at, text
  /// that is not valid UTF-8 or UTF-16. The error's NSDebugDescription names
  /// the reason and never quotes the data.
  static Id propertyListWithData_format_error(const Ref<Data>& data, PropertyListFormat* format,
                                              Ref<Error>* error);
  static Id propertyListWithBytes_format_error(std::string_view bytes, PropertyListFormat* format,
                                               Ref<Error>* error);

  /// The property list in the format. Objects of other classes, dictionaries
  /// with keys that are not strings, cyclic containers, nesting deeper than
  /// maxDepth, and dates outside the years 1933 to 2069 answer nil with an
  /// error (NSCocoaErrorDomain, NSPropertyListWriteInvalidError) naming the
  /// offending object's class and the reason. The error never holds the
  /// object's contents: values written here are often secrets.
  static Ref<Data> dataWithPropertyList_format_error(const Id& plist, PropertyListFormat format,
                                                     Ref<Error>* error);

  /// Whether dataWithPropertyList_format_error would succeed.
  static bool propertyList_isValidForFormat(const Id& plist, PropertyListFormat format);

  /// Deepest container nesting accepted when writing and when reading: lists
  /// nested deeper read as corrupt, checked before anything of them is
  /// parsed.
  static constexpr std::size_t maxDepth = 512;
};

namespace detail {
// libplist nodes (plist_t) for numbers, shared with the keyed archive reader:
// these carry the workaround for libplist's lack of a signed integer type.
using PlistNode = void*;
/// The libplist tree of a binary or XML property list from outside, once a
/// scan of the bytes has found them safe to hand to libplist (no nesting past
/// PropertyList::maxDepth, no reference cycles or runaway sharing, no NUL that
/// libplist would cut a string at); nullptr with `problem` set to a fixed
/// text otherwise. The caller owns the tree (plist_free).
PlistNode parsePlistNode(std::string_view bytes, bool* binary, const char** problem);
/// A new libplist node for a number; the caller owns it.
PlistNode newPlistNodeForNumber(const Number& number);
/// The Number for an integer node, with its sign and kind as written.
Ref<Number> numberFromPlistIntegerNode(PlistNode node);
/// A runtime object for a scalar node (string, integer, real, boolean, data,
/// date), or nil for container, UID and key nodes and for text that is not
/// valid UTF-8.
Id objectFromPlistScalarNode(PlistNode node);
}  // namespace detail

}  // namespace fennick
