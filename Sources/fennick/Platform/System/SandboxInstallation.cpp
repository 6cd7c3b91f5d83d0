#include "fennick/Platform/System/SandboxInstallation.h"

#include "fennick/Platform/Files/Internal/MountTable.h"
#include "fennick/Platform/Files/Internal/RootOwnedPath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

namespace fennick::platform {

namespace {

constexpr unsigned long kSquashfsMagic = 0x73717368;
constexpr std::size_t kRecordLimit = 1024 * 1024;

using Components = std::vector<std::string_view>;

Components componentsOf(std::string_view path) {
  Components components;
  for (std::size_t start = 0; start < path.size();) {
    std::size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    if (end > start) components.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return components;
}

std::string childPath(const std::string& directory, std::string_view name) {
  return directory == "/" ? "/" + std::string(name) : directory + "/" + std::string(name);
}

// The components of `item` below `root`; nullopt when it is not below it.
std::optional<Components> componentsBelow(const Components& item, const Components& root) {
  if (item.size() < root.size() || !std::equal(root.begin(), root.end(), item.begin())) return std::nullopt;
  return Components(item.begin() + static_cast<std::ptrdiff_t>(root.size()), item.end());
}

template <class Predicate>
bool isWord(std::string_view text, std::size_t maximum, Predicate allowed) {
  return !text.empty() && text.size() <= maximum && text.front() != '.' && text.front() != '-' &&
         std::all_of(text.begin(), text.end(), [&](char c) { return allowed(static_cast<unsigned char>(c)); });
}

bool isAlphanumeric(unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); }
bool isDigit(unsigned char c) { return c >= '0' && c <= '9'; }
bool isLowerHex(unsigned char c) { return isDigit(c) || (c >= 'a' && c <= 'f'); }

bool isApplicationID(std::string_view id) {
  return isWord(id, 255, [](unsigned char c) { return isAlphanumeric(c) || c == '.' || c == '_' || c == '-'; });
}
bool isArchitecture(std::string_view arch) {
  return isWord(arch, 32, [](unsigned char c) { return isAlphanumeric(c) || c == '_'; });
}
bool isCommit(std::string_view commit) { return commit.size() == 64 && isWord(commit, 64, isLowerHex); }

// "name" or "name_key" (a parallel install), as snapd names them.
bool isSnapName(std::string_view name) {
  const auto underscore = name.find('_');
  const auto base = name.substr(0, underscore);
  const bool baseOK = isWord(base, 40, [](unsigned char c) { return isDigit(c) || (c >= 'a' && c <= 'z') || c == '-'; }) &&
                      base.back() != '-';
  if (underscore == std::string_view::npos) return baseOK;
  return baseOK && isWord(name.substr(underscore + 1), 10,
                          [](unsigned char c) { return isDigit(c) || (c >= 'a' && c <= 'z'); });
}
bool isSnapRevision(std::string_view revision) {
  if (!revision.empty() && revision.front() == 'x') revision.remove_prefix(1);  // a revision installed locally
  return isWord(revision, 20, isDigit);
}

// At most `limit` bytes of a regular file, opened without following a final
// link and without blocking on anything that is not a file.
std::optional<std::string> readRecord(const std::string& path, std::size_t limit = kRecordLimit) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  struct stat info {};
  std::optional<std::string> text;
  if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
    text.emplace();
    char buffer[8192];
    for (;;) {
      const ssize_t length = ::read(fd, buffer, sizeof buffer);
      if (length < 0 && errno == EINTR) continue;
      if (length < 0 || text->size() + static_cast<std::size_t>(length) > limit) {
        text.reset();
        break;
      }
      if (length == 0) break;
      text->append(buffer, static_cast<std::size_t>(length));
    }
  }
  ::close(fd);
  return text;
}

// The record at `path`, when root alone could have written it there.
std::optional<std::string> readRootsRecord(const std::string& path) {
  if (rootOwnedPath(path) != path) return std::nullopt;  // no links to records elsewhere
  return readRecord(path);
}

// Whether a Flatpak metadata file's [Application] group names `id`.
bool metadataNamesApplication(std::string_view metadata, std::string_view id) {
  bool inApplication = false;
  for (std::size_t start = 0; start < metadata.size();) {
    std::size_t end = metadata.find('\n', start);
    if (end == std::string_view::npos) end = metadata.size();
    std::string_view line = metadata.substr(start, end - start);
    start = end + 1;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    if (!line.empty() && line.front() == '[') inApplication = line == "[Application]";
    else if (inApplication && line.substr(0, 5) == "name=") return line.substr(5) == id;
  }
  return false;
}

bool isInFlatpakDeployment(const Components& item, const std::string& installation) {
  const std::optional<std::string> root = rootOwnedPath(installation);
  if (!root) return false;
  const auto rest = componentsBelow(item, componentsOf(*root));
  if (!rest || rest->size() < 5 || (*rest)[0] != "app" || !isApplicationID((*rest)[1]) ||
      !isArchitecture((*rest)[2]) || !isApplicationID((*rest)[3]) || !isCommit((*rest)[4]))
    return false;
  std::string deployment = *root;
  for (std::size_t index = 0; index < 5; ++index) deployment = childPath(deployment, (*rest)[index]);
  const auto deployRecord = readRootsRecord(childPath(deployment, "deploy"));
  const auto metadata = readRootsRecord(childPath(deployment, "metadata"));
  return deployRecord && !deployRecord->empty() && metadata && metadataNamesApplication(*metadata, (*rest)[1]);
}

// Whether `mountPoint` is the root of a read-only squashfs mount that the
// mount table lists there, backed by the loop file `image`.
bool isSquashfsMountOf(const std::string& mountPoint, const std::string& image) {
  const int fd = ::open(mountPoint.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return false;
  struct statfs fileSystem {};
  struct statx mount {};
  const bool examined = ::fstatfs(fd, &fileSystem) == 0 &&
                        ::statx(fd, "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_MNT_ID, &mount) == 0;
  ::close(fd);
  if (!examined || static_cast<unsigned long>(fileSystem.f_type) != kSquashfsMagic ||
      !(fileSystem.f_flags & ST_RDONLY) || !(mount.stx_mask & STATX_MNT_ID) ||
      !(mount.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) || !(mount.stx_attributes & STATX_ATTR_MOUNT_ROOT))
    return false;
  const auto mounts = MountTable::readMounts();
  if (!mounts || std::none_of(mounts->begin(), mounts->end(), [&](const MountTable::Mount& listed) {
        return listed.id == mount.stx_mnt_id && listed.mountPoint == mountPoint;
      }))
    return false;
  auto backing = readRecord("/sys/dev/block/" + std::to_string(mount.stx_dev_major) + ":" +
                                std::to_string(mount.stx_dev_minor) + "/loop/backing_file",
                            4096);
  if (!backing) return false;
  if (!backing->empty() && backing->back() == '\n') backing->pop_back();
  return *backing == image;
}

bool isInSnapRevision(const Components& item, const SandboxInstallRoots& roots) {
  const std::optional<std::string> mountDirectory = rootOwnedPath(roots.snapMountDirectory);
  if (!mountDirectory) return false;
  const auto rest = componentsBelow(item, componentsOf(*mountDirectory));
  if (!rest || rest->size() < 2 || !isSnapName((*rest)[0]) || !isSnapRevision((*rest)[1])) return false;
  const std::string name((*rest)[0]), revision((*rest)[1]);
  const std::string mountPoint = childPath(childPath(*mountDirectory, name), revision);
  const auto snaps = rootOwnedPath(childPath(roots.snapdDirectory, "snaps"));
  if (!snaps) return false;
  const std::string image = childPath(*snaps, name + "_" + revision + ".snap");
  struct stat info {};
  if (rootOwnedPath(image) != image || ::lstat(image.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return false;
  return isSquashfsMountOf(mountPoint, image);
}

}  // namespace

SandboxPackaging sandboxPackagingOfPath(std::string_view path, const SandboxInstallRoots& roots) {
  const std::optional<std::string> item = rootOwnedPath(path);
  if (!item) return SandboxPackaging::None;
  const Components components = componentsOf(*item);
  for (const auto& installation : roots.flatpakInstallations)
    if (isInFlatpakDeployment(components, installation)) return SandboxPackaging::Flatpak;
  if (isInSnapRevision(components, roots)) return SandboxPackaging::Snap;
  return SandboxPackaging::None;
}

}  // namespace fennick::platform
