#include "fennick/Helpers/System/OVSystemInfo.h"

#include "fennick/Platform/System/SystemFacts.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/String.h"

#include <ctime>
#include <fmt/format.h>
#include <paths.h>
#include <pwd.h>
#include <unistd.h>

namespace fennick {

namespace {

// A value read once, on first use, by any number of threads.
template <class Reader>
const std::string& cached(Reader read) {
  static const std::string value = read();
  return value;
}

}  // namespace

Ref<String> _OVGetSystemSysctlValue(std::string_view name, int kind) {
  auto value = platform::sysctlValue(name, kind);
  return value ? String::string(std::move(*value)) : nullptr;
}

const std::string& OVSystemInfo::hardwareUUID() {
  return cached([] { return platform::hardwareUUID(); });
}

const std::string& OVSystemInfo::MACAddress() {
  return cached([] {
    std::string address = platform::primaryEthernetAddress();
    return address.empty() ? platform::smallestIPv4InterfaceName() : address;
  });
}

std::string OVSystemInfo::OSVersion() {
  const auto version = platform::osVersionFromOSRelease(platform::readOSRelease());
  return fmt::format("{}.{}.{}", version.major, version.minor, version.patch);
}

const std::string& OVSystemInfo::OSBuild() {
  return cached([] { return platform::osBuild(); });
}

std::string OVSystemInfo::machineModel() { return platform::machineModel(); }

const std::string& OVSystemInfo::CPUFullBrandName() {
  return cached([] {
    const auto processor = platform::processorType();
    if (processor.type == 7) {
      std::string brand = platform::processorBrand();
      return brand.empty() ? std::string("Intel") : brand;
    }
    return fmt::format("Unknown (type = {}, subtype = {})", processor.type, processor.subtype);
  });
}

Ref<Array> OVSystemInfo::preferredLocales(std::size_t count) {
  auto languages = platform::preferredLanguages();
  if (languages.size() > count) languages.resize(count);
  auto result = Array::array();
  for (auto& language : languages) result->addObject(String::string(std::move(language)));
  return result;
}

double OVSystemStartupInfo::currentBootUptime() {
  const auto boot = platform::bootTime();
  return boot ? std::difftime(std::time(nullptr), *boot) : -1.0;
}

double OVSystemStartupInfo::currentUserLoginUptime() {
  std::time_t login = -1;
  const uid_t uid = geteuid();
  passwd storage{};
  passwd* entry = nullptr;
  char buffer[4096];
  if (getpwuid_r(uid, &storage, buffer, sizeof buffer, &entry) == 0 && entry) {
    auto found = platform::lastLoginFromHistory(_PATH_WTMP, entry->pw_name);
    if (!found) found = platform::logindSessionStart(uid);
    if (found) login = *found;
  }
  return std::difftime(std::time(nullptr), login);
}

}  // namespace fennick
