#pragma once
// Checks another application's "signature" and sandboxing, with the meanings
// Linux can give them:
// - valid: every regular file at the URL (the file itself, or each file under
//   a folder) belongs to an installed Debian package and its MD5 digest
//   matches the one the package recorded (dpkg's info/*.md5sums); a folder
//   that holds devices, pipes or sockets, or cannot be read in full, is not;
// - sandboxed: valid as above, and installed by a sandboxing package manager
//   into its system installation: a Flatpak application deployed under
//   /var/lib/flatpak, or a Snap revision mounted read-only under /snap (see
//   fennick/Platform/SandboxInstallation.h). Only what root alone can have
//   put there counts: a folder that merely looks packaged, or a per-user
//   installation, is not sandboxed. An unsigned application satisfies no
//   requirement.
// The only requirement text understood is the sandbox one
// (`entitlement["com.apple.security.app-sandbox"] exists`); any other is
// refused. Failures come as false or nil with an error record in
// NSOSStatusErrorDomain whose description says why (without the item's path);
// the codes are the platform's code-signing statuses named below. A URL whose
// path holds a NUL byte names nothing (OVCodeSignatureStatusNotFound).
//
// Every operation reads the package database afresh and may be called from
// any thread. `packageDatabase` is the dpkg administrative folder.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace fennick {

class Dictionary;
class Error;
class URL;

inline constexpr const char* OVSandboxRequirement = "entitlement[\"com.apple.security.app-sandbox\"] exists";

enum OVCodeSignatureStatus : std::int64_t {
  OVCodeSignatureStatusNotFound = -67068,        // nothing at the URL
  OVCodeSignatureStatusUnsigned = -67062,        // not from an installed package
  OVCodeSignatureStatusSignatureFailed = -67061, // a digest does not match
  OVCodeSignatureStatusRequirementFailed = -67050,
  OVCodeSignatureStatusRequirementInvalid = -67052,
};

class OVCodeSignatureChecker {
 public:
  OVCodeSignatureChecker() = delete;

  static bool isApplicationSandboxedAtURL(const Ref<URL>& url);
  static bool codeSignatureIsValidAtURL(const Ref<URL>& url);
  /// An empty requirement checks validity only.
  static bool codeSignatureAtURL_satisfiesCodeRequirements_error(const Ref<URL>& url, std::string_view requirement,
                                                                 Ref<Error>* error,
                                                                 const std::string& packageDatabase = "/var/lib/dpkg");
  /// {"package", "version", "checksum"} of the package that installed the
  /// file at the URL; nil when it is not a valid packaged file.
  static Ref<Dictionary> codeSignatureInfoAtURL(const Ref<URL>& url,
                                                const std::string& packageDatabase = "/var/lib/dpkg");
};

}  // namespace fennick
