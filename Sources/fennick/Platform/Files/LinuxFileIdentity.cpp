#include "fennick/Platform/Files/Internal/LinuxFileIdentity.h"

#include "fennick/Platform/Files/Internal/FileIdentityTable.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <vector>

namespace fennick::platform {

namespace {

constexpr std::string_view kDeletedSuffix = " (deleted)";

std::optional<std::string> readLink(const std::string& link) {
  std::vector<char> buffer(256);
  for (;;) {
    const ssize_t length = ::readlink(link.c_str(), buffer.data(), buffer.size());
    if (length < 0) return std::nullopt;
    if (static_cast<std::size_t>(length) < buffer.size()) return std::string(buffer.data(), length);
    buffer.resize(buffer.size() * 2);
  }
}

}  // namespace

LinuxFileIdentity::LinuxFileIdentity(int descriptor, std::uint64_t device, std::uint64_t inode,
                                     bool isDirectory, std::uint64_t mountId)
    : FileIdentity(device, inode, isDirectory), mountId_(mountId), descriptor_(descriptor) {}

LinuxFileIdentity::~LinuxFileIdentity() {
  if (descriptor_ >= 0) ::close(descriptor_);
  FileIdentityTable::shared().forget(device(), inode());
}

std::string LinuxFileIdentity::procPath(int descriptor) {
  return "/proc/self/fd/" + std::to_string(descriptor);
}

std::optional<std::string> LinuxFileIdentity::currentPath() const {
  std::optional<std::string> path;
  struct stat status {};
  {
    std::lock_guard lock(mutex_);
    if (descriptor_ < 0) return std::nullopt;
    path = readLink(procPath(descriptor_));
    if (!path || !path->starts_with('/')) return std::nullopt;
    if (!path->ends_with(kDeletedSuffix)) return path;
    if (::fstat(descriptor_, &status) != 0) return std::nullopt;
  }
  // The kernel marks a name that was unlinked. The item may still have other
  // links, but the descriptor cannot tell where; only a name that really ends
  // with the marker and still leads to this item is kept.
  struct stat atPath {};
  if (::stat(path->c_str(), &atPath) == 0 && atPath.st_dev == status.st_dev && atPath.st_ino == status.st_ino)
    return path;
  return std::nullopt;
}

void LinuxFileIdentity::revoke() {
  std::lock_guard lock(mutex_);
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = -1;
}

bool LinuxFileIdentity::isRevoked() const {
  std::lock_guard lock(mutex_);
  return descriptor_ < 0;
}

}  // namespace fennick::platform
