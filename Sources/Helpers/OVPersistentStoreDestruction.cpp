#include "fennick/Helpers/OVPersistentStoreDestruction.h"

#include <filesystem>
#include <system_error>

namespace fennick {

namespace {

bool isReachable(const Ref<URL>& url) {
  std::error_code ignored;
  return url && url->isFileURL() && std::filesystem::exists(std::filesystem::symlink_status(url->path(), ignored));
}

bool removeItem(const Ref<URL>& url, Ref<Error>* error) {
  std::error_code failure;
  std::filesystem::remove_all(url->path(), failure);
  if (!failure) return true;
  if (error) *error = Error::posixError(failure.value());
  return false;
}

Ref<URL> companion(const Ref<URL>& store, std::string_view suffix) {
  return store->URLByDeletingPathExtension()->URLByAppendingPathExtension(store->pathExtension() + std::string(suffix));
}

}  // namespace

bool OVDestroyPersistentStoreAtURL(const Ref<URL>& storeURL, bool isSQLiteStore, Ref<Error>* error) {
  if (!isReachable(storeURL)) return false;
  if (!removeItem(storeURL, error)) return false;
  if (!isSQLiteStore) return true;
  for (std::string_view suffix : {"-shm", "-wal"}) {
    Ref<URL> file = companion(storeURL, suffix);
    if (file && isReachable(file) && !removeItem(file, error)) return false;
  }
  return true;
}

}  // namespace fennick
