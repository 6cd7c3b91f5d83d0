// File helpers on URLs: paths relative to a base, trash and volume tests,
// folder sizes, display names and query items.
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"
#include "fennick/Runtime/URLs/URLFileSystem.h"
#include "fennick/Runtime/URLs/URLQueryItem.h"

#include "fennick/Runtime/URLs/Internal/URLParser.h"

#include <cstdlib>

namespace fennick {

namespace {

bool boolValue(const Id& value) {
  auto number = Number::dynamicCastObject(value);
  return number && number->boolValue();
}

std::string joinedPath(const Ref<Array>& components) {
  return components ? std::string(components->componentsJoinedByString("/")->view()) : std::string();
}

// The user's XDG trash folder, without a trailing slash.
std::string xdgTrashPath() {
  const char* dataHome = std::getenv("XDG_DATA_HOME");
  if (dataHome && dataHome[0] == '/') return detail::url::withoutTrailingSlash(dataHome) + "/Trash";
  return URL::ovUserHomeURL()->path() + "/.local/share/Trash";
}

// Query items as URL components read them from a percent-encoded query:
// split at "&" and "=", decoded.
std::vector<Ref<URLQueryItem>> decodedQueryItems(const std::string& query) {
  std::vector<Ref<URLQueryItem>> items;
  std::string_view rest = query;
  for (;;) {
    const auto end = rest.find('&');
    const std::string_view pair = rest.substr(0, end);
    const auto equals = pair.find('=');
    std::optional<std::string> value;
    if (equals != std::string_view::npos) value = detail::url::decode(pair.substr(equals + 1));
    items.push_back(URLQueryItem::queryItemWithName_value(detail::url::decode(pair.substr(0, equals)), value));
    if (end == std::string_view::npos) return items;
    rest.remove_prefix(end + 1);
  }
}

// Text as a query holds it: well-formed escapes kept, other characters that
// a query cannot hold encoded.
std::string asPercentEncodedQuery(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::string_view rest = text.substr(i);
    if (rest[0] == '%' && rest.size() >= 3 && detail::url::isWellFormed(rest.substr(0, 3), detail::url::acceptsAnyCharacter)) {
      out.append(rest.substr(0, 3));
      i += 2;
    } else {
      out.append(detail::url::encode(rest.substr(0, 1), URLCharacterSet::Query));
    }
  }
  return out;
}

}  // namespace

Ref<URL> URL::ovFileURLWithPath_isDirectory_relativeToURL(std::string_view path, bool isDirectory,
                                                          const Ref<URL>& base) {
  return base ? base->URLByAppendingPathComponent_isDirectory(path, isDirectory) : nullptr;
}

Ref<URL> URL::ovFileURLWithPath_relativeToURL(std::string_view path, const Ref<URL>& base) {
  return base ? base->URLByAppendingPathComponent(path) : nullptr;
}

Ref<URL> URL::ovFileURLWithPathComponents_isDirectory_relativeToURL(const Ref<Array>& components,
                                                                    bool isDirectory, const Ref<URL>& base) {
  return ovFileURLWithPath_isDirectory_relativeToURL(joinedPath(components), isDirectory, base);
}

Ref<URL> URL::ovFileURLWithPathComponents_relativeToURL(const Ref<Array>& components, const Ref<URL>& base) {
  return ovFileURLWithPath_relativeToURL(joinedPath(components), base);
}

Ref<URL> URL::fileURLWithFixedTrailingSlash() const {
  Ref<URL> url = filePathURL();
  if (!url) return nullptr;
  const std::string path = url->path();
  return path.empty() ? nullptr : fileURLWithPath(path);
}

bool URL::inTrash() const {
  Ref<URL> url = filePathURL();
  if (!url) return false;
  const std::string path = url->path();
  if (path.find("/.Trash") != std::string::npos) return true;
  const std::string trash = xdgTrashPath();
  return path == trash || path.starts_with(trash + "/");
}

bool URL::onRootVolume() const {
  Ref<Error> error;
  Id volume = resourceValueForKey(NSURLVolumeURLKey, &error);
  if (error) return false;
  return isEqualObject_toObject(volume, fileURLWithPath_isDirectory("/", true));
}

std::int64_t URL::fetchDirectorySize(Ref<Error>* error) const {
  if (Ref<Number> size = fetchDirectorySizeFromMetadata()) return size->integerValue();
  return fetchDirectorySizeFromNodes(error);
}

Ref<Number> URL::fetchDirectorySizeFromMetadata() const { return nullptr; }

std::int64_t URL::fetchDirectorySizeFromNodes(Ref<Error>* error) const {
  std::optional<std::string> path = fileSystemRepresentation();
  return path ? systemURLFileSystem().allocatedSizeOfFolderTree(*path, error) : 0;
}

bool URL::isBookmarked() const { return boolValue(resourceValueForKey(DXURLIsBookmarkedKey)); }

bool URL::isDirectory() const { return boolValue(resourceValueForKey(NSURLIsDirectoryKey)); }

std::string URL::localizedNameWithExtension() const {
  std::string name;
  if (Ref<URL> stem = URLByDeletingPathExtension()) {
    auto values = stem->resourceValuesForKeys(
        Array::arrayWithObjects({String::string(NSURLHasHiddenExtensionKey), String::string(NSURLLocalizedNameKey)}));
    if (auto localized = values ? String::dynamicCastObject(values->objectForKey(NSURLLocalizedNameKey)) : nullptr) {
      name = std::string(localized->view());
      const std::string extension = pathExtension();
      if (boolValue(values->objectForKey(NSURLHasHiddenExtensionKey)) && !extension.empty())
        name += "." + extension;
    }
  }
  if (name.empty()) name = lastPathComponent();
  return name.empty() ? "<unknown>" : name;
}

Ref<URL> URL::ovURLByAddingPercentEncdodedQueryItems(const Ref<Array>& queryItems) const {
  if (!queryItems || queryItems->isEmpty()) return std::static_pointer_cast<URL>(std::const_pointer_cast<Object>(self()));
  Parts parts = parts_;
  std::string query;
  auto append = [&query](const std::string& item) {
    if (!query.empty()) query.push_back('&');
    query.append(item);
  };
  for (const Id& item : *queryItems) append(item->description());
  if (parts.query)
    for (const Ref<URLQueryItem>& item : decodedQueryItems(*parts.query)) append(item->description());
  parts.query = asPercentEncodedQuery(query);
  return makeURL(detail::url::write(parts), nullptr);
}

}  // namespace fennick
