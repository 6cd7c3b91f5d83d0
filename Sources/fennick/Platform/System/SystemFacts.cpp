#include "fennick/Platform/System/SystemFacts.h"

#include "fennick/Runtime/Values/String.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <fmt/format.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <map>
#include <net/if_arp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <utmpx.h>

namespace fennick::platform {

namespace fs = std::filesystem;

namespace {

// The texts read here are small; anything larger is not the file expected.
constexpr std::size_t kTextLimit = 64 * 1024;

// A regular file's first `limit` bytes, opened without blocking on anything
// that is not a file. With `whole`, a longer file is unreadable (nullopt).
std::optional<std::string> readFile(const fs::path& path, std::size_t limit = kTextLimit, bool whole = true) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  struct stat info {};
  std::optional<std::string> text;
  if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
    text.emplace();
    char buffer[8192];
    while (text && text->size() <= limit) {
      const ssize_t length = ::read(fd, buffer, sizeof buffer);
      if (length < 0 && errno == EINTR) continue;
      if (length < 0) text.reset();
      if (length <= 0) break;
      text->append(buffer, static_cast<std::size_t>(length));
    }
    if (text && text->size() > limit) {
      if (whole) text.reset();
      else text->resize(limit);
    }
  }
  ::close(fd);
  return text;
}

std::string trimmed(std::string_view text) {
  const auto isSpace = [](char c) { return c == '\n' || c == ' ' || c == '\t' || c == '\r'; };
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  return std::string(text);
}

// A fact's text as it may be shown: valid UTF-8 without NUL bytes or other
// control characters, and short (no name, model or build is long); anything
// else counts as unreadable ("").
std::string plainText(std::string text) {
  const bool plain = text.size() <= 4096 && String::isValidUTF8(text) && std::none_of(text.begin(), text.end(), [](char c) {
                       const auto byte = static_cast<unsigned char>(c);
                       return byte < 0x20 || byte == 0x7f;
                     });
  return plain ? text : std::string();
}

std::string firstLineOf(const fs::path& path) {
  auto text = readFile(path);
  if (!text) return {};
  return plainText(trimmed(std::string_view(*text).substr(0, text->find('\n'))));
}

// A decimal integer that is the whole text (an optional sign only when the
// type has one); nullopt for anything else, overflow included.
template <class Integer>
std::optional<Integer> parseInteger(std::string_view text, int base = 10) {
  Integer value{};
  const auto* end = text.data() + text.size();
  const auto [rest, failure] = std::from_chars(text.data(), end, value, base);
  if (failure != std::errc() || rest != end || text.empty()) return std::nullopt;
  return value;
}

// Digits only: version numbers and times have no sign.
std::optional<long long> parseUnsigned(std::string_view text) {
  if (text.empty() || !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
    return std::nullopt;
  return parseInteger<long long>(text);
}

std::string upperCased(std::string text) {
  for (auto& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// Hardware addresses of the Ethernet-class links of this network namespace,
// by name: six bytes, not all zero, as lower-case hex pairs. (getifaddrs asks
// the kernel, where /sys/class/net would show the namespace sysfs was mounted in.)
std::map<std::string, std::string> ethernetAddresses() {
  std::map<std::string, std::string> addresses;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return addresses;
  for (const ifaddrs* item = list; item; item = item->ifa_next) {
    if (!item->ifa_addr || item->ifa_addr->sa_family != AF_PACKET) continue;
    const auto* link = reinterpret_cast<const sockaddr_ll*>(item->ifa_addr);
    if (link->sll_hatype != ARPHRD_ETHER || link->sll_halen != 6) continue;
    if (std::all_of(link->sll_addr, link->sll_addr + 6, [](unsigned char byte) { return byte == 0; })) continue;
    const auto* b = link->sll_addr;
    addresses[item->ifa_name] = fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", b[0], b[1], b[2], b[3], b[4], b[5]);
  }
  freeifaddrs(list);
  return addresses;
}

std::string defaultRouteInterface() {
  std::ifstream routes("/proc/net/route");
  std::string line;
  std::getline(routes, line);  // header
  while (std::getline(routes, line)) {
    std::istringstream fields(line);
    std::string interface, destination, gateway, flags, refcount, use, metric, mask;
    if (!(fields >> interface >> destination >> gateway >> flags >> refcount >> use >> metric >> mask)) continue;
    const auto up = parseInteger<unsigned>(flags, 16);
    if (destination == "00000000" && mask == "00000000" && up && (*up & 1)) return interface;
  }
  return {};
}

}  // namespace

std::optional<std::string> sysctlValue(std::string_view name, int kind) {
  // Names are dotted words; anything else (a slash, "..", a NUL byte that the
  // system would cut the path at) names no value.
  const bool wellFormed =
      !name.empty() && name.size() <= 255 && name.front() != '.' && name.back() != '.' &&
      name.find("..") == std::string_view::npos && std::all_of(name.begin(), name.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_' || c == '-';
      });
  if (!wellFormed) return std::nullopt;
  std::string path = "/proc/sys/" + std::string(name);
  std::replace(path.begin() + 10, path.end(), '.', '/');
  auto text = readFile(path);
  if (!text) return std::nullopt;
  std::string value = trimmed(*text);
  switch (kind) {
    case 2:
      if (auto number = parseInteger<std::int32_t>(value)) return std::to_string(*number);
      return std::nullopt;
    case 4:
      if (auto number = parseInteger<long long>(value)) return std::to_string(*number);
      return std::nullopt;
    default:
      if (!String::isValidUTF8(value) || value.find('\0') != std::string::npos) return std::nullopt;
      return value;
  }
}

std::string uuidFromMachineID(std::string_view machineID) {
  const std::string id = trimmed(machineID);
  if (id.size() != 32 || !std::all_of(id.begin(), id.end(), [](unsigned char c) { return std::isxdigit(c); }))
    return {};
  return upperCased(id.substr(0, 8) + "-" + id.substr(8, 4) + "-" + id.substr(12, 4) + "-" + id.substr(16, 4) + "-" +
                    id.substr(20));
}

std::string hardwareUUID() {
  const std::string product = firstLineOf("/sys/class/dmi/id/product_uuid");
  const bool isUUID = product.size() == 36 && std::all_of(product.begin(), product.end(), [](unsigned char c) {
                        return std::isxdigit(c) || c == '-';
                      });
  if (isUUID) return upperCased(product);
  if (auto machineID = readFile("/etc/machine-id")) return uuidFromMachineID(*machineID);
  return {};
}

std::string primaryEthernetAddress() {
  const auto addresses = ethernetAddresses();
  if (auto routed = addresses.find(defaultRouteInterface()); routed != addresses.end()) return routed->second;
  // A physical link is one with a device behind it (virtual links have none).
  std::vector<std::string> physical;
  std::error_code error;
  for (const auto& [name, address] : addresses)
    if (fs::exists(fs::path("/sys/class/net") / name / "device", error)) physical.push_back(name);
  std::sort(physical.begin(), physical.end(),
            [](const std::string& a, const std::string& b) { return compareNumerically(a, b) < 0; });
  return physical.empty() ? std::string() : addresses.at(physical.front());
}

int compareNumerically(std::string_view a, std::string_view b) {
  std::size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    const auto ca = static_cast<unsigned char>(a[i]), cb = static_cast<unsigned char>(b[j]);
    if (std::isdigit(ca) && std::isdigit(cb)) {
      std::size_t endA = i, endB = j;
      while (endA < a.size() && std::isdigit(static_cast<unsigned char>(a[endA]))) ++endA;
      while (endB < b.size() && std::isdigit(static_cast<unsigned char>(b[endB]))) ++endB;
      std::string_view numberA = a.substr(i, endA - i), numberB = b.substr(j, endB - j);
      while (numberA.size() > 1 && numberA.front() == '0') numberA.remove_prefix(1);
      while (numberB.size() > 1 && numberB.front() == '0') numberB.remove_prefix(1);
      if (numberA.size() != numberB.size()) return numberA.size() < numberB.size() ? -1 : 1;
      if (const int order = numberA.compare(numberB); order != 0) return order < 0 ? -1 : 1;
      i = endA;
      j = endB;
      continue;
    }
    const int la = std::tolower(ca), lb = std::tolower(cb);
    if (la != lb) return la < lb ? -1 : 1;
    ++i;
    ++j;
  }
  if (i == a.size() && j == b.size()) return 0;
  return i == a.size() ? -1 : 1;
}

std::string smallestIPv4InterfaceName() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return {};
  std::string best;
  for (const ifaddrs* item = list; item; item = item->ifa_next) {
    if (!item->ifa_addr || item->ifa_addr->sa_family != AF_INET || !(item->ifa_flags & IFF_UP)) continue;
    const auto* address = reinterpret_cast<const sockaddr_in*>(item->ifa_addr);
    const std::string name = item->ifa_name;
    if (address->sin_addr.s_addr == htonl(INADDR_LOOPBACK) || name.rfind("lo", 0) == 0) continue;
    if (best.empty() || compareNumerically(best, name) > 0) best = name;
  }
  freeifaddrs(list);
  return best;
}

std::string assignedValue(std::string_view osRelease, std::string_view field) {
  std::istringstream lines{std::string(osRelease)};
  std::string line;
  while (std::getline(lines, line)) {
    if (line.size() <= field.size() || line.compare(0, field.size(), field) != 0 || line[field.size()] != '=') continue;
    std::string value = trimmed(std::string_view(line).substr(field.size() + 1));
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front())
      value = value.substr(1, value.size() - 2);
    return plainText(std::move(value));
  }
  return {};
}

OSVersion osVersionFromOSRelease(std::string_view osRelease) {
  const std::string versionID = assignedValue(osRelease, "VERSION_ID");
  long numbers[3] = {0, 0, 0};
  std::string_view rest = versionID;
  for (long& number : numbers) {
    const auto dot = rest.find('.');
    const auto parsed = parseUnsigned(rest.substr(0, dot));
    number = parsed && *parsed <= LONG_MAX ? static_cast<long>(*parsed) : 0;
    if (dot == std::string_view::npos) break;
    rest.remove_prefix(dot + 1);
  }
  return {numbers[0], numbers[1], numbers[2]};
}

std::string readOSRelease() {
  if (auto text = readFile("/etc/os-release")) return *text;
  return readFile("/usr/lib/os-release").value_or("");
}

std::string osBuild() {
  std::string build = assignedValue(readOSRelease(), "BUILD_ID");
  if (!build.empty()) return build;
  utsname names{};
  return uname(&names) == 0 ? names.release : "";
}

std::string machineModel() {
  std::string model = firstLineOf("/sys/class/dmi/id/product_name");
  if (!model.empty()) return model;
  // The device tree keeps its texts with their terminating NUL byte.
  std::string treeModel = readFile("/proc/device-tree/model").value_or("");
  if (!treeModel.empty() && treeModel.back() == '\0') treeModel.pop_back();
  return plainText(trimmed(treeModel));
}

ProcessorType processorType() {
  utsname names{};
  if (uname(&names) != 0) return {};
  const std::string_view machine = names.machine;
  if (machine == "x86_64" || (machine.size() == 4 && machine[0] == 'i' && machine.substr(2) == "86"))
    return {7, 3};
  if (machine == "aarch64" || machine == "arm64") return {0x0100000C, 0};
  if (machine.rfind("arm", 0) == 0) return {12, 0};
  return {};
}

std::string processorBrandFromCPUInfo(std::string_view cpuinfo) {
  std::istringstream lines{std::string(cpuinfo)};
  std::string line;
  while (std::getline(lines, line)) {
    if (line.rfind("model name", 0) != 0) continue;
    const auto colon = line.find(':');
    if (colon != std::string::npos) return plainText(trimmed(std::string_view(line).substr(colon + 1)));
  }
  return {};
}

// The first processor's block is all that is needed; machines with hundreds
// of processors have a long /proc/cpuinfo.
std::string processorBrand() {
  return processorBrandFromCPUInfo(readFile("/proc/cpuinfo", kTextLimit, false).value_or(""));
}

std::string languageTagFromLocale(std::string_view locale) {
  std::string_view modifier;
  if (const auto at = locale.find('@'); at != std::string_view::npos) {
    modifier = locale.substr(at + 1);
    locale = locale.substr(0, at);
  }
  locale = locale.substr(0, locale.find('.'));
  if (locale.empty() || locale == "C" || locale == "POSIX") return {};
  std::string tag(locale.substr(0, locale.find('_')));
  if (modifier == "latin") tag += "-Latn";
  if (modifier == "cyrillic") tag += "-Cyrl";
  if (const auto underscore = locale.find('_'); underscore != std::string_view::npos)
    tag += "-" + std::string(locale.substr(underscore + 1));
  // A tag is letters, digits and dashes; a variable holding anything else
  // names no language.
  const bool wellFormed = tag.size() <= 64 && tag.front() != '-' && std::all_of(tag.begin(), tag.end(), [](char c) {
                            return std::isalnum(static_cast<unsigned char>(c)) || c == '-';
                          });
  return wellFormed ? tag : std::string();
}

std::vector<std::string> preferredLanguages() {
  std::vector<std::string> locales;
  if (const char* list = std::getenv("LANGUAGE")) {
    std::istringstream entries(list);
    for (std::string entry; std::getline(entries, entry, ':');) locales.push_back(entry);
  }
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"})
    if (const char* value = std::getenv(name)) locales.emplace_back(value);
  std::vector<std::string> tags;
  for (const auto& locale : locales) {
    std::string tag = languageTagFromLocale(locale);
    if (!tag.empty() && std::find(tags.begin(), tags.end(), tag) == tags.end()) tags.push_back(std::move(tag));
  }
  return tags;
}

std::optional<std::time_t> bootTimeFromStat(std::string_view stat) {
  for (std::size_t start = 0; start < stat.size();) {
    std::size_t end = stat.find('\n', start);
    if (end == std::string_view::npos) end = stat.size();
    const std::string_view line = stat.substr(start, end - start);
    start = end + 1;
    if (line.substr(0, 6) != "btime ") continue;
    const auto seconds = parseUnsigned(trimmed(line.substr(6)));
    if (!seconds || *seconds == 0) return std::nullopt;
    return static_cast<std::time_t>(*seconds);
  }
  return std::nullopt;
}

std::optional<std::time_t> bootTime() {
  // btime follows the per-processor lines, which are many on large machines.
  return bootTimeFromStat(readFile("/proc/stat", 4 * 1024 * 1024, false).value_or(""));
}

std::optional<std::time_t> lastLoginFromHistory(const char* path, std::string_view user) {
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  struct stat info {};
  std::optional<std::time_t> newest;
  if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
    // The history is appended to: the newest record is the last whole one (a
    // record cut short at the end by a crash is none), so it is read from the
    // end, a batch at a time, and only as far back as the newest login.
    constexpr off_t kBatch = 64;
    std::vector<utmpx> records(kBatch);
    off_t count = info.st_size / static_cast<off_t>(sizeof(utmpx));
    while (count > 0 && !newest) {
      const off_t first = std::max<off_t>(0, count - kBatch);
      const auto bytes = static_cast<std::size_t>(count - first) * sizeof(utmpx);
      if (::pread(fd, records.data(), bytes, first * static_cast<off_t>(sizeof(utmpx))) != static_cast<ssize_t>(bytes))
        break;
      for (auto index = static_cast<std::size_t>(count - first); index-- > 0 && !newest;) {
        const utmpx& record = records[index];
        const std::string_view name(record.ut_user, strnlen(record.ut_user, sizeof record.ut_user));
        if (record.ut_type == USER_PROCESS && name == user) newest = static_cast<std::time_t>(record.ut_tv.tv_sec);
      }
      count = first;
    }
  }
  ::close(fd);
  return newest;
}

std::optional<std::time_t> logindSessionStart(unsigned uid, const char* runDirectory) {
  std::optional<std::time_t> newest;
  std::error_code error;
  const std::string owner = std::to_string(uid);
  for (const auto& entry : fs::directory_iterator(fs::path(runDirectory) / "sessions", error)) {
    auto text = readFile(entry.path());
    if (!text || assignedValue(*text, "UID") != owner) continue;
    const auto microseconds = parseUnsigned(assignedValue(*text, "REALTIME"));
    if (!microseconds) continue;
    const auto start = static_cast<std::time_t>(*microseconds / 1'000'000);
    if (!newest || start > *newest) newest = start;
  }
  return newest;
}

}  // namespace fennick::platform
