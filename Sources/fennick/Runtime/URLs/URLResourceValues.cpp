// Resource values of URLs: the per-object cache, and reads of file-system
// keys through the URL file system. The cache always wins over the disk.
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"
#include "fennick/Runtime/URLs/URLFileSystem.h"

#include <string>
#include <vector>

namespace fennick {

Ref<Error> URL::unsupportedSchemeError() const {
  return Error::errorWithDomain_code_userInfo(
      NSCocoaErrorDomain, 262,
      Dictionary::dictionaryWithStringKeys(
          {{NSLocalizedDescriptionKey,
            String::string("The file couldn’t be opened because the specified URL type isn’t supported.")},
           {NSURLErrorKey, std::const_pointer_cast<Object>(self())}}));
}

bool URL::readFileSystemValues(std::span<const std::string> keys, Dictionary& values, Ref<Error>* error) const {
  if (!isFileURL()) {
    if (error) *error = unsupportedSchemeError();
    return false;
  }
  return systemURLFileSystem().readResourceValues(*this, keys, values, error);
}

Id URL::cachedResourceValueForKey(std::string_view key) const {
  std::lock_guard lock(cacheMutex_);
  auto it = cache_.find(key);
  return it == cache_.end() ? nullptr : it->second;
}

Id URL::resourceValueForKey(std::string_view key, Ref<Error>* error) const {
  if (Id cached = cachedResourceValueForKey(key)) return cached;
  if (!systemURLFileSystem().answersResourceKey(key)) return nullptr;
  const std::string keys[] = {std::string(key)};
  auto values = Dictionary::dictionary();
  if (!readFileSystemValues(keys, *values, error)) return nullptr;
  return values->objectForKey(key);
}

Ref<Dictionary> URL::resourceValuesForKeys(const Ref<Array>& keys, Ref<Error>* error) const {
  auto values = Dictionary::dictionary();
  if (!keys) return values;
  // Cached values first; the rest come from one read of the item, and the
  // result keeps the order of the keys asked for.
  std::vector<std::pair<std::string, Id>> found;
  std::vector<std::string> unread;
  for (const Id& keyObject : *keys) {
    std::string key = keyObject->description();
    Id cached = cachedResourceValueForKey(key);
    if (!cached && systemURLFileSystem().answersResourceKey(key)) unread.push_back(key);
    found.emplace_back(std::move(key), std::move(cached));
  }
  auto read = Dictionary::dictionary();
  if (!unread.empty() && !readFileSystemValues(unread, *read, error)) return nullptr;
  for (auto& [key, value] : found) {
    if (!value) value = read->objectForKey(key);
    if (value) values->setObject_forKey(value, key);
  }
  return values;
}

void URL::setResourceValue_forKey(const Id& value, std::string_view key) {
  std::lock_guard lock(cacheMutex_);
  if (!value) {
    if (auto it = cache_.find(key); it != cache_.end()) cache_.erase(it);
    return;
  }
  cache_.insert_or_assign(std::string(key), value);
}

void URL::removeCachedResourceValueForKey(std::string_view key) { setResourceValue_forKey(nullptr, key); }

void URL::removeAllCachedResourceValues() {
  std::lock_guard lock(cacheMutex_);
  cache_.clear();
}

}  // namespace fennick
