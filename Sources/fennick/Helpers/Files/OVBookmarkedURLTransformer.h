#pragma once
// Bookmarks of URLs, as data and back, and the marks that tell later
// security-scoped accesses which URL grants access.
//
// On Linux bookmark data is a binary property list holding the item's path and
// identity; it resolves by path, and is stale when another item is there now
// (see URL::bookmarkDataWithOptions_includingResourceValuesForKeys_relativeToURL_error).
// Resolved URLs are marked as bookmarked (DXURLIsBookmarkedKey) and as their
// own secure access URL (DXURLSecureAccessURLKey), on the URL object only.
//
// Bookmarking a URL that is already marked as bookmarked answers the URL
// itself; asking it for its data (transformedValue, dataFromURL) asks the
// bookmarking again for the data, without end: do not ask a bookmarked URL
// for its data. This is how the framework has always behaved, and code
// relies on the marks meaning "no new bookmark needed".
//
// Thread-safe: it keeps no state.
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/URLs/URL.h"
#include "fennick/Runtime/Observation/ValueTransformer.h"

namespace fennick {

class OVBookmarkedURLTransformer : public ValueTransformer {
  FENNICK_DECLARE_CLASS(OVBookmarkedURLTransformer, ValueTransformer)

 public:
  static Ref<OVBookmarkedURLTransformer> init();

  /// Data.
  const Class* transformedValueClass() const override;
  /// YES.
  bool allowsReverseTransformation() const override;
  /// A URL's bookmark data; nil for other values.
  Id transformedValue(const Id& value) const override;
  /// The URL that bookmark data resolves to; nil for other values.
  Id reverseTransformedValue(const Id& value) const override;

  /// Bookmark data of `url` (the data that bookmarking it gives).
  static Ref<Data> dataFromURL(const Ref<URL>& url);
  /// The bookmarked URL for `url` (the URL that bookmarking it gives).
  static Ref<URL> bookmarkedURLForURL(const Ref<URL>& url);
  /// Bookmark data made while access to `url` is open (through its secure
  /// access URL, else itself) when `shouldMakeSecureScope`; nil on failure.
  static Ref<Data> dataFromURL_shouldMakeSecureScope(const Ref<URL>& url, bool shouldMakeSecureScope);
  /// The URL bookmark data resolves to, marked as bookmarked; a stale
  /// bookmark is bookmarked afresh. Nil for data that is not a bookmark or
  /// names nothing.
  static Ref<URL> urlFromData(const Ref<Data>& data);
  /// Bookmarks `url` while access to it is open with the propose
  /// "bookmarking"; fills the outputs asked for (either may be null) and
  /// answers whether a bookmarked URL was obtained. An item that cannot be
  /// reached gives neither.
  static bool url_getBookmarkedURL_bookmarkedData(const Ref<URL>& url, Ref<URL>* bookmarkedURL,
                                                 Ref<Data>* bookmarkedData);

 protected:
  OVBookmarkedURLTransformer() = default;
};

}  // namespace fennick
