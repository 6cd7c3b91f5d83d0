#pragma once
// Hashing and equality of URLs as keys of standard containers, by the URL's
// own isEqual and hash (for file reference URLs: the item's identity), without
// a detour through Id.
#include "fennick/Runtime/URLs/URL.h"

namespace fennick {

struct URLKeyHash {
  std::size_t operator()(const Ref<URL>& url) const { return url->hash(); }
};
struct URLKeyEqual {
  bool operator()(const Ref<URL>& a, const Ref<URL>& b) const { return a->isEqual(b.get()); }
};

}  // namespace fennick
