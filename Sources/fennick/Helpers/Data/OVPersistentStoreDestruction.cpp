#include "fennick/Helpers/Data/OVPersistentStoreDestruction.h"

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>

namespace fennick {

namespace {

// The path of a reachable item at the URL. Nil when nothing is there, and for
// a path holding a NUL byte ("%00"): the system would read it only up to that
// byte, so ".../victim%00/Store.sqlite" would name, and remove, "victim".
std::optional<std::string> reachablePath(const Ref<URL>& url) {
  std::optional<std::string> path = url ? url->fileSystemRepresentation() : std::nullopt;
  std::error_code ignored;
  if (!path || !std::filesystem::exists(std::filesystem::symlink_status(*path, ignored))) return std::nullopt;
  return path;
}

bool removeItem(const std::string& path, Ref<Error>* error) {
  std::error_code failure;
  std::filesystem::remove_all(path, failure);
  if (!failure) return true;
  if (error) *error = Error::posixError(failure.value());
  return false;
}

// "Store.sqlite" gives "Store.sqlite-shm": the suffix goes after the
// extension. Named from the store's path, which a reference URL no longer
// has once its item is removed.
Ref<URL> companion(const std::string& storePath, std::string_view suffix) {
  Ref<URL> store = URL::fileURLWithPath_isDirectory(storePath, false);
  Ref<URL> stem = store ? store->URLByDeletingPathExtension() : nullptr;
  return stem ? stem->URLByAppendingPathExtension(store->pathExtension() + std::string(suffix)) : nullptr;
}

}  // namespace

bool OVDestroyPersistentStoreAtURL(const Ref<URL>& storeURL, bool isSQLiteStore, Ref<Error>* error) {
  std::optional<std::string> store = reachablePath(storeURL);
  if (!store || !removeItem(*store, error)) return false;
  if (!isSQLiteStore) return true;
  for (std::string_view suffix : {"-shm", "-wal"}) {
    std::optional<std::string> file = reachablePath(companion(*store, suffix));
    if (file && !removeItem(*file, error)) return false;
  }
  return true;
}

}  // namespace fennick
