#include "fennick/Platform/Internal/LinuxURLFileSystem.h"

#include "fennick/Platform/Internal/FileIdentityTable.h"
#include "fennick/Platform/Internal/FileResourceValues.h"
#include "fennick/Platform/Internal/LinuxFileIdentity.h"
#include "fennick/Runtime/Dictionary.h"
#include "fennick/Runtime/URL.h"

#include <sys/stat.h>

namespace fennick {

const URLFileSystem& systemURLFileSystem() {
  static const platform::LinuxURLFileSystem* const fileSystem = new platform::LinuxURLFileSystem();
  return *fileSystem;
}

namespace platform {

bool LinuxURLFileSystem::isDirectoryAtPath(const std::string& path) const {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

Ref<const FileIdentity> LinuxURLFileSystem::identityOfItemAtPath(const std::string& path) const {
  return FileIdentityTable::shared().identityOfItemAtPath(path);
}

bool LinuxURLFileSystem::answersResourceKey(std::string_view key) const { return isFileSystemResourceKey(key); }

bool LinuxURLFileSystem::readResourceValues(const URL& url, std::span<const std::string> keys,
                                            Dictionary& values, Ref<Error>* error) const {
  struct stat status {};
  if (!readItemStatus(url, status, error)) return false;
  for (const std::string& key : keys)
    if (Id value = resourceValueFromStatus(key, status, url)) values.setObject_forKey(value, key);
  return true;
}

}  // namespace platform
}  // namespace fennick
