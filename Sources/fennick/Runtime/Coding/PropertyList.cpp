#include "fennick/Runtime/Coding/PropertyList.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Coding/Internal/BinaryPropertyListScan.h"
#include "fennick/Runtime/Coding/Internal/XMLPropertyListScan.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

#include <plist/plist.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

namespace fennick {

namespace {

struct PlistFree {
  void operator()(void* node) const { plist_free(node); }
};
using PlistOwner = std::unique_ptr<void, PlistFree>;

Ref<Error> plistError(std::int64_t code, std::string debugDescription) {
  const char* description = code == NSPropertyListReadCorruptError
                                ? "The data couldn\u2019t be read because it isn\u2019t in the correct format."
                                : "The data couldn\u2019t be written because it isn\u2019t in the correct format.";
  return Error::errorWithDomain_code_userInfo(
      NSCocoaErrorDomain, code,
      Dictionary::dictionaryWithStringKeys(
          {{NSLocalizedDescriptionKey, String::string(description)},
           {NSDebugDescriptionErrorKey, String::string(std::move(debugDescription))}}));
}

// libplist 2.2 has one integer type and keeps a hidden width flag: values it
// parsed from a 128-bit binary integer (or an XML integer above INT64_MAX) are
// written back unsigned, every other value is written as signed 64-bit. The
// flag can be neither set nor read directly, so a wide node is made by parsing
// a one-object binary list, and recognised by comparing with such a node.
PlistOwner parseWideInteger(std::uint64_t value) {
  constexpr std::size_t kObjectOffset = 8, kObjectSize = 17, kOffsetTable = kObjectOffset + kObjectSize;
  std::array<char, kOffsetTable + 1 + 32> bytes{};
  std::memcpy(bytes.data(), "bplist00", 8);
  bytes[kObjectOffset] = 0x14;  // integer, 2^4 = 16 bytes, big-endian
  for (std::size_t i = 0; i < 8; ++i)
    bytes[kObjectOffset + 9 + i] = static_cast<char>(value >> (56 - 8 * i));
  bytes[kOffsetTable] = static_cast<char>(kObjectOffset);
  char* trailer = bytes.data() + kOffsetTable + 1;
  trailer[6] = 1;   // offset size
  trailer[7] = 1;   // object reference size
  trailer[15] = 1;  // object count
  trailer[31] = static_cast<char>(kOffsetTable);
  plist_t node = nullptr;
  plist_from_bin(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &node);
  return PlistOwner(node);
}

// Seconds since 2001 as libplist's (seconds, microseconds) pair, whose parts
// carry the same sign; nullopt outside the 32-bit range libplist keeps.
std::optional<std::pair<std::int32_t, std::int32_t>> plistDateParts(double sinceReference) {
  if (!std::isfinite(sinceReference)) return std::nullopt;
  const double micros = std::round(sinceReference * 1e6);
  const double seconds = std::trunc(micros / 1e6);
  if (seconds < std::numeric_limits<std::int32_t>::min() || seconds > std::numeric_limits<std::int32_t>::max())
    return std::nullopt;
  return std::pair{static_cast<std::int32_t>(seconds), static_cast<std::int32_t>(micros - seconds * 1e6)};
}

double dateFromPlistNode(plist_t node) {
  std::int32_t seconds = 0, micros = 0;
  plist_get_date_val(node, &seconds, &micros);
  // libplist hands back the microseconds without their sign.
  const double fraction = std::abs(micros) / 1e6;
  return seconds < 0 ? seconds - fraction : seconds + fraction;
}

// Reading ------------------------------------------------------------------

class Reader {
 public:
  Id read(plist_t node, std::size_t depth) {
    if (depth > PropertyList::maxDepth) return fail("containers nested too deeply");
    switch (plist_get_node_type(node)) {
      case PLIST_ARRAY: return readArray(node, depth);
      case PLIST_DICT: return readDictionary(node, depth);
      case PLIST_UID: {
        std::uint64_t uid = 0;
        plist_get_uid_val(node, &uid);
        return Dictionary::dictionaryWithStringKeys({{"CF$UID", Number::of(uid)}});
      }
      case PLIST_STRING: {
        std::uint64_t length = 0;
        const char* text = plist_get_string_ptr(node, &length);
        if (text && !String::isValidUTF8({text, length})) return fail("string is not valid UTF-8");
        return detail::objectFromPlistScalarNode(node);
      }
      default:
        if (Id scalar = detail::objectFromPlistScalarNode(node)) return scalar;
        return fail("unknown object type");
    }
  }
  Ref<Error> error;

 private:
  Id fail(const char* what) {
    if (!error) error = plistError(NSPropertyListReadCorruptError, what);
    return nullptr;
  }

  Id readArray(plist_t node, std::size_t depth) {
    auto array = Array::arrayWithCapacity(plist_array_get_size(node));
    plist_array_iter iter = nullptr;
    plist_array_new_iter(node, &iter);
    for (plist_t item = nullptr;;) {
      plist_array_next_item(node, iter, &item);
      if (!item) break;
      Id member = read(item, depth + 1);
      if (!member) break;
      array->addObject(member);
    }
    std::free(iter);
    return error ? nullptr : array;
  }

  Id readDictionary(plist_t node, std::size_t depth) {
    auto dictionary = Dictionary::dictionaryWithCapacity(plist_dict_get_size(node));
    plist_dict_iter iter = nullptr;
    plist_dict_new_iter(node, &iter);
    for (;;) {
      char* key = nullptr;
      plist_t item = nullptr;
      plist_dict_next_item(node, iter, &key, &item);
      if (!item) {
        std::free(key);
        break;
      }
      Id value = key && !String::isValidUTF8(key) ? fail("key is not valid UTF-8") : read(item, depth + 1);
      if (value) dictionary->setObject_forKey(value, String::string(key ? key : ""));
      std::free(key);
      if (!value) break;
    }
    std::free(iter);
    return error ? nullptr : dictionary;
  }
};

// Writing ------------------------------------------------------------------

class Writer {
 public:
  PlistOwner write(const Object& object) {
    if (path_.size() >= PropertyList::maxDepth) return fail(object, "containers nested too deeply");
    if (auto* string = dynamic_cast<const String*>(&object)) return writeString(*string);
    if (auto* number = dynamic_cast<const Number*>(&object))
      return PlistOwner(detail::newPlistNodeForNumber(*number));
    if (auto* data = dynamic_cast<const Data*>(&object))
      return PlistOwner(plist_new_data(reinterpret_cast<const char*>(data->bytes()), data->length()));
    if (auto* date = dynamic_cast<const Date*>(&object)) return writeDate(*date);
    if (auto* array = dynamic_cast<const Array*>(&object)) return writeContainer(*array);
    if (auto* dictionary = dynamic_cast<const Dictionary*>(&object)) return writeContainer(*dictionary);
    return fail(object, "objects of this class are not property-list values");
  }
  Ref<Error> error;

 private:
  // Names the class and the reason only: the contents (a password, a key
  // from outside) must not reach an error description or a log line.
  PlistOwner fail(const Object& object, std::string_view what) {
    if (!error)
      error = plistError(NSPropertyListWriteInvalidError,
                         fmt::format("Property list invalid: {} ({})", what, object.objectClass()->name()));
    return nullptr;
  }

  PlistOwner writeString(const String& string) {
    if (string.view().find('\0') != std::string_view::npos)
      return fail(string, "strings cannot hold NUL characters");
    return PlistOwner(plist_new_string(string.UTF8String()));
  }

  PlistOwner writeDate(const Date& date) {
    auto parts = plistDateParts(date.timeIntervalSinceReferenceDate());
    if (!parts) return fail(date, "the date is out of the representable range");
    return PlistOwner(plist_new_date(parts->first, parts->second));
  }

  template <class Container>
  PlistOwner writeContainer(const Container& container) {
    if (std::find(path_.begin(), path_.end(), &container) != path_.end())
      return fail(container, "a container holds itself");
    path_.push_back(&container);
    PlistOwner node = writeMembers(container);
    path_.pop_back();
    return node;
  }

  PlistOwner writeMembers(const Array& array) {
    PlistOwner node(plist_new_array());
    for (const Id& member : array) {
      PlistOwner child = write(*member);
      if (!child) return nullptr;
      plist_array_append_item(node.get(), child.release());
    }
    return node;
  }

  PlistOwner writeMembers(const Dictionary& dictionary) {
    PlistOwner node(plist_new_dict());
    for (const Dictionary::Entry& entry : dictionary) {
      auto* key = dynamic_cast<const String*>(entry.key.get());
      if (!key) return fail(*entry.key, "dictionary keys must be strings");
      if (key->view().find('\0') != std::string_view::npos)
        return fail(*key, "strings cannot hold NUL characters");
      PlistOwner child = write(*entry.value);
      if (!child) return nullptr;
      plist_dict_set_item(node.get(), key->UTF8String(), child.release());
    }
    return node;
  }

  std::vector<const Object*> path_;
};

}  // namespace

namespace detail {

PlistNode parsePlistNode(std::string_view bytes, bool* binary, const char** problem) {
  *binary = false;
  *problem = "The data is too large";
  if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) return nullptr;
  const auto length = static_cast<std::uint32_t>(bytes.size());
  *binary = plist_is_binary(bytes.data(), length);
  // Both scans walk the whole input before libplist allocates anything.
  *problem = *binary ? binaryPropertyListHazard(bytes, PropertyList::maxDepth)
                     : xmlPropertyListHazard(bytes, PropertyList::maxDepth);
  if (*problem) return nullptr;
  plist_t root = nullptr;
  if (*binary) plist_from_bin(bytes.data(), length, &root);
  else plist_from_xml(bytes.data(), length, &root);
  if (!root) *problem = *binary ? "Malformed binary property list" : "Malformed XML property list";
  return root;
}

PlistNode newPlistNodeForNumber(const Number& number) {
  switch (number.kind()) {
    case Number::Kind::Bool: return plist_new_bool(number.boolValue());
    case Number::Kind::Double: return plist_new_real(number.doubleValue());
    case Number::Kind::Signed: return plist_new_uint(static_cast<std::uint64_t>(number.integerValue()));
    case Number::Kind::Unsigned: {
      const std::uint64_t value = number.unsignedIntegerValue();
      if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
        return plist_new_uint(value);
      if (PlistOwner wide = parseWideInteger(value)) return wide.release();
      return plist_new_uint(value);
    }
  }
  return nullptr;
}

Ref<Number> numberFromPlistIntegerNode(PlistNode node) {
  std::uint64_t value = 0;
  plist_get_uint_val(node, &value);
  if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
    return Number::numberWithInteger(static_cast<std::int64_t>(value));
  PlistOwner wide = parseWideInteger(value);
  if (wide && plist_compare_node_value(node, wide.get())) return Number::numberWithUnsignedInteger(value);
  return Number::numberWithInteger(static_cast<std::int64_t>(value));
}

Id objectFromPlistScalarNode(PlistNode node) {
  switch (plist_get_node_type(node)) {
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      const std::string_view view(text ? text : "", text ? length : 0);
      return String::isValidUTF8(view) ? String::string(view) : nullptr;
    }
    case PLIST_UINT: return numberFromPlistIntegerNode(node);
    case PLIST_REAL: {
      double value = 0;
      plist_get_real_val(node, &value);
      return Number::numberWithDouble(value);
    }
    case PLIST_BOOLEAN: {
      std::uint8_t value = 0;
      plist_get_bool_val(node, &value);
      return Number::numberWithBool(value != 0);
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* bytes = plist_get_data_ptr(node, &length);
      return Data::dataWithBytes(bytes, bytes ? length : 0);
    }
    case PLIST_DATE: return Date::dateWithTimeIntervalSinceReferenceDate(dateFromPlistNode(node));
    default: return nullptr;
  }
}

}  // namespace detail

Id PropertyList::propertyListWithData_format_error(const Ref<Data>& data, PropertyListFormat* format,
                                                   Ref<Error>* error) {
  return propertyListWithBytes_format_error(data ? data->stringView() : std::string_view(), format, error);
}

Id PropertyList::propertyListWithBytes_format_error(std::string_view bytes, PropertyListFormat* format,
                                                    Ref<Error>* error) {
  auto failed = [&](const char* why) -> Id {
    if (error) *error = plistError(NSPropertyListReadCorruptError, why);
    return nullptr;
  };
  if (bytes.empty()) return failed("Cannot parse a NULL or zero-length data");
  bool binary = false;
  const char* problem = nullptr;
  PlistOwner root(detail::parsePlistNode(bytes, &binary, &problem));
  if (!root) return failed(problem);

  Reader reader;
  Id result = reader.read(root.get(), 0);
  if (!result) {
    if (error) *error = reader.error;
    return nullptr;
  }
  if (format) *format = binary ? PropertyListFormat::Binary : PropertyListFormat::XML;
  return result;
}

Ref<Data> PropertyList::dataWithPropertyList_format_error(const Id& plist, PropertyListFormat format,
                                                          Ref<Error>* error) {
  if (!plist) {
    if (error) *error = plistError(NSPropertyListWriteInvalidError, "Property list invalid: nil");
    return nullptr;
  }
  Writer writer;
  PlistOwner root = writer.write(*plist);
  if (!root) {
    if (error) *error = writer.error;
    return nullptr;
  }
  char* bytes = nullptr;
  std::uint32_t length = 0;
  if (format == PropertyListFormat::Binary) plist_to_bin(root.get(), &bytes, &length);
  else plist_to_xml(root.get(), &bytes, &length);
  if (!bytes) {
    if (error) *error = plistError(NSPropertyListWriteInvalidError, "The property list could not be encoded");
    return nullptr;
  }
  Ref<Data> data = Data::dataWithBytes(bytes, length);
  if (format == PropertyListFormat::Binary) plist_to_bin_free(bytes);
  else plist_to_xml_free(bytes);
  return data;
}

bool PropertyList::propertyList_isValidForFormat(const Id& plist, PropertyListFormat) {
  if (!plist) return false;
  Writer writer;
  return writer.write(*plist) != nullptr;
}

}  // namespace fennick
