// The user's and the system's locations on Linux: the user database and the
// XDG base directories stand in for the platform's home, preferences, caches
// and containers.
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/URLs/URL.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace fennick {

namespace {

std::string homeFromUserDatabase() {
  const passwd* entry = ::getpwuid(::getuid());
  if (!entry || !entry->pw_dir) {
    std::fputs("Fennick: the current user has no entry in the user database (pw != NULL)\n", stderr);
    std::abort();
  }
  return entry->pw_dir;
}

// An XDG base directory: the variable when it holds an absolute path.
std::optional<std::string> xdgDirectory(const char* variable) {
  const char* value = std::getenv(variable);
  if (!value || value[0] != '/') return std::nullopt;
  return std::string(value);
}

Ref<URL> directoryURL(const std::string& path) { return URL::fileURLWithPath_isDirectory(path, true); }

Ref<URL> inHome(std::string_view relative) {
  return URL::ovUserHomeURL()->URLByAppendingPathComponent_isDirectory(relative, true);
}

Ref<Array> arrayOfPresent(std::initializer_list<Ref<URL>> urls) {
  auto array = Array::array();
  for (const Ref<URL>& url : urls)
    if (url) array->addObject(url);
  return array;
}

}  // namespace

Ref<URL> URL::realHome() {
  static const Ref<URL> home = directoryURL(homeFromUserDatabase());
  return home;
}

bool URL::_isSandboxed() {
  static const bool sandboxed =
      std::getenv("APP_SANDBOX_CONTAINER_ID") != nullptr || ::access("/.flatpak-info", F_OK) == 0;
  return sandboxed;
}

Ref<URL> URL::ovUserHomeURL() {
  if (_isSandboxed()) return realHome();
  const char* home = std::getenv("HOME");
  return home && home[0] == '/' ? directoryURL(home) : realHome();
}

Ref<URL> URL::ovUserPreferencesURL() {
  if (auto config = xdgDirectory("XDG_CONFIG_HOME")) return directoryURL(*config);
  return inHome(".config");
}

Ref<URL> URL::ovSystemPreferencesURL() { return directoryURL("/etc/xdg"); }

Ref<Array> URL::ovAllPreferencesURLs() { return arrayOfPresent({ovSystemPreferencesURL(), ovUserPreferencesURL()}); }

Ref<URL> URL::ovSandboxContainerURL() { return inHome(".var/app"); }

Ref<URL> URL::ovSandboxGroupContainerURL() { return inHome(".var/app"); }

Ref<URL> URL::ovDarwinUserCachesURL() {
  auto runtime = xdgDirectory("XDG_RUNTIME_DIR");
  return runtime ? directoryURL(*runtime) : nullptr;
}

Ref<URL> URL::ovUserCachesURL() {
  if (auto cache = xdgDirectory("XDG_CACHE_HOME")) return directoryURL(*cache);
  return inHome(".cache");
}

Ref<Array> URL::ovAllUserCachesURLs() { return arrayOfPresent({ovDarwinUserCachesURL(), ovUserCachesURL()}); }

}  // namespace fennick
