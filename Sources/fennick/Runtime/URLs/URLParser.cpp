#include "fennick/Runtime/URLs/Internal/URLParser.h"

#include <cstring>
#include <string>

namespace fennick::detail::url {

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

bool isScheme(std::string_view text) {
  if (text.empty() || !isAlpha(static_cast<unsigned char>(text[0]))) return false;
  for (unsigned char c : text)
    if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return false;
  return true;
}

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

// RFC 3986, 5.2.3.
std::string mergePaths(const URL::Parts& base, std::string_view relative) {
  if (base.hasAuthority && base.path.empty()) {
    std::string merged(1, '/');
    return merged.append(relative);
  }
  const auto slash = base.path.rfind('/');
  if (slash == std::string::npos) return std::string(relative);
  return base.path.substr(0, slash + 1).append(relative);
}

}  // namespace

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

bool acceptsAnyCharacter(unsigned char) { return true; }

// -- Parsing and writing ----------------------------------------------------------------

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

std::string_view lastComponentOf(std::string_view path) {
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  if (path == "/") return path;
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::size_t extensionDot(std::string_view component) {
  const auto dot = component.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == component.size()) return std::string_view::npos;
  return dot;
}

// -- Percent encoding ----------------------------------------------------------------

std::string encode(std::string_view text, URLCharacterSet allowed) {
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

}  // namespace fennick::detail::url
