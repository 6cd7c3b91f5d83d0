#include "fennick/Runtime/URL.h"

#include "fennick/Runtime/Array.h"
#include "fennick/Runtime/ClassBuilder.h"
#include "fennick/Runtime/Coder.h"
#include "fennick/Runtime/Date.h"
#include "fennick/Runtime/Dictionary.h"
#include "fennick/Runtime/Error.h"
#include "fennick/Runtime/Number.h"
#include "fennick/Runtime/String.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <strings.h>
#include <vector>

namespace fennick {

namespace {

// -- Character classes (RFC 3986) ---------------------------------------------------

bool isAlpha(unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }
int hexValue(unsigned char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}
bool isUnreserved(unsigned char c) {
  return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}
bool isSubDelimiter(unsigned char c) {
  return std::strchr("!$&'()*+,;=", c) != nullptr && c != '\0';
}
bool isUserInfoChar(unsigned char c) { return isUnreserved(c) || isSubDelimiter(c) || c == ':'; }
bool isRegNameChar(unsigned char c) { return isUnreserved(c) || isSubDelimiter(c); }
bool isPathChar(unsigned char c) {
  return isUnreserved(c) || isSubDelimiter(c) || c == ':' || c == '@' || c == '/';
}
bool isQueryChar(unsigned char c) { return isPathChar(c) || c == '?'; }
bool isIPLiteralChar(unsigned char c) { return isUnreserved(c) || isSubDelimiter(c) || c == ':'; }

// Whether every character is allowed or part of a well-formed "%XX".
bool isWellFormed(std::string_view text, bool (*allowed)(unsigned char)) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c == '%') {
      if (i + 2 >= text.size() || hexValue(static_cast<unsigned char>(text[i + 1])) < 0 ||
          hexValue(static_cast<unsigned char>(text[i + 2])) < 0)
        return false;
      i += 2;
    } else if (!allowed(c)) {
      return false;
    }
  }
  return true;
}

bool isScheme(std::string_view text) {
  if (text.empty() || !isAlpha(static_cast<unsigned char>(text[0]))) return false;
  for (unsigned char c : text)
    if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return false;
  return true;
}

// -- Parsing and writing ----------------------------------------------------------------

bool parseAuthority(std::string_view authority, URL::Parts& parts) {
  parts.hasAuthority = true;
  if (auto at = authority.rfind('@'); at != std::string_view::npos) {
    std::string_view userInfo = authority.substr(0, at);
    authority.remove_prefix(at + 1);
    if (!isWellFormed(userInfo, isUserInfoChar)) return false;
    if (auto colon = userInfo.find(':'); colon != std::string_view::npos) {
      parts.user = std::string(userInfo.substr(0, colon));
      parts.password = std::string(userInfo.substr(colon + 1));
    } else {
      parts.user = std::string(userInfo);
    }
  }
  std::string_view host = authority;
  std::string_view port;
  bool hasPort = false;
  if (authority.starts_with('[')) {
    const auto close = authority.find(']');
    if (close == std::string_view::npos || close == 1) return false;
    host = authority.substr(0, close + 1);
    std::string_view after = authority.substr(close + 1);
    if (!after.empty()) {
      if (after[0] != ':') return false;
      hasPort = true;
      port = after.substr(1);
    }
    for (unsigned char c : host.substr(1, host.size() - 2))
      if (!isIPLiteralChar(c)) return false;
  } else {
    if (auto colon = authority.rfind(':'); colon != std::string_view::npos) {
      host = authority.substr(0, colon);
      hasPort = true;
      port = authority.substr(colon + 1);
    }
    if (!isWellFormed(host, isRegNameChar)) return false;
  }
  if (hasPort) {
    if (port.size() > 5) return false;
    for (unsigned char c : port)
      if (!isDigit(c)) return false;
    if (!port.empty() && std::stoi(std::string(port)) > 65535) return false;
    parts.port = std::string(port);
  }
  parts.host = std::string(host);
  return true;
}

std::optional<URL::Parts> parse(std::string_view text) {
  URL::Parts parts;
  std::string_view rest = text;
  if (auto hash = rest.find('#'); hash != std::string_view::npos) {
    parts.fragment = std::string(rest.substr(hash + 1));
    rest = rest.substr(0, hash);
    if (!isWellFormed(*parts.fragment, isQueryChar)) return std::nullopt;
  }
  if (auto question = rest.find('?'); question != std::string_view::npos) {
    parts.query = std::string(rest.substr(question + 1));
    rest = rest.substr(0, question);
    if (!isWellFormed(*parts.query, isQueryChar)) return std::nullopt;
  }
  const auto colon = rest.find(':');
  const auto slash = rest.find('/');
  if (colon != std::string_view::npos && (slash == std::string_view::npos || colon < slash)) {
    // A colon in the first segment ends a scheme; a relative reference may
    // not have one there at all.
    if (!isScheme(rest.substr(0, colon))) return std::nullopt;
    parts.scheme = std::string(rest.substr(0, colon));
    rest.remove_prefix(colon + 1);
  }
  if (rest.starts_with("//")) {
    rest.remove_prefix(2);
    const auto end = rest.find('/');
    if (!parseAuthority(rest.substr(0, end), parts)) return std::nullopt;
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end);
  }
  if (!isWellFormed(rest, isPathChar)) return std::nullopt;
  parts.path = std::string(rest);
  return parts;
}

std::string write(const URL::Parts& parts) {
  std::string text;
  if (parts.scheme) text.append(*parts.scheme).push_back(':');
  if (parts.hasAuthority) {
    text.append("//");
    if (parts.user) {
      text.append(*parts.user);
      if (parts.password) text.append(":").append(*parts.password);
      text.push_back('@');
    }
    text.append(parts.host);
    if (parts.port) text.append(":").append(*parts.port);
  } else if (parts.path.starts_with("//")) {
    text.append("/.");  // keeps the path from reading as an authority
  }
  text.append(parts.path);
  if (parts.query) text.append("?").append(*parts.query);
  if (parts.fragment) text.append("#").append(*parts.fragment);
  return text;
}

// -- Paths ----------------------------------------------------------------------------

// RFC 3986, 5.2.4.
std::string removeDotSegments(std::string_view path) {
  std::string input(path);
  std::string output;
  auto dropLastSegment = [&output] {
    const auto slash = output.rfind('/');
    output.erase(slash == std::string::npos ? 0 : slash);
  };
  while (!input.empty()) {
    if (input.starts_with("../")) {
      input.erase(0, 3);
    } else if (input.starts_with("./")) {
      input.erase(0, 2);
    } else if (input.starts_with("/./")) {
      input.erase(0, 2);
    } else if (input == "/.") {
      input = "/";
    } else if (input.starts_with("/../")) {
      input.erase(0, 3);
      dropLastSegment();
    } else if (input == "/..") {
      input = "/";
      dropLastSegment();
    } else if (input == "." || input == "..") {
      input.clear();
    } else {
      const auto end = input.find('/', input[0] == '/' ? 1 : 0);
      output.append(input, 0, end);
      input.erase(0, end);
    }
  }
  return output;
}

// RFC 3986, 5.2.3.
std::string mergePaths(const URL::Parts& base, std::string_view relative) {
  if (base.hasAuthority && base.path.empty()) return "/" + std::string(relative);
  const auto slash = base.path.rfind('/');
  if (slash == std::string::npos) return std::string(relative);
  return base.path.substr(0, slash + 1).append(relative);
}

// RFC 3986, 5.2.2.
URL::Parts resolve(const URL::Parts& reference, const URL::Parts& base) {
  URL::Parts target;
  if (reference.hasAuthority) {
    target = reference;
    target.path = removeDotSegments(reference.path);
  } else {
    if (reference.path.empty()) {
      target.path = base.path;
      target.query = reference.query ? reference.query : base.query;
    } else {
      target.path = removeDotSegments(reference.path.starts_with('/') ? std::string_view(reference.path)
                                                                     : mergePaths(base, reference.path));
      target.query = reference.query;
    }
    target.hasAuthority = base.hasAuthority;
    target.user = base.user;
    target.password = base.password;
    target.host = base.host;
    target.port = base.port;
  }
  target.scheme = base.scheme;
  target.fragment = reference.fragment;
  return target;
}

std::string decode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int high = hexValue(static_cast<unsigned char>(text[i + 1]));
      const int low = hexValue(static_cast<unsigned char>(text[i + 2]));
      if (high >= 0 && low >= 0) {
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
        continue;
      }
    }
    out.push_back(text[i]);
  }
  return out;
}

std::string withoutTrailingSlash(std::string path) {
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

std::string collapseSlashes(std::string_view path) {
  std::string out;
  out.reserve(path.size());
  for (char c : path)
    if (c != '/' || !out.ends_with('/')) out.push_back(c);
  return out;
}

bool isDirectoryOnDisk(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string_view lastComponentOf(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  if (path == "/") return path;
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// The offset of the dot that starts the component's extension, or npos.
std::size_t extensionDot(std::string_view component) {
  const auto dot = component.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == component.size()) return std::string_view::npos;
  return dot;
}

// -- Resource values ----------------------------------------------------------------

bool isFileSystemKey(std::string_view key) {
  static constexpr std::array<std::string_view, 10> keys = {
      NSURLNameKey,          NSURLLocalizedNameKey,     NSURLPathKey,
      NSURLHasHiddenExtensionKey, NSURLIsDirectoryKey, NSURLIsRegularFileKey,
      NSURLIsSymbolicLinkKey, NSURLFileSizeKey,        NSURLFileAllocatedSizeKey,
      NSURLContentModificationDateKey};
  for (std::string_view known : keys)
    if (known == key) return true;
  return false;
}

Id valueFromStatus(std::string_view key, const struct stat& status, const URL& url) {
  const bool isRegular = S_ISREG(status.st_mode);
  if (key == NSURLNameKey || key == NSURLLocalizedNameKey) return String::string(url.lastPathComponent());
  if (key == NSURLPathKey) return String::string(url.path());
  if (key == NSURLHasHiddenExtensionKey) return Number::numberWithBool(false);
  if (key == NSURLIsDirectoryKey) return Number::numberWithBool(S_ISDIR(status.st_mode));
  if (key == NSURLIsRegularFileKey) return Number::numberWithBool(isRegular);
  if (key == NSURLIsSymbolicLinkKey) return Number::numberWithBool(S_ISLNK(status.st_mode));
  if (key == NSURLFileSizeKey)
    return isRegular ? Number::numberWithInteger(static_cast<std::int64_t>(status.st_size)) : nullptr;
  if (key == NSURLFileAllocatedSizeKey)
    return isRegular ? Number::numberWithInteger(static_cast<std::int64_t>(status.st_blocks) * 512) : nullptr;
  if (key == NSURLContentModificationDateKey)
    return Date::dateWithTimeIntervalSince1970(static_cast<double>(status.st_mtim.tv_sec) +
                                               static_cast<double>(status.st_mtim.tv_nsec) / 1e9);
  return nullptr;
}

// Reads the item's status once; failures become an error record.
bool readStatus(const URL& url, struct stat& status, Ref<Error>* error) {
  Id self = std::const_pointer_cast<Object>(url.self());
  if (!url.isFileURL()) {
    if (error)
      *error = Error::errorWithDomain_code_userInfo(
          NSCocoaErrorDomain, 262,
          Dictionary::dictionaryWithStringKeys(
              {{NSLocalizedDescriptionKey,
                String::string("The file couldn’t be opened because the specified URL type isn’t supported.")},
               {NSURLErrorKey, self}}));
    return false;
  }
  const std::string path = url.path();
  if (::lstat(path.c_str(), &status) == 0) return true;
  const int code = errno;
  if (error)
    *error = Error::errorWithDomain_code_userInfo(
        NSPOSIXErrorDomain, code,
        Dictionary::dictionaryWithStringKeys({{NSLocalizedDescriptionKey, String::string(std::strerror(code))},
                                              {NSURLErrorKey, self},
                                              {NSFilePathErrorKey, String::string(path)}}));
  return false;
}

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
  if (rawPath.empty() || rawPath.find('\0') != std::string_view::npos) return nullptr;
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

std::string URL::path() const { return withoutTrailingSlash(decode(parts_.path)); }

std::string URL::relativePath() const { return withoutTrailingSlash(decode(relativeParts_.path)); }

Ref<Array> URL::pathComponents() const {
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

std::string URL::lastPathComponent() const { return decode(lastComponentOf(parts_.path)); }

std::string URL::pathExtension() const {
  const std::string component = lastPathComponent();
  const auto dot = extensionDot(component);
  return dot == std::string::npos ? std::string() : component.substr(dot + 1);
}

bool URL::isFileURL() const {
  if (!parts_.scheme || parts_.scheme->size() != 4) return false;
  return strncasecmp(parts_.scheme->c_str(), "file", 4) == 0;
}

bool URL::hasDirectoryPath() const { return parts_.path.ends_with('/'); }

Ref<URL> URL::filePathURL() const {
  return isFileURL() ? std::static_pointer_cast<URL>(std::const_pointer_cast<Object>(self())) : nullptr;
}

// -- Derived URLs ---------------------------------------------------------------------

Ref<URL> URL::withPath(std::string encodedPath) const {
  Parts parts = parts_;
  parts.path = std::move(encodedPath);
  return makeURL(write(parts), nullptr);
}

Ref<URL> URL::withAppendedComponent(std::string_view component, std::optional<bool> isDirectory) const {
  std::string encoded = stringByAddingPercentEncoding(component, URLCharacterSet::Path);
  const auto firstKept = encoded.find_first_not_of('/');
  encoded.erase(0, firstKept == std::string::npos ? encoded.size() : firstKept);
  std::string path = parts_.path;
  if (path.empty()) {
    if (parts_.hasAuthority) path = "/";
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
  const std::string& path = parts_.path;
  if (path.empty()) return absoluteURL();
  const std::string trimmed = withoutTrailingSlash(path);
  if (trimmed == "/") return withPath("/");
  const auto slash = trimmed.rfind('/');
  return withPath(slash == std::string::npos ? "./" : trimmed.substr(0, slash + 1));
}

Ref<URL> URL::URLByAppendingPathExtension(std::string_view extension) const {
  if (extension.find('/') != std::string_view::npos) return nullptr;
  const std::string trimmed = withoutTrailingSlash(parts_.path);
  if (trimmed.empty() || trimmed == "/") return nullptr;
  if (extension.empty()) return absoluteURL();
  std::string path = trimmed + "." + stringByAddingPercentEncoding(extension, URLCharacterSet::Path);
  if (hasDirectoryPath()) path.push_back('/');
  return withPath(std::move(path));
}

Ref<URL> URL::URLByDeletingPathExtension() const {
  std::string trimmed = withoutTrailingSlash(parts_.path);
  const std::size_t componentStart = trimmed.rfind('/') == std::string::npos ? 0 : trimmed.rfind('/') + 1;
  const auto dot = extensionDot(std::string_view(trimmed).substr(componentStart));
  if (dot == std::string::npos) return absoluteURL();
  trimmed.erase(componentStart + dot);
  if (hasDirectoryPath()) trimmed.push_back('/');
  return withPath(std::move(trimmed));
}

Ref<URL> URL::URLByStandardizingPath() const {
  std::string path = removeDotSegments(parts_.path);
  if (path.empty() && parts_.path.starts_with('/')) path = "/";
  return withPath(std::move(path));
}

// -- Resource values --------------------------------------------------------------------

Id URL::resourceValueForKey(std::string_view key, Ref<Error>* error) const {
  {
    std::lock_guard lock(cacheMutex_);
    if (auto it = cache_.find(key); it != cache_.end()) return it->second;
  }
  if (!isFileSystemKey(key)) return nullptr;
  struct stat status {};
  if (!readStatus(*this, status, error)) return nullptr;
  return valueFromStatus(key, status, *this);
}

Ref<Dictionary> URL::resourceValuesForKeys(const Ref<Array>& keys, Ref<Error>* error) const {
  auto values = Dictionary::dictionary();
  if (!keys) return values;
  std::optional<struct stat> status;
  for (const Id& keyObject : *keys) {
    const std::string key = keyObject->description();
    Id value;
    {
      std::lock_guard lock(cacheMutex_);
      if (auto it = cache_.find(key); it != cache_.end()) value = it->second;
    }
    if (!value && isFileSystemKey(key)) {
      if (!status) {
        status.emplace();
        if (!readStatus(*this, *status, error)) return nullptr;
      }
      value = valueFromStatus(key, *status, *this);
    }
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

// -- Percent encoding ----------------------------------------------------------------

std::string URL::stringByAddingPercentEncoding(std::string_view text, URLCharacterSet allowed) {
  auto isAllowed = [allowed](unsigned char c) {
    if (isUnreserved(c)) return true;
    switch (allowed) {
      case URLCharacterSet::User:
      case URLCharacterSet::Password:
        return isSubDelimiter(c);
      case URLCharacterSet::Host:
        return isSubDelimiter(c) || c == ':' || c == '[' || c == ']';
      case URLCharacterSet::Path:
        // ";" once separated path parameters; the platform encodes it.
        return (isSubDelimiter(c) && c != ';') || c == ':' || c == '@' || c == '/';
      case URLCharacterSet::Query:
      case URLCharacterSet::Fragment:
        return isSubDelimiter(c) || c == ':' || c == '@' || c == '/' || c == '?';
    }
    return false;
  };
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (isAllowed(c)) {
      out.push_back(ch);
    } else {
      out.push_back('%');
      out.push_back(hex[c >> 4]);
      out.push_back(hex[c & 0xF]);
    }
  }
  return out;
}

std::optional<std::string> URL::stringByRemovingPercentEncoding(std::string_view text) {
  if (!isWellFormed(text, [](unsigned char) { return true; })) return std::nullopt;
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
