#include "fennick/Helpers/Files/OVBookmarkedURLTransformer.h"

#include "fennick/Helpers/Files/URLSecurityScope.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Number.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVBookmarkedURLTransformer) {}

namespace {

constexpr const char* kGettingBookmarkDataPropose = "getting bookmark data";
constexpr const char* kBookmarkingPropose = "bookmarking";

// Opens access to `url` through its secure access URL, else through itself;
// answers the URL that was opened, or nil when both were refused.
Ref<URL> openAccess(const Ref<URL>& url, const char* propose) {
  if (Ref<URL> secureURL = secureAccessURL(url); secureURL && beginAccessingSecurityScopedResourceForPropose(secureURL, propose))
    return secureURL;
  if (beginAccessingSecurityScopedResourceForPropose(url, propose)) return url;
  return nullptr;
}

void closeAccess(const Ref<URL>& opened, const char* propose) {
  if (opened) endAccessingSecurityScopedResourceForPropose(opened, propose);
}

}  // namespace

Ref<OVBookmarkedURLTransformer> OVBookmarkedURLTransformer::init() { return make<OVBookmarkedURLTransformer>(); }

const Class* OVBookmarkedURLTransformer::transformedValueClass() const { return Data::staticClass(); }

bool OVBookmarkedURLTransformer::allowsReverseTransformation() const { return true; }

Id OVBookmarkedURLTransformer::transformedValue(const Id& value) const {
  Ref<URL> url = URL::dynamicCastObject(value);
  return url ? dataFromURL(url) : nullptr;
}

Id OVBookmarkedURLTransformer::reverseTransformedValue(const Id& value) const {
  Ref<Data> data = Data::dynamicCastObject(value);
  return data ? urlFromData(data) : nullptr;
}

Ref<Data> OVBookmarkedURLTransformer::dataFromURL(const Ref<URL>& url) {
  Ref<Data> data;
  url_getBookmarkedURL_bookmarkedData(url, nullptr, &data);
  return data;
}

Ref<URL> OVBookmarkedURLTransformer::bookmarkedURLForURL(const Ref<URL>& url) {
  Ref<URL> bookmarked;
  url_getBookmarkedURL_bookmarkedData(url, &bookmarked, nullptr);
  return bookmarked;
}

Ref<Data> OVBookmarkedURLTransformer::dataFromURL_shouldMakeSecureScope(const Ref<URL>& url,
                                                                        bool shouldMakeSecureScope) {
  if (!url) return nullptr;
  Ref<URL> opened = shouldMakeSecureScope ? openAccess(url, kGettingBookmarkDataPropose) : nullptr;
  Ref<Data> data = url->bookmarkDataWithOptions_includingResourceValuesForKeys_relativeToURL_error(
      NSURLBookmarkCreationWithSecurityScope, nullptr, nullptr, nullptr);
  closeAccess(opened, kGettingBookmarkDataPropose);
  return data;
}

Ref<URL> OVBookmarkedURLTransformer::urlFromData(const Ref<Data>& data) {
  bool isStale = false;
  Ref<URL> resolved = URL::URLByResolvingBookmarkData_options_relativeToURL_bookmarkDataIsStale_error(
      data,
      NSURLBookmarkResolutionWithSecurityScope | NSURLBookmarkResolutionWithoutMounting |
          NSURLBookmarkResolutionWithoutUI,
      nullptr, &isStale, nullptr);
  if (!resolved) return nullptr;
  if (isStale) return bookmarkedURL(resolved);
  resolved->setTemporaryResourceValue_forKey(Number::numberWithBool(true), DXURLIsBookmarkedKey);
  setSecureAccessURL(resolved, resolved);
  return resolved;
}

bool OVBookmarkedURLTransformer::url_getBookmarkedURL_bookmarkedData(const Ref<URL>& url, Ref<URL>* bookmarkedURL,
                                                                     Ref<Data>* bookmarkedData) {
  if (!url) return false;
  if (url->isBookmarked()) {
    if (bookmarkedData) *bookmarkedData = dataFromURL(url);
    if (bookmarkedURL) *bookmarkedURL = url;
    return true;
  }
  Ref<URL> opened = openAccess(url, kBookmarkingPropose);
  Ref<Data> data;
  Ref<URL> bookmarked;
  if (url->checkResourceIsReachableAndReturnError(nullptr)) {
    data = dataFromURL_shouldMakeSecureScope(url, false);  // access is open already
    if (data) bookmarked = urlFromData(data);
    if (bookmarked) setSecureAccessURL(bookmarked, bookmarked);
  }
  if (bookmarkedURL) *bookmarkedURL = bookmarked;
  if (bookmarkedData) *bookmarkedData = data;
  closeAccess(opened, kBookmarkingPropose);
  return bookmarked != nullptr;
}

}  // namespace fennick
