#include "fennick/Runtime/URLs/URL.h"

#include "fennick/Runtime/URLs/Internal/URLParser.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Coding/Coder.h"
#include "fennick/Runtime/Values/CStringText.h"
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URLFileSystem.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <strings.h>
#include <vector>

namespace fennick {

namespace {

using namespace detail::url;

bool isDirectoryOnDisk(const std::string& path) { return systemURLFileSystem().isDirectoryAtPath(path); }

}  // namespace

FENNICK_DEFINE_CLASS(URL) {
  builder.archiveNames({"NSURL"});
  builder.coding();
  builder.property("absoluteString", &URL::absoluteString);
  builder.property("relativeString", &URL::relativeString);
  builder.property("baseURL", &URL::baseURL);
  builder.property("path", &URL::path);
  builder.property("lastPathComponent", &URL::lastPathComponent);
  builder.property("pathExtension", &URL::pathExtension);
  builder.property("isFileURL", &URL::isFileURL);
  builder.property("hasDirectoryPath", &URL::hasDirectoryPath);
}

// -- Making URLs --------------------------------------------------------------------

bool URL::assign(std::string_view text, Ref<URL> base) {
  std::optional<Parts> parts = parse(text);
  if (!parts) return false;
  if (parts->scheme) base.reset();  // a complete URL of its own
  relativeString_ = std::string(text);
  relativeParts_ = *parts;
  if (base) {
    parts_ = resolve(*parts, base->parts_);
    absoluteString_ = write(parts_);
  } else {
    parts_ = std::move(*parts);
    absoluteString_ = relativeString_;
  }
  base_ = std::move(base);
  return true;
}

Ref<URL> URL::makeURL(std::string_view text, const Ref<URL>& base) {
  auto url = make<URL>();
  return url->assign(text, base) ? url : nullptr;
}

Ref<URL> URL::URLWithString(std::string_view text) {
  return text.empty() ? nullptr : makeURL(text, nullptr);
}

Ref<URL> URL::URLWithString_relativeToURL(std::string_view text, const Ref<URL>& base) {
  if (text.empty() && !base) return nullptr;
  return makeURL(text, base);
}

namespace {

std::optional<std::string> currentDirectory() {
  std::vector<char> buffer(PATH_MAX);
  while (!::getcwd(buffer.data(), buffer.size())) {
    if (errno != ERANGE) return std::nullopt;
    buffer.resize(buffer.size() * 2);
  }
  return std::string(buffer.data());
}

}  // namespace

Ref<URL> URL::makeFileURL(std::string_view rawPath, std::optional<bool> isDirectory, Ref<URL> base) {
  if (rawPath.empty() || holdsNulByte(rawPath)) return nullptr;
  std::string path = collapseSlashes(rawPath);
  const bool absolute = path.starts_with('/');
  if (absolute) {
    base.reset();
  } else if (!base) {
    std::optional<std::string> cwd = currentDirectory();
    if (!cwd) return nullptr;
    base = URL::fileURLWithPath_isDirectory(*cwd, true);
    if (!base) return nullptr;
  }
  if (!isDirectory) {
    const std::string onDisk =
        absolute ? path : withoutTrailingSlash(base->path()) + "/" + path;
    isDirectory = isDirectoryOnDisk(onDisk);
  }
  if (*isDirectory && !path.ends_with('/')) path.push_back('/');
  std::string encoded = URL::stringByAddingPercentEncoding(path, URLCharacterSet::Path);
  if (absolute) return makeURL("file://" + encoded, nullptr);
  // A colon in the first segment of a relative reference would read as a
  // scheme.
  const auto firstSlash = encoded.find('/');
  if (auto colon = encoded.find(':'); colon != std::string::npos && colon < firstSlash)
    encoded = "./" + encoded;
  return makeURL(encoded, base);
}

Ref<URL> URL::fileURLWithPath(std::string_view path) {
  return makeFileURL(path, std::nullopt, nullptr);
}

Ref<URL> URL::fileURLWithPath_isDirectory(std::string_view path, bool isDirectory) {
  return makeFileURL(path, isDirectory, nullptr);
}

Ref<URL> URL::fileURLWithPath_relativeToURL(std::string_view path, const Ref<URL>& base) {
  return makeFileURL(path, std::nullopt, base);
}

Ref<URL> URL::fileURLWithPath_isDirectory_relativeToURL(std::string_view path, bool isDirectory,
                                                        const Ref<URL>& base) {
  return makeFileURL(path, isDirectory, base);
}

Ref<URL> URL::fileURLWithPathComponents(const Ref<Array>& components) {
  if (!components || components->isEmpty()) return nullptr;
  std::string path;
  for (const Id& component : *components) {
    const std::string text = component->description();
    if (!path.empty() && !path.ends_with('/')) path.push_back('/');
    path.append(text);
  }
  return fileURLWithPath(path);
}

Ref<URL> URL::absoluteURL() const {
  if (!base_) return std::static_pointer_cast<URL>(std::const_pointer_cast<Object>(self()));
  return makeURL(absoluteString_, nullptr);
}

// -- Components --------------------------------------------------------------------------

std::optional<std::string> URL::user() const {
  if (!parts_.user) return std::nullopt;
  return decode(*parts_.user);
}

std::optional<std::string> URL::password() const {
  if (!parts_.password) return std::nullopt;
  return decode(*parts_.password);
}

std::optional<std::string> URL::host() const {
  if (!parts_.hasAuthority) return std::nullopt;
  std::string_view host = parts_.host;
  if (host.starts_with('[')) return std::string(host.substr(1, host.size() - 2));
  return decode(host);
}

std::optional<int> URL::port() const {
  if (!parts_.port || parts_.port->empty()) return std::nullopt;
  return std::stoi(*parts_.port);
}

std::string URL::path() const {
  if (identity_) return identity_->currentPath().value_or(std::string());
  return withoutTrailingSlash(decode(parts_.path));
}

std::string URL::relativePath() const {
  if (identity_) return path();
  return withoutTrailingSlash(decode(relativeParts_.path));
}

Ref<Array> URL::pathComponents() const {
  if (identity_) {
    Ref<URL> url = pathURL();
    return url ? url->pathComponents() : nullptr;
  }
  if (parts_.path.empty()) return nullptr;
  auto components = Array::array();
  std::string_view path = parts_.path;
  if (path.starts_with('/')) components->addObject(String::string("/"));
  while (!path.empty()) {
    const auto slash = path.find('/');
    std::string_view component = path.substr(0, slash);
    if (!component.empty()) components->addObject(String::string(decode(component)));
    if (slash == std::string_view::npos) break;
    path.remove_prefix(slash + 1);
  }
  return components;
}

std::string URL::lastPathComponent() const {
  if (identity_) return decode(lastComponentOf(path()));
  return decode(lastComponentOf(parts_.path));
}

std::string URL::pathExtension() const {
  const std::string component = lastPathComponent();
  const auto dot = extensionDot(component);
  return dot == std::string::npos ? std::string() : component.substr(dot + 1);
}

bool URL::isFileURL() const {
  if (!parts_.scheme || parts_.scheme->size() != 4) return false;
  return strncasecmp(parts_.scheme->c_str(), "file", 4) == 0;
}

bool URL::hasDirectoryPath() const {
  if (identity_) return identity_->isDirectory();
  return parts_.path.ends_with('/');
}

Ref<URL> URL::filePathURL() const {
  if (identity_) return pathURL();
  return isFileURL() ? std::static_pointer_cast<URL>(std::const_pointer_cast<Object>(self())) : nullptr;
}

std::optional<std::string> URL::fileSystemRepresentation() const {
  if (identity_) return identity_->currentPath();
  if (!isFileURL()) return std::nullopt;
  std::string decoded = path();
  if (decoded.empty() || holdsNulByte(decoded)) return std::nullopt;
  return decoded;
}

Ref<URL> URL::pathURL() const {
  if (!identity_) return std::static_pointer_cast<URL>(std::const_pointer_cast<Object>(self()));
  std::optional<std::string> current = identity_->currentPath();
  return current ? fileURLWithPath_isDirectory(*current, identity_->isDirectory()) : nullptr;
}

// -- File identity --------------------------------------------------------------------

Ref<URL> URL::fileReferenceURL() const {
  if (identity_) return std::static_pointer_cast<URL>(std::const_pointer_cast<Object>(self()));
  std::optional<std::string> path = fileSystemRepresentation();
  if (!path) return nullptr;
  Ref<const FileIdentity> identity = systemURLFileSystem().identityOfItemAtPath(*path);
  if (!identity) return nullptr;
  auto url = makeURL(fmt::format("file:///.file/id={}.{}/", identity->device(), identity->inode()), nullptr);
  url->identity_ = std::move(identity);
  return url;
}

// -- Derived URLs ---------------------------------------------------------------------

Ref<URL> URL::withPath(std::string encodedPath) const {
  Parts parts = parts_;
  parts.path = std::move(encodedPath);
  return makeURL(write(parts), nullptr);
}

Ref<URL> URL::withAppendedComponent(std::string_view component, std::optional<bool> isDirectory) const {
  if (identity_) {
    Ref<URL> url = pathURL();
    return url ? url->withAppendedComponent(component, isDirectory) : nullptr;
  }
  std::string encoded = stringByAddingPercentEncoding(component, URLCharacterSet::Path);
  const auto firstKept = encoded.find_first_not_of('/');
  encoded.erase(0, firstKept == std::string::npos ? encoded.size() : firstKept);
  std::string path = parts_.path;
  if (path.empty()) {
    if (parts_.hasAuthority) path.assign(1, '/');
  } else if (!path.ends_with('/')) {
    path.push_back('/');
  }
  path.append(encoded);
  if (!isDirectory && isFileURL()) isDirectory = isDirectoryOnDisk(withoutTrailingSlash(decode(path)));
  if (isDirectory.value_or(false) && !path.ends_with('/')) path.push_back('/');
  return withPath(std::move(path));
}

Ref<URL> URL::URLByAppendingPathComponent(std::string_view component) const {
  return withAppendedComponent(component, std::nullopt);
}

Ref<URL> URL::URLByAppendingPathComponent_isDirectory(std::string_view component, bool isDirectory) const {
  return withAppendedComponent(component, isDirectory);
}

Ref<URL> URL::URLByDeletingLastPathComponent() const {
  if (identity_) {
    Ref<URL> url = pathURL();
    return url ? url->URLByDeletingLastPathComponent() : nullptr;
  }
  const std::string& path = parts_.path;
  if (path.empty()) return absoluteURL();
  const std::string trimmed = withoutTrailingSlash(path);
  if (trimmed == "/") return withPath("/");
  const auto slash = trimmed.rfind('/');
  return withPath(slash == std::string::npos ? "./" : trimmed.substr(0, slash + 1));
}

Ref<URL> URL::URLByAppendingPathExtension(std::string_view extension) const {
  if (identity_) {
    Ref<URL> url = pathURL();
    return url ? url->URLByAppendingPathExtension(extension) : nullptr;
  }
  if (extension.find('/') != std::string_view::npos) return nullptr;
  const std::string trimmed = withoutTrailingSlash(parts_.path);
  if (trimmed.empty() || trimmed == "/") return nullptr;
  if (extension.empty()) return absoluteURL();
  std::string path = trimmed + "." + stringByAddingPercentEncoding(extension, URLCharacterSet::Path);
  if (hasDirectoryPath()) path.push_back('/');
  return withPath(std::move(path));
}

Ref<URL> URL::URLByDeletingPathExtension() const {
  if (identity_) {
    Ref<URL> url = pathURL();
    return url ? url->URLByDeletingPathExtension() : nullptr;
  }
  std::string trimmed = withoutTrailingSlash(parts_.path);
  const std::size_t componentStart = trimmed.rfind('/') == std::string::npos ? 0 : trimmed.rfind('/') + 1;
  const auto dot = extensionDot(std::string_view(trimmed).substr(componentStart));
  if (dot == std::string::npos) return absoluteURL();
  trimmed.erase(componentStart + dot);
  if (hasDirectoryPath()) trimmed.push_back('/');
  return withPath(std::move(trimmed));
}

Ref<URL> URL::URLByStandardizingPath() const {
  if (identity_) return pathURL();
  std::string path = removeDotSegments(parts_.path);
  // Everything above an absolute path's root is the root.
  return withPath(path.empty() && parts_.path.starts_with('/') ? std::string(1, '/') : std::move(path));
}

// -- Percent encoding ----------------------------------------------------------------

std::string URL::stringByAddingPercentEncoding(std::string_view text, URLCharacterSet allowed) {
  return encode(text, allowed);
}

std::optional<std::string> URL::stringByRemovingPercentEncoding(std::string_view text) {
  if (!isWellFormed(text, acceptsAnyCharacter)) return std::nullopt;
  return decode(text);
}

// -- Object ------------------------------------------------------------------------

bool URL::isEqual(const Object* other) const {
  if (other == this) return true;
  auto* url = dynamic_cast<const URL*>(other);
  return url && url->absoluteString_ == absoluteString_;
}

std::size_t URL::hash() const { return std::hash<std::string>()(absoluteString_); }

std::string URL::description() const {
  if (!base_) return absoluteString_;
  return relativeString_ + " -- " + base_->description();
}

Id URL::copy() const { return std::const_pointer_cast<Object>(self()); }

void URL::encodeWithCoder(Coder& coder) const {
  coder.encodeObject_forKey(base_, "NS.base");
  coder.encodeObject_forKey(String::string(relativeString_), "NS.relative");
}

void URL::initWithCoder(Coder& coder) {
  auto base = URL::dynamicCastObject(coder.decodeObjectOfClass_forKey(URL::staticClass(), "NS.base"));
  auto relative =
      String::dynamicCastObject(coder.decodeObjectOfClass_forKey(String::staticClass(), "NS.relative"));
  const bool valid = relative && (!relative->isEmpty() || base) && assign(relative->view(), base);
  if (!valid)
    coder.failWithError(Error::errorWithDomain_code_description(
        NSCocoaErrorDomain, 4864, "The data couldn’t be read because it isn’t in the correct format."));
}

}  // namespace fennick
