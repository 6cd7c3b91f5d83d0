#include "fennick/Platform/Files/Internal/LinuxURLFileSystem.h"

#include "fennick/Platform/Files/DirectorySizeWalker.h"
#include "fennick/Platform/Files/Internal/Bookmark.h"
#include "fennick/Platform/Files/Internal/FileIdentityTable.h"
#include "fennick/Platform/Files/Internal/FileResourceValues.h"
#include "fennick/Platform/Files/Internal/LinuxFileIdentity.h"
#include "fennick/Runtime/Values/CStringText.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"

#include <sys/stat.h>

namespace fennick {

const URLFileSystem& systemURLFileSystem() {
  static const platform::LinuxURLFileSystem* const fileSystem = new platform::LinuxURLFileSystem();
  return *fileSystem;
}

namespace platform {

namespace {

constexpr std::int64_t kFileNoSuchFileError = 4;
constexpr std::int64_t kFileReadCorruptFileError = 259;

Ref<Error> noSuchFileError(const std::string& path) {
  return Error::errorWithDomain_code_userInfo(
      NSCocoaErrorDomain, kFileNoSuchFileError,
      Dictionary::dictionaryWithStringKeys(
          {{NSLocalizedDescriptionKey, String::string("The file couldn’t be opened because it doesn’t exist.")},
           {NSFilePathErrorKey, String::string(path)}}));
}

}  // namespace

// A path holding a NUL byte names no item: the system would read it only up
// to that byte and answer for another one.

bool LinuxURLFileSystem::isDirectoryAtPath(const std::string& path) const {
  struct stat info {};
  return !holdsNulByte(path) && ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

Ref<const FileIdentity> LinuxURLFileSystem::identityOfItemAtPath(const std::string& path) const {
  return holdsNulByte(path) ? nullptr : FileIdentityTable::shared().identityOfItemAtPath(path);
}

Ref<Data> LinuxURLFileSystem::bookmarkDataForURL(const URL& url, Ref<Error>* error) const {
  struct stat status {};
  std::optional<std::string> path = url.fileSystemRepresentation();
  if (!path || ::stat(path->c_str(), &status) != 0) {
    if (error) *error = noSuchFileError(path.value_or(url.absoluteString()));
    return nullptr;
  }
  return encodeBookmark({*path, status.st_dev, status.st_ino});
}

Ref<URL> LinuxURLFileSystem::URLByResolvingBookmarkData(const Ref<Data>& data, bool& isStale,
                                                        Ref<Error>* error) const {
  std::optional<BookmarkTarget> target = decodeBookmark(data);
  if (!target) {
    if (error)
      *error = Error::errorWithDomain_code_description(
          NSCocoaErrorDomain, kFileReadCorruptFileError,
          "The file couldn’t be opened because it isn’t in the correct format.");
    return nullptr;
  }
  struct stat status {};
  if (::stat(target->path.c_str(), &status) != 0) {
    if (error) *error = noSuchFileError(target->path);
    return nullptr;
  }
  isStale = status.st_dev != target->device || status.st_ino != target->inode;
  return URL::fileURLWithPath_isDirectory(target->path, S_ISDIR(status.st_mode));
}

std::int64_t LinuxURLFileSystem::allocatedSizeOfFolderTree(const std::string& path, Ref<Error>* error) const {
  return DirectorySizeWalker(path).run(error);
}

bool LinuxURLFileSystem::answersResourceKey(std::string_view key) const { return isFileSystemResourceKey(key); }

bool LinuxURLFileSystem::readResourceValues(const URL& url, std::span<const std::string> keys,
                                            Dictionary& values, Ref<Error>* error) const {
  struct stat status {};
  if (!readItemStatus(url, status, error)) return false;
  bool asksVolume = false;
  for (const std::string& key : keys) {
    if (Id value = resourceValueFromStatus(key, status, url)) values.setObject_forKey(value, key);
    asksVolume |= isVolumeResourceKey(key);
  }
  if (asksVolume) readVolumeValues(url, keys, values);
  return true;
}

}  // namespace platform
}  // namespace fennick
