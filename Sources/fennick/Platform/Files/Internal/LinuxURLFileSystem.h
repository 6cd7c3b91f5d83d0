#pragma once
// The Linux file system behind file URLs: status reads for resource values,
// identities with shared O_PATH descriptors for reference URLs, bookmarks
// that find an item by path and know its identity, and the walk that sizes a
// folder's tree.
// Thread-safe; one instance serves the process (systemURLFileSystem()).
#include "fennick/Runtime/URLs/URLFileSystem.h"

namespace fennick::platform {

class LinuxURLFileSystem final : public URLFileSystem {
 public:
  bool isDirectoryAtPath(const std::string& path) const override;
  bool answersResourceKey(std::string_view key) const override;
  bool readResourceValues(const URL& url, std::span<const std::string> keys, Dictionary& values,
                          Ref<Error>* error) const override;
  Ref<const FileIdentity> identityOfItemAtPath(const std::string& path) const override;
  Ref<Data> bookmarkDataForURL(const URL& url, Ref<Error>* error) const override;
  Ref<URL> URLByResolvingBookmarkData(const Ref<Data>& data, bool& isStale, Ref<Error>* error) const override;
  std::int64_t allocatedSizeOfFolderTree(const std::string& path, Ref<Error>* error) const override;
};

}  // namespace fennick::platform
