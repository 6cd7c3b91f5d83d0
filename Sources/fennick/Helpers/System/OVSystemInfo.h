#pragma once
// Facts about the machine (OVSystemInfo) and the session (OVSystemStartupInfo).
// Both classes are stateless; every operation is a class operation and may be
// called from any thread. Facts that cannot change while the process runs
// (hardware UUID, MAC address, OS build, processor name) are read once, under
// a thread-safe one-time initialisation, and a failed read is not retried.
// A fact that cannot be read is the empty text, never an error.
//
// Where Linux keeps each fact:
// - hardwareUUID: /sys/class/dmi/id/product_uuid (root only), else
//   /etc/machine-id written as an upper-case UUID.
// - MACAddress: the Ethernet-class interface carrying the default route, else
//   the first physical one (/sys/class/net); without either, the name of the
//   smallest up, non-loopback IPv4 interface (en2 before en10), as on the
//   platform's fallback.
// - OSVersion: VERSION_ID of /etc/os-release, missing numbers being 0.
// - OSBuild: BUILD_ID of os-release, else the kernel release.
// - machineModel: DMI product name, else the device tree's model.
// - CPUFullBrandName: "model name" of /proc/cpuinfo on x86 ("Intel" when it
//   is missing); "Unknown (type = T, subtype = S)" on every other processor.
// - preferredLocales: BCP 47 tags from LANGUAGE, LC_ALL, LC_MESSAGES, LANG.
// - currentBootUptime: the kernel's boot time (btime of /proc/stat).
// - currentUserLoginUptime: the newest login of the effective user in the
//   login history (wtmp), else the start of their newest systemd-logind
//   session; without either the login time counts as -1.
// - _OVGetSystemSysctlValue: /proc/sys, dots in the name read as slashes.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace fennick {

class Array;
class String;

/// A sysctl value as text: kind 2 a 32-bit, kind 4 a 64-bit integer in
/// decimal, any other kind text. Nil for a missing or unreadable name.
Ref<String> _OVGetSystemSysctlValue(std::string_view name, int kind);

class OVSystemInfo {
 public:
  OVSystemInfo() = delete;

  static const std::string& hardwareUUID();
  static const std::string& MACAddress();
  /// "major.minor.patch"; "0.0.0" when the system does not say.
  static std::string OSVersion();
  static const std::string& OSBuild();
  static std::string machineModel();
  static const std::string& CPUFullBrandName();
  /// The preferred languages, cut to the first `count` when there are more.
  static Ref<Array> preferredLocales(std::size_t count);
};

class OVSystemStartupInfo {
 public:
  OVSystemStartupInfo() = delete;

  /// Seconds since the kernel booted; -1 when the boot time cannot be read.
  static double currentBootUptime();
  /// Seconds since the current user's newest login (see above).
  static double currentUserLoginUptime();
};

}  // namespace fennick
