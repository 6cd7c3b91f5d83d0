// Bookmark data from outside: it must resolve to a file URL or to an error,
// never crash; what resolves must bookmark again and resolve to the same path.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/URLs/URL.h"

using namespace fennick;

namespace {

Ref<URL> resolve(const Ref<Data>& data, bool& stale, Ref<Error>& error) {
  return URL::URLByResolvingBookmarkData_options_relativeToURL_bookmarkDataIsStale_error(
      data, NSURLBookmarkResolutionWithSecurityScope, nullptr, &stale, &error);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  bool stale = false;
  Ref<Error> error;
  Ref<URL> url = resolve(Data::dataWithBytes(bytes, size), stale, error);
  if (!url) {
    if (!error || stale) std::abort();
    return 0;
  }
  if (!url->isFileURL() || !url->path().starts_with('/')) std::abort();
  Ref<Data> again = url->bookmarkDataWithOptions_includingResourceValuesForKeys_relativeToURL_error(
      NSURLBookmarkCreationWithSecurityScope, nullptr, nullptr, nullptr);
  if (!again) return 0;  // the item went away meanwhile
  bool staleAgain = true;
  Ref<Error> errorAgain;
  Ref<URL> reread = resolve(again, staleAgain, errorAgain);
  if (reread && (staleAgain || reread->path() != url->path())) std::abort();
  return 0;
}
