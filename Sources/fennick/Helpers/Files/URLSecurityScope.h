#pragma once
// Security-scoped access and the disk size on URLs: thin entries into the
// shared OVURLsAccessController, which owns bookmarks and access counts.
//
// A "propose" is the purpose of an access ("getting directory size",
// "getting bookmark data", "bookmarking"); accesses are counted per secure
// access URL whatever their propose (see OVURLsAccessController.h).
#include "fennick/Helpers/Files/OVURLsAccessController.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/URLs/URL.h"

#include <functional>

namespace fennick {

/// The shared controller's bookmarkedURL for `url`.
Ref<URL> bookmarkedURL(const Ref<URL>& url);
/// The shared controller's begin for `url`.
bool beginAccessingSecurityScopedResourceForPropose(const Ref<URL>& url, const OVPropose& propose);
/// The shared controller's end for `url`.
void endAccessingSecurityScopedResourceForPropose(const Ref<URL>& url, const OVPropose& propose);
/// Begins access; only when it was granted, runs `block` on the calling
/// thread and ends access with the same propose. Answers whether access was
/// granted.
bool accessSecurityScopedResourceForPropose_block(const Ref<URL>& url, const OVPropose& propose,
                                                  const std::function<void()>& block);

/// Keeps `secureURL` on the URL object as the URL that grants access to it
/// (DXURLSecureAccessURLKey); nil removes it. A URL may name itself.
void setSecureAccessURL(const Ref<URL>& url, const Ref<URL>& secureURL);
/// The URL that grants access to `url`: the one kept on it; else nil when
/// bookmarking is enabled and `url` is not marked as bookmarked; else `url`.
Ref<URL> secureAccessURL(const Ref<URL>& url);

/// Reads resource values on the global utility queue and answers there with
/// the values, or with an empty dictionary and the read's error. With
/// DXURLDiskSizeKey among the keys, also the bytes the item occupies: a
/// file's allocated size, or a folder's tree walked with the propose
/// "getting directory size" (left out when access is refused). The size is
/// kept on the URL object, so a second request does not walk again. When
/// part of the folder's tree cannot be read, the size is left out, nothing
/// is kept, and the other values come with the walk's error.
void getResourceValuesForKeys_completionBlock(
    const Ref<URL>& url, const Ref<Array>& keys,
    std::function<void(const Ref<Dictionary>& values, const Ref<Error>& error)> completion);

}  // namespace fennick
