#pragma once
// Bookmark data on Linux. No sandbox asks for a platform bookmark, so the data
// only has to find the item again and tell whether it is still the same item:
// a binary property list holding the item's path (as bytes, so that any path
// survives) and its identity (device and inode numbers). Decoding checks every
// field and refuses anything else. Internal to the platform layer.
#include "fennick/Runtime/ObjectModel/Ref.h"

#include <cstdint>
#include <optional>
#include <string>

namespace fennick {
class Data;
}

namespace fennick::platform {

struct BookmarkTarget {
  std::string path;  // absolute
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
};

/// The bookmark data for a target.
Ref<Data> encodeBookmark(const BookmarkTarget& target);
/// The target a bookmark names; nil for data that is not a bookmark.
std::optional<BookmarkTarget> decodeBookmark(const Ref<Data>& data);

}  // namespace fennick::platform
