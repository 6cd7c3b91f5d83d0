#include "fennick/Platform/Files/Internal/Bookmark.h"

#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Coding/PropertyList.h"
#include "fennick/Runtime/Values/String.h"

namespace fennick::platform {

namespace {

constexpr const char* kKindKey = "Kind";
constexpr const char* kKind = "com.orvane.fennick.bookmark";
constexpr const char* kVersionKey = "Version";
constexpr std::int64_t kVersion = 1;
constexpr const char* kPathKey = "Path";
constexpr const char* kDeviceKey = "Device";
constexpr const char* kInodeKey = "Inode";

// An integer field: booleans, reals and negative numbers are not identities
// or versions, however they would convert.
std::optional<std::uint64_t> unsignedField(const Dictionary& bookmark, const char* key) {
  auto number = Number::dynamicCastObject(bookmark.objectForKey(key));
  if (!number) return std::nullopt;
  if (number->kind() == Number::Kind::Unsigned) return number->unsignedIntegerValue();
  if (number->kind() != Number::Kind::Signed || number->integerValue() < 0) return std::nullopt;
  return static_cast<std::uint64_t>(number->integerValue());
}

}  // namespace

Ref<Data> encodeBookmark(const BookmarkTarget& target) {
  auto bookmark = Dictionary::dictionaryWithStringKeys(
      {{kKindKey, String::string(kKind)},
       {kVersionKey, Number::numberWithInteger(kVersion)},
       {kPathKey, Data::dataWithBytes(target.path.data(), target.path.size())},
       {kDeviceKey, Number::numberWithUnsignedInteger(target.device)},
       {kInodeKey, Number::numberWithUnsignedInteger(target.inode)}});
  return PropertyList::dataWithPropertyList_format_error(bookmark, PropertyListFormat::Binary, nullptr);
}

std::optional<BookmarkTarget> decodeBookmark(const Ref<Data>& data) {
  PropertyListFormat format{};
  Id plist = data ? PropertyList::propertyListWithData_format_error(data, &format, nullptr) : nullptr;
  auto bookmark = Dictionary::dynamicCastObject(plist);
  if (!bookmark || format != PropertyListFormat::Binary) return std::nullopt;
  auto kind = String::dynamicCastObject(bookmark->objectForKey(kKindKey));
  auto version = unsignedField(*bookmark, kVersionKey);
  auto path = Data::dynamicCastObject(bookmark->objectForKey(kPathKey));
  auto device = unsignedField(*bookmark, kDeviceKey);
  auto inode = unsignedField(*bookmark, kInodeKey);
  if (!kind || kind->view() != kKind || version != static_cast<std::uint64_t>(kVersion) || !path || !device || !inode)
    return std::nullopt;
  BookmarkTarget target{std::string(path->stringView()), *device, *inode};
  if (!target.path.starts_with('/') || target.path.find('\0') != std::string::npos) return std::nullopt;
  return target;
}

}  // namespace fennick::platform
