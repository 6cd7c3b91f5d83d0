#include "fennick/Helpers/Files/URLSecurityScope.h"

#include "fennick/Dispatch/Queue.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

#include <set>

namespace fennick {

namespace {

constexpr const char* kGettingDirectorySizePropose = "getting directory size";

// A URL that is its own secure access URL keeps this instead of itself, so
// that the mark does not make the URL own itself.
class SecureAccessSelfReference : public Object {
  FENNICK_DECLARE_CLASS(SecureAccessSelfReference, Object)

 public:
  static Ref<SecureAccessSelfReference> to(const Ref<URL>& url) {
    auto reference = make<SecureAccessSelfReference>();
    reference->url_ = url;
    return reference;
  }
  Ref<URL> url() const { return url_.lock(); }

 protected:
  SecureAccessSelfReference() = default;

 private:
  std::weak_ptr<URL> url_;
};

// The secure access URL kept on `url`, or nil.
Ref<URL> keptSecureAccessURL(const Id& value) {
  if (auto self = SecureAccessSelfReference::dynamicCastObject(value)) return self->url();
  return URL::dynamicCastObject(value);
}

bool boolValue(const Id& value) {
  auto number = Number::dynamicCastObject(value);
  return number && number->boolValue();
}

}  // namespace

FENNICK_DEFINE_CLASS(SecureAccessSelfReference) {}

Ref<URL> bookmarkedURL(const Ref<URL>& url) {
  return OVURLsAccessController::defaultURLsAccessController()->bookmarkedURL(url);
}

bool beginAccessingSecurityScopedResourceForPropose(const Ref<URL>& url, const OVPropose& propose) {
  return OVURLsAccessController::defaultURLsAccessController()->beginAccessingSecurityScopedResourceAtURL_propose(
      url, propose);
}

void endAccessingSecurityScopedResourceForPropose(const Ref<URL>& url, const OVPropose& propose) {
  OVURLsAccessController::defaultURLsAccessController()->endAccessingSecurityScopedResource_propose(url, propose);
}

bool accessSecurityScopedResourceForPropose_block(const Ref<URL>& url, const OVPropose& propose,
                                                  const std::function<void()>& block) {
  if (!beginAccessingSecurityScopedResourceForPropose(url, propose)) return false;
  if (block) block();
  endAccessingSecurityScopedResourceForPropose(url, propose);
  return true;
}

void setSecureAccessURL(const Ref<URL>& url, const Ref<URL>& secureURL) {
  if (!url) return;
  if (!secureURL) url->removeCachedResourceValueForKey(DXURLSecureAccessURLKey);
  else if (secureURL == url) url->setTemporaryResourceValue_forKey(SecureAccessSelfReference::to(url), DXURLSecureAccessURLKey);
  else url->setTemporaryResourceValue_forKey(secureURL, DXURLSecureAccessURLKey);
}

Ref<URL> secureAccessURL(const Ref<URL>& url) {
  if (!url) return nullptr;
  auto values = url->resourceValuesForKeys(
      Array::arrayWithObjects({String::string(DXURLSecureAccessURLKey), String::string(DXURLIsBookmarkedKey)}));
  if (Ref<URL> kept = values ? keptSecureAccessURL(values->objectForKey(DXURLSecureAccessURLKey)) : nullptr)
    return kept;
  const bool isBookmarked = values && boolValue(values->objectForKey(DXURLIsBookmarkedKey));
  if (OVURLsAccessController::defaultURLsAccessController()->isBookmarkingEnabled() && !isBookmarked) return nullptr;
  return url;
}

void getResourceValuesForKeys_completionBlock(
    const Ref<URL>& url, const Ref<Array>& keys,
    std::function<void(const Ref<Dictionary>& values, const Ref<Error>& error)> completion) {
  if (!url) return;
  std::set<std::string> uniqueKeys;
  if (keys)
    for (const Id& key : *keys) uniqueKeys.insert(key->description());
  const bool wantsDiskSize = uniqueKeys.count(DXURLDiskSizeKey) != 0;
  if (wantsDiskSize) uniqueKeys.insert({NSURLIsDirectoryKey, NSURLIsVolumeKey, NSURLFileAllocatedSizeKey});
  auto keyList = Array::array();
  for (const std::string& key : uniqueKeys) keyList->addObject(String::string(key));

  dispatch::global(QOS_CLASS_UTILITY)->async([url, keyList, wantsDiskSize, completion = std::move(completion)] {
    Ref<Error> error;
    Ref<Dictionary> read = url->resourceValuesForKeys(keyList, &error);
    auto result = Dictionary::dictionary();
    if (!read) {
      if (completion) completion(result, error);
      return;
    }
    read->enumerateKeysAndObjectsUsingBlock([&](const Id& key, const Id& value, bool&) {
      Id shown = key->description() == DXURLSecureAccessURLKey ? Id(keptSecureAccessURL(value)) : value;
      if (shown) result->setObject_forKey(shown, key);
    });
    Ref<Error> sizeError;
    if (wantsDiskSize && !read->objectForKey(DXURLDiskSizeKey)) {
      Id size;
      if (!boolValue(read->objectForKey(NSURLIsDirectoryKey)) && !boolValue(read->objectForKey(NSURLIsVolumeKey))) {
        size = read->objectForKey(NSURLFileAllocatedSizeKey);
      } else {
        accessSecurityScopedResourceForPropose_block(url, kGettingDirectorySizePropose, [&] {
          // A tree that could not be read whole has no size to keep.
          const std::int64_t bytes = url->fetchDirectorySize(&sizeError);
          if (!sizeError) size = Number::numberWithInteger(bytes);
        });
      }
      if (size) {
        url->setTemporaryResourceValue_forKey(size, DXURLDiskSizeKey);
        result->setObject_forKey(size, DXURLDiskSizeKey);
      }
    }
    if (completion) completion(result, sizeError);
  });
}

}  // namespace fennick
