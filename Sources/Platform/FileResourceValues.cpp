#include "fennick/Platform/Internal/FileResourceValues.h"

#include "fennick/Platform/Internal/LinuxFileIdentity.h"

#include "fennick/Runtime/Date.h"
#include "fennick/Runtime/Dictionary.h"
#include "fennick/Runtime/Error.h"
#include "fennick/Runtime/Number.h"
#include "fennick/Runtime/String.h"
#include "fennick/Runtime/URL.h"

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace fennick::platform {

bool isFileSystemResourceKey(std::string_view key) {
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

}  // namespace fennick::platform
