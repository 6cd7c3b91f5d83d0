#include "fennick/Platform/Files/Internal/FileResourceValues.h"

#include "fennick/Platform/Files/Internal/LinuxFileIdentity.h"
#include "fennick/Platform/Files/Internal/MountTable.h"

#include "fennick/Runtime/Values/CStringText.h"
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

namespace fennick::platform {

bool isVolumeResourceKey(std::string_view key) { return key == NSURLIsVolumeKey || key == NSURLVolumeURLKey; }

bool isFileSystemResourceKey(std::string_view key) {
  if (isVolumeResourceKey(key)) return true;
  static constexpr std::array<std::string_view, 10> keys = {
      NSURLNameKey,          NSURLLocalizedNameKey,     NSURLPathKey,
      NSURLHasHiddenExtensionKey, NSURLIsDirectoryKey, NSURLIsRegularFileKey,
      NSURLIsSymbolicLinkKey, NSURLFileSizeKey,        NSURLFileAllocatedSizeKey,
      NSURLContentModificationDateKey};
  for (std::string_view known : keys)
    if (known == key) return true;
  return false;
}

Id resourceValueFromStatus(std::string_view key, const struct stat& status, const URL& url) {
  const bool isRegular = S_ISREG(status.st_mode);
  if (key == NSURLNameKey || key == NSURLLocalizedNameKey) return String::string(url.lastPathComponent());
  if (key == NSURLPathKey) return String::string(url.path());
  if (key == NSURLHasHiddenExtensionKey) return Number::numberWithBool(false);
  if (key == NSURLIsDirectoryKey) return Number::numberWithBool(S_ISDIR(status.st_mode));
  if (key == NSURLIsRegularFileKey) return Number::numberWithBool(isRegular);
  if (key == NSURLIsSymbolicLinkKey) return Number::numberWithBool(S_ISLNK(status.st_mode));
  if (key == NSURLFileSizeKey)
    return isRegular ? Number::numberWithInteger(static_cast<std::int64_t>(status.st_size)) : nullptr;
  if (key == NSURLFileAllocatedSizeKey)
    return isRegular ? Number::numberWithInteger(static_cast<std::int64_t>(status.st_blocks) * 512) : nullptr;
  if (key == NSURLContentModificationDateKey)
    return Date::dateWithTimeIntervalSince1970(static_cast<double>(status.st_mtim.tv_sec) +
                                               static_cast<double>(status.st_mtim.tv_nsec) / 1e9);
  return nullptr;
}

namespace {

std::optional<struct statx> mountOf(const URL& url) {
  struct statx status {};
  int result = -1;
  constexpr unsigned kWanted = STATX_MNT_ID;
  if (const auto& identity = url.fileIdentity()) {
    static_cast<const LinuxFileIdentity&>(*identity).withDescriptor(
        [&](int descriptor) { result = ::statx(descriptor, "", AT_EMPTY_PATH, kWanted, &status); });
  } else if (std::optional<std::string> path = url.fileSystemRepresentation()) {
    result = ::statx(AT_FDCWD, path->c_str(), AT_SYMLINK_NOFOLLOW, kWanted, &status);
  }
  if (result != 0 || !(status.stx_mask & STATX_MNT_ID)) return std::nullopt;
  return status;
}

// 0 or the errno of the read.
int statusOfIdentity(const LinuxFileIdentity& identity, struct stat& status) {
  int code = ENOENT;  // a revoked identity's file system is gone
  identity.withDescriptor([&](int descriptor) {
    code = ::fstatat(descriptor, "", &status, AT_EMPTY_PATH) == 0 ? 0 : errno;
  });
  return code;
}

}  // namespace

bool readItemStatus(const URL& url, struct stat& status, Ref<Error>* error) {
  const std::string path = url.path();
  int code = 0;
  if (const auto& identity = url.fileIdentity())
    code = statusOfIdentity(static_cast<const LinuxFileIdentity&>(*identity), status);
  else if (holdsNulByte(path))
    code = EINVAL;  // no item has that name; the system would read only up to the NUL
  else
    code = ::lstat(path.c_str(), &status) == 0 ? 0 : errno;
  if (code == 0) return true;
  if (error)
    *error = Error::errorWithDomain_code_userInfo(
        NSPOSIXErrorDomain, code,
        Dictionary::dictionaryWithStringKeys({{NSLocalizedDescriptionKey, String::string(std::strerror(code))},
                                              {NSURLErrorKey, std::const_pointer_cast<Object>(url.self())},
                                              {NSFilePathErrorKey, String::string(path)}}));
  return false;
}

void readVolumeValues(const URL& url, std::span<const std::string> keys, Dictionary& values) {
  std::optional<struct statx> status = mountOf(url);
  if (!status) return;
  std::optional<std::string> mountPoint = MountTable::mountPointOfMount(status->stx_mnt_id);
  if (!mountPoint) return;
  for (const std::string& key : keys) {
    if (key == NSURLVolumeURLKey) {
      values.setObject_forKey(URL::fileURLWithPath_isDirectory(*mountPoint, true), key);
    } else if (key == NSURLIsVolumeKey) {
      const bool isRoot = (status->stx_attributes_mask & STATX_ATTR_MOUNT_ROOT)
                              ? (status->stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0
                              : url.path() == *mountPoint;
      values.setObject_forKey(Number::numberWithBool(isRoot), key);
    }
  }
}

}  // namespace fennick::platform
