// Bookmarks, security scope and reachability of URLs. The data and the file
// system's answers come from the URL file system.
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"
#include "fennick/Runtime/URLs/URLFileSystem.h"

namespace fennick {

Ref<Data> URL::bookmarkDataWithOptions_includingResourceValuesForKeys_relativeToURL_error(
    std::uint64_t, const Ref<Array>&, const Ref<URL>&, Ref<Error>* error) const {
  if (!isFileURL()) {
    if (error) *error = unsupportedSchemeError();
    return nullptr;
  }
  return systemURLFileSystem().bookmarkDataForURL(*this, error);
}

Ref<URL> URL::URLByResolvingBookmarkData_options_relativeToURL_bookmarkDataIsStale_error(
    const Ref<Data>& data, std::uint64_t, const Ref<URL>&, bool* isStale, Ref<Error>* error) {
  bool stale = false;
  Ref<URL> url = systemURLFileSystem().URLByResolvingBookmarkData(data, stale, error);
  if (isStale) *isStale = url && stale;
  return url;
}

bool URL::startAccessingSecurityScopedResource() const { return isFileURL(); }

void URL::stopAccessingSecurityScopedResource() const {}

bool URL::checkResourceIsReachableAndReturnError(Ref<Error>* error) const {
  const std::string key[] = {NSURLIsDirectoryKey};
  auto ignored = Dictionary::dictionary();
  return readFileSystemValues(key, *ignored, error);
}

}  // namespace fennick
