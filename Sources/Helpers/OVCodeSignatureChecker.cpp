#include "fennick/Helpers/OVCodeSignatureChecker.h"

#include "fennick/Runtime/Dictionary.h"
#include "fennick/Runtime/Error.h"
#include "fennick/Runtime/String.h"
#include "fennick/Runtime/URL.h"

#include <glib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <vector>

namespace fennick {

namespace fs = std::filesystem;

namespace {

struct PackagedFile {
  std::string package;
  std::string recordedDigest;
};

Ref<Error> signatureError(std::int64_t status, const std::string& why) {
  return Error::errorWithDomain_code_description(NSOSStatusErrorDomain, status, why);
}

// The names a file may be listed under: with merged /usr, /bin/x and
// /usr/bin/x are one file, and packages list either.
std::vector<std::string> listedNames(const fs::path& path) {
  std::vector<std::string> names{path.string()};
  const std::string text = path.string();
  for (const char* top : {"/bin/", "/sbin/", "/lib/", "/lib64/"}) {
    if (text.rfind(std::string("/usr") + top, 0) == 0) names.push_back(text.substr(4));
    if (text.rfind(top, 0) == 0) names.push_back("/usr" + text);
  }
  return names;
}

std::optional<PackagedFile> findPackagedFile(const fs::path& path, const std::string& database) {
  const auto names = listedNames(path);
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(fs::path(database) / "info", error)) {
    if (entry.path().extension() != ".md5sums") continue;
    std::ifstream sums(entry.path());
    std::string line;
    while (std::getline(sums, line)) {
      // "<32 hex digits>  <path without the leading slash>"
      if (line.size() < 35) continue;
      const std::string listed = "/" + line.substr(34);
      for (const auto& name : names)
        if (listed == name) {
          std::string package = entry.path().stem().string();
          package = package.substr(0, package.find(':'));  // multi-arch names carry ":arch"
          return PackagedFile{package, line.substr(0, 32)};
        }
    }
  }
  return std::nullopt;
}

std::optional<std::string> md5Of(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  GChecksum* checksum = g_checksum_new(G_CHECKSUM_MD5);
  char buffer[65536];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0)
    g_checksum_update(checksum, reinterpret_cast<const guchar*>(buffer), in.gcount());
  std::string digest = g_checksum_get_string(checksum);
  g_checksum_free(checksum);
  return digest;
}

std::string packageVersion(const std::string& package, const std::string& database) {
  std::ifstream status(fs::path(database) / "status");
  std::string line;
  bool inPackage = false;
  while (std::getline(status, line)) {
    if (line.rfind("Package: ", 0) == 0) inPackage = line.substr(9) == package;
    if (inPackage && line.rfind("Version: ", 0) == 0) return line.substr(9);
  }
  return {};
}

// Checks one regular file; the error says why it fails.
Ref<Error> checkFile(const fs::path& path, const std::string& database, PackagedFile* found = nullptr) {
  const auto packaged = findPackagedFile(path, database);
  if (!packaged) return signatureError(OVCodeSignatureStatusUnsigned, path.string() + " does not belong to an installed package");
  const auto digest = md5Of(path);
  if (!digest) return signatureError(OVCodeSignatureStatusNotFound, path.string() + " cannot be read");
  if (*digest != packaged->recordedDigest)
    return signatureError(OVCodeSignatureStatusSignatureFailed,
                          path.string() + " differs from the copy package " + packaged->package + " installed");
  if (found) *found = *packaged;
  return nullptr;
}

Ref<Error> checkValidity(const fs::path& path, const std::string& database) {
  std::error_code error;
  if (!fs::exists(fs::symlink_status(path, error)))
    return signatureError(OVCodeSignatureStatusNotFound, path.string() + " does not exist");
  if (!fs::is_directory(path, error)) return checkFile(fs::canonical(path, error), database);
  bool anyFile = false;
  for (const auto& entry : fs::recursive_directory_iterator(path, error)) {
    if (!entry.is_regular_file(error) || entry.is_symlink(error)) continue;
    anyFile = true;
    if (auto failure = checkFile(entry.path(), database)) return failure;
  }
  if (!anyFile) return signatureError(OVCodeSignatureStatusUnsigned, path.string() + " holds no files");
  return nullptr;
}

bool isSandboxed(const fs::path& path) {
  const std::string text = fs::weakly_canonical(path).string();
  if (text.find("/flatpak/app/") != std::string::npos || text.rfind("/snap/", 0) == 0 || text.rfind("/app/", 0) == 0)
    return true;
  std::error_code error;
  return fs::is_directory(path, error) &&
         (fs::exists(path / "metadata", error) || fs::exists(path / "meta" / "snap.yaml", error));
}

}  // namespace

bool OVCodeSignatureChecker::isApplicationSandboxedAtURL(const Ref<URL>& url) {
  return codeSignatureAtURL_satisfiesCodeRequirements_error(url, OVSandboxRequirement, nullptr);
}

bool OVCodeSignatureChecker::codeSignatureIsValidAtURL(const Ref<URL>& url) {
  return codeSignatureAtURL_satisfiesCodeRequirements_error(url, {}, nullptr);
}

bool OVCodeSignatureChecker::codeSignatureAtURL_satisfiesCodeRequirements_error(const Ref<URL>& url,
                                                                                std::string_view requirement,
                                                                                Ref<Error>* error,
                                                                                const std::string& packageDatabase) {
  const fs::path path = url ? url->path() : std::string();
  Ref<Error> failure;
  std::error_code ignored;
  if (path.empty() || !fs::exists(fs::symlink_status(path, ignored))) {
    failure = signatureError(OVCodeSignatureStatusNotFound, path.string() + " does not exist");
  } else if (requirement.empty()) {
    failure = checkValidity(path, packageDatabase);
  } else if (requirement != OVSandboxRequirement) {
    failure = signatureError(OVCodeSignatureStatusRequirementInvalid,
                             "unsupported requirement: only the sandbox entitlement can be checked here");
  } else if (!isSandboxed(path)) {
    failure = signatureError(OVCodeSignatureStatusRequirementFailed,
                             path.string() + " is not a Flatpak or Snap application");
  }
  if (failure && error) *error = failure;
  return !failure;
}

Ref<Dictionary> OVCodeSignatureChecker::codeSignatureInfoAtURL(const Ref<URL>& url, const std::string& packageDatabase) {
  if (!url) return nullptr;
  std::error_code error;
  const fs::path path = fs::canonical(url->path(), error);
  if (error || !fs::is_regular_file(path, error)) return nullptr;
  PackagedFile packaged;
  if (checkFile(path, packageDatabase, &packaged)) return nullptr;
  return Dictionary::dictionaryWithStringKeys({{"package", String::string(packaged.package)},
                                               {"version", String::string(packageVersion(packaged.package, packageDatabase))},
                                               {"checksum", String::string(packaged.recordedDigest)}});
}

}  // namespace fennick
