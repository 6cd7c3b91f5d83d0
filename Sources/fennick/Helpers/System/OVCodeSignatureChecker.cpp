#include "fennick/Helpers/System/OVCodeSignatureChecker.h"

#include "fennick/Platform/System/SandboxInstallation.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <unordered_map>
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

// The package database's records of the files of one item (a file, or every
// file under a folder), read once per check: a folder's files are then looked
// up without reading the database again for each.
class PackageIndex {
 public:
  PackageIndex(const std::string& database, const fs::path& item, bool folder) {
    std::vector<std::string> scope = listedNames(item);
    if (folder)
      for (auto& name : scope) name += '/';
    const auto inScope = [&](std::string_view listed) {
      return std::any_of(scope.begin(), scope.end(), [&](const std::string& name) {
        return folder ? listed.substr(0, name.size()) == name : listed == name;
      });
    };
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(fs::path(database) / "info", error)) {
      if (entry.path().extension() != ".md5sums") continue;
      std::string package = entry.path().stem().string();
      package = package.substr(0, package.find(':'));  // multi-arch names carry ":arch"
      std::ifstream sums(entry.path());
      std::string line;
      while (std::getline(sums, line)) {
        // "<32 hex digits>  <path without the leading slash>"
        if (line.size() < 35) continue;
        line[33] = '/';
        const std::string_view listed = std::string_view(line).substr(33);
        if (inScope(listed)) files_.try_emplace(std::string(listed), PackagedFile{package, line.substr(0, 32)});
      }
    }
  }

  std::optional<PackagedFile> find(const fs::path& path) const {
    for (const auto& name : listedNames(path))
      if (auto found = files_.find(name); found != files_.end()) return found->second;
    return std::nullopt;
  }

 private:
  std::unordered_map<std::string, PackagedFile> files_;
};

// Opened without following a final link and without blocking on a pipe: only
// a regular file has a digest.
std::optional<std::string> md5Of(const fs::path& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  struct stat info {};
  std::optional<std::string> digest;
  if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
    GChecksum* checksum = g_checksum_new(G_CHECKSUM_MD5);
    char buffer[65536];
    ssize_t length;
    while ((length = ::read(fd, buffer, sizeof buffer)) > 0 || (length < 0 && errno == EINTR))
      if (length > 0) g_checksum_update(checksum, reinterpret_cast<const guchar*>(buffer), length);
    if (length == 0) digest = g_checksum_get_string(checksum);
    g_checksum_free(checksum);
  }
  ::close(fd);
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

// Checks one regular file; the error says why it fails. Descriptions name no
// path: the caller has it, and logs must not.
Ref<Error> checkFile(const fs::path& path, const PackageIndex& index, PackagedFile* found = nullptr) {
  const auto packaged = index.find(path);
  if (!packaged)
    return signatureError(OVCodeSignatureStatusUnsigned, "a file of the item does not belong to an installed package");
  const auto digest = md5Of(path);
  if (!digest) return signatureError(OVCodeSignatureStatusNotFound, "a file of the item cannot be read");
  if (*digest != packaged->recordedDigest)
    return signatureError(OVCodeSignatureStatusSignatureFailed,
                          "a file of the item differs from the copy its package installed");
  if (found) *found = *packaged;
  return nullptr;
}

Ref<Error> checkValidity(const fs::path& path, const std::string& database) {
  std::error_code error;
  const fs::path item = fs::canonical(path, error);
  if (error) return signatureError(OVCodeSignatureStatusNotFound, "the item cannot be read");
  if (!fs::is_directory(item, error)) return checkFile(item, PackageIndex(database, item, false));
  const PackageIndex index(database, item, true);
  bool anyFile = false;
  fs::recursive_directory_iterator entries(item, error), end;
  for (; !error && entries != end; entries.increment(error)) {
    const auto status = entries->symlink_status(error);
    if (error) break;
    if (fs::is_directory(status) || fs::is_symlink(status)) continue;
    if (!fs::is_regular_file(status))
      return signatureError(OVCodeSignatureStatusUnsigned, "the item holds a special file no package installs");
    anyFile = true;
    if (auto failure = checkFile(entries->path(), index)) return failure;
  }
  // A folder that could not be read in full is not known to be valid.
  if (error) return signatureError(OVCodeSignatureStatusNotFound, "a folder of the item cannot be read");
  if (!anyFile) return signatureError(OVCodeSignatureStatusUnsigned, "the item holds no files");
  return nullptr;
}

bool isSandboxed(const fs::path& path) {
  return platform::sandboxPackagingOfPath(path.string()) != platform::SandboxPackaging::None;
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
  // No path (or one holding a NUL byte, which the system would read only up
  // to that byte) names nothing that can be checked.
  const std::optional<std::string> representation = url ? url->fileSystemRepresentation() : std::nullopt;
  const fs::path path = representation.value_or(std::string());
  Ref<Error> failure;
  std::error_code ignored;
  if (path.empty() || !fs::exists(fs::symlink_status(path, ignored))) {
    failure = signatureError(OVCodeSignatureStatusNotFound, "the item does not exist");
  } else if (!requirement.empty() && requirement != OVSandboxRequirement) {
    failure = signatureError(OVCodeSignatureStatusRequirementInvalid,
                             "unsupported requirement: only the sandbox entitlement can be checked here");
  } else if ((failure = checkValidity(path, packageDatabase))) {
    // The requirement is checked together with validity: an unsigned
    // application satisfies none.
  } else if (!requirement.empty() && !isSandboxed(path)) {
    failure = signatureError(OVCodeSignatureStatusRequirementFailed,
                             "the application was not installed into a system Flatpak or Snap installation");
  }
  if (failure && error) *error = failure;
  return !failure;
}

Ref<Dictionary> OVCodeSignatureChecker::codeSignatureInfoAtURL(const Ref<URL>& url, const std::string& packageDatabase) {
  const std::optional<std::string> representation = url ? url->fileSystemRepresentation() : std::nullopt;
  if (!representation) return nullptr;
  std::error_code error;
  const fs::path path = fs::canonical(*representation, error);
  if (error || !fs::is_regular_file(path, error)) return nullptr;
  PackagedFile packaged;
  if (checkFile(path, PackageIndex(packageDatabase, path, false), &packaged)) return nullptr;
  return Dictionary::dictionaryWithStringKeys({{"package", String::string(packaged.package)},
                                               {"version", String::string(packageVersion(packaged.package, packageDatabase))},
                                               {"checksum", String::string(packaged.recordedDigest)}});
}

}  // namespace fennick
