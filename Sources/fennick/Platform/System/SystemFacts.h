#pragma once
// Facts about the machine and the session, read from the places Linux keeps
// them. Each reader reads afresh (callers cache what cannot change) and
// answers an empty text, an empty list or nullopt when the fact is not
// available; none raises. The parsers are separate so that they can be given
// text from elsewhere. All functions are thread-safe.
//
// What they read is taken as hostile: only regular files are read, opened
// without blocking, and only up to a size that no such file reaches (64 KiB
// for most); a text fact holding a NUL byte, a control character or invalid
// UTF-8 reads as unavailable, numbers must be whole decimal numbers without
// a sign where none belongs, and a name holding a NUL byte names nothing.
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fennick::platform {

/// A sysctl-like value read from /proc/sys (dots in `name` become slashes):
/// kind 2 as a 32-bit and kind 4 as a 64-bit decimal integer, any other kind
/// as text without its final newline. nullopt when unreadable or not a number.
std::optional<std::string> sysctlValue(std::string_view name, int kind);

/// The DMI product UUID (/sys/class/dmi/id/product_uuid, readable by root
/// only), else /etc/machine-id written as a UUID; upper case. Empty if neither.
std::string hardwareUUID();
/// A 32-digit machine identity as an upper-case UUID; empty when malformed.
std::string uuidFromMachineID(std::string_view machineID);

/// The hardware address of the Ethernet-class interface that carries the
/// default route (/proc/net/route), else of the first physical Ethernet-class
/// interface by name (/sys/class/net/*/device), as lower-case hex pairs joined
/// by ":". Empty when there is none.
std::string primaryEthernetAddress();
/// The first up, non-loopback interface with an IPv4 address, in the order of
/// compareNumerically (en2 before en10); empty when there is none.
std::string smallestIPv4InterfaceName();
/// Case-insensitive comparison in which runs of digits compare as numbers.
int compareNumerically(std::string_view a, std::string_view b);

struct OSVersion {
  long major = 0, minor = 0, patch = 0;
};
/// The value of one NAME=value line of a shell-style file such as os-release
/// or logind's session records (quotes removed); empty when missing.
std::string assignedValue(std::string_view text, std::string_view name);
/// VERSION_ID of os-release text as numbers ("12" is 12.0.0, "22.04" 22.4.0).
OSVersion osVersionFromOSRelease(std::string_view osRelease);
/// The contents of /etc/os-release (else /usr/lib/os-release); empty if neither.
std::string readOSRelease();
/// BUILD_ID of os-release, else the kernel release (uname).
std::string osBuild();
/// DMI product name, else the device tree's model; empty if neither.
std::string machineModel();

struct ProcessorType {
  int type = -1;
  int subtype = -1;
};
/// The processor family in the platform's numbering: 7 for x86, 0x0100000C
/// for 64-bit ARM, 12 for 32-bit ARM, -1 for any other.
ProcessorType processorType();
/// "model name" of /proc/cpuinfo text; empty when missing.
std::string processorBrandFromCPUInfo(std::string_view cpuinfo);
std::string processorBrand();

/// The user's languages as BCP 47 tags from LANGUAGE (a colon-separated list),
/// LC_ALL, LC_MESSAGES and LANG, in that order, without repeats; "C" and
/// "POSIX" name no language.
std::vector<std::string> preferredLanguages();
/// "de_AT.UTF-8@euro" → "de-AT"; "sr_RS@latin" → "sr-Latn-RS"; empty for C/POSIX.
std::string languageTagFromLocale(std::string_view locale);

/// The kernel's boot time ("btime" of /proc/stat); nullopt when unreadable.
std::optional<std::time_t> bootTime();
/// "btime" of /proc/stat text; nullopt when missing, not a positive number
/// of seconds, or malformed.
std::optional<std::time_t> bootTimeFromStat(std::string_view stat);
/// The newest login of `user` in a login history file (utmpx records of a
/// user process); nullopt when there is none.
std::optional<std::time_t> lastLoginFromHistory(const char* path, std::string_view user);
/// The start of the newest session of `uid` that systemd-logind records under
/// /run/systemd; nullopt without logind.
std::optional<std::time_t> logindSessionStart(unsigned uid, const char* runDirectory = "/run/systemd");

}  // namespace fennick::platform
