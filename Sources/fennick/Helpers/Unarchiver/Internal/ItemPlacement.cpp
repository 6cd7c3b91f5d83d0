#include "fennick/Helpers/Unarchiver/Internal/ItemPlacement.h"

#include "fennick/Helpers/Unarchiver/Internal/DirectoryReader.h"
#include "fennick/Helpers/Unarchiver/Internal/ExtractedTreeCheck.h"
#include "fennick/Runtime/Values/UUID.h"

#include <array>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <linux/fs.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fennick::detail {

namespace {

constexpr std::size_t kRemovalDepth = 1024;
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const noexcept { return fd_; }
  bool valid() const noexcept { return fd_ >= 0; }
  /// Closes now, answering the close's error (a full disk may show only here).
  int close() {
    const int result = ::close(fd_);
    fd_ = -1;
    return result == 0 ? 0 : errno;
  }

 private:
  int fd_;
};

std::string hiddenSiblingName() { return ".fennick-" + UUID::init()->UUIDString(); }

// The parent folder and last component of a path, without a trailing slash.
std::pair<std::string, std::string> splitPath(const std::string& path) {
  std::filesystem::path item(path);
  if (!item.has_filename()) item = item.parent_path();
  return {item.has_parent_path() ? item.parent_path().string() : ".", item.filename().string()};
}

void removeItemAt(int folder, const char* name, std::size_t depth) {
  struct stat status {};
  if (::fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) != 0) return;
  if (S_ISDIR(status.st_mode)) {
    if (depth >= kRemovalDepth) return;
    DirectoryReader reader(::openat(folder, name, kFolderFlags));
    while (auto child = reader.next()) removeItemAt(reader.descriptor(), child->c_str(), depth + 1);
    ::unlinkat(folder, name, AT_REMOVEDIR);
  } else {
    ::unlinkat(folder, name, 0);
  }
}

int copyBytes(int from, int to) {
  for (;;) {
    const ssize_t copied = ::copy_file_range(from, nullptr, to, nullptr, std::size_t{1} << 30, 0);
    if (copied == 0) return 0;
    if (copied > 0) continue;
    if (errno == EINTR) continue;
    if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP) return errno;
    break;  // not between these two file systems: copy through a buffer
  }
  std::array<char, 65'536> buffer;
  for (;;) {
    const ssize_t got = ::read(from, buffer.data(), buffer.size());
    if (got == 0) return 0;
    if (got < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    for (ssize_t done = 0; done < got;) {
      const ssize_t put = ::write(to, buffer.data() + done, static_cast<std::size_t>(got - done));
      if (put < 0 && errno != EINTR) return errno;
      if (put > 0) done += put;
    }
  }
}

int copyItemAt(int fromFolder, const char* fromName, int toFolder, const char* toName, std::size_t depth);

int copyFileAt(int fromFolder, const char* fromName, int toFolder, const char* toName, mode_t mode) {
  Descriptor from(::openat(fromFolder, fromName, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!from.valid()) return errno;
  Descriptor to(::openat(toFolder, toName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!to.valid()) return errno;
  if (const int failure = copyBytes(from.get(), to.get())) return failure;
  if (::fchmod(to.get(), mode & 07777) != 0) return errno;
  return to.close();
}

int copyFolderAt(int fromFolder, const char* fromName, int toFolder, const char* toName, mode_t mode,
                 std::size_t depth) {
  if (depth >= kMaximumTreeDepth) return ELOOP;
  if (::mkdirat(toFolder, toName, 0700) != 0) return errno;
  DirectoryReader reader(::openat(fromFolder, fromName, kFolderFlags));
  Descriptor to(::openat(toFolder, toName, kFolderFlags));
  if (!reader || !to.valid()) return errno ? errno : EIO;
  while (auto child = reader.next())
    if (const int failure = copyItemAt(reader.descriptor(), child->c_str(), to.get(), child->c_str(), depth + 1))
      return failure;
  if (reader.failed()) return EIO;
  return ::fchmod(to.get(), mode & 07777) == 0 ? 0 : errno;
}

int copyLinkAt(int fromFolder, const char* fromName, int toFolder, const char* toName) {
  char target[PATH_MAX + 1];
  const ssize_t length = ::readlinkat(fromFolder, fromName, target, sizeof target);
  if (length < 0) return errno;
  if (static_cast<std::size_t>(length) >= sizeof target) return ENAMETOOLONG;
  target[length] = '\0';
  return ::symlinkat(target, toFolder, toName) == 0 ? 0 : errno;
}

int copyItemAt(int fromFolder, const char* fromName, int toFolder, const char* toName, std::size_t depth) {
  struct stat status {};
  if (::fstatat(fromFolder, fromName, &status, AT_SYMLINK_NOFOLLOW) != 0) return errno;
  switch (status.st_mode & S_IFMT) {
    case S_IFREG:
      return copyFileAt(fromFolder, fromName, toFolder, toName, status.st_mode);
    case S_IFDIR:
      return copyFolderAt(fromFolder, fromName, toFolder, toName, status.st_mode, depth);
    case S_IFLNK:
      return copyLinkAt(fromFolder, fromName, toFolder, toName);
    default:
      return EINVAL;  // special files never get this far
  }
}

// Brings the source into `folder` under `hiddenName`: a rename on one file
// system, a copy (then the source removed) across two.
int bringIn(const std::string& source, int folder, const std::string& hiddenName) {
  if (::renameat2(AT_FDCWD, source.c_str(), folder, hiddenName.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno == EINVAL && ::renameat(AT_FDCWD, source.c_str(), folder, hiddenName.c_str()) == 0) return 0;
  if (errno != EXDEV) return errno;
  const auto [parent, name] = splitPath(source);
  Descriptor from(::open(parent.c_str(), kFolderFlags & ~O_NOFOLLOW));
  if (!from.valid()) return errno;
  if (const int failure = copyItemAt(from.get(), name.c_str(), folder, hiddenName.c_str(), 0)) {
    removeItemAt(folder, hiddenName.c_str(), 0);
    return failure;
  }
  removeItemAt(from.get(), name.c_str(), 0);
  return 0;
}

// For file systems that cannot exchange two names.
int replaceByRenaming(int folder, const std::string& hiddenName, const std::string& name) {
  struct stat old {}, replacement {};
  const bool bothPlain = ::fstatat(folder, name.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISDIR(old.st_mode) &&
                         ::fstatat(folder, hiddenName.c_str(), &replacement, AT_SYMLINK_NOFOLLOW) == 0 &&
                         !S_ISDIR(replacement.st_mode);
  if (bothPlain) return ::renameat(folder, hiddenName.c_str(), folder, name.c_str()) == 0 ? 0 : errno;
  const std::string aside = hiddenSiblingName();
  if (::renameat(folder, name.c_str(), folder, aside.c_str()) != 0) return errno;
  if (::renameat(folder, hiddenName.c_str(), folder, name.c_str()) != 0) {
    const int failure = errno;
    ::renameat(folder, aside.c_str(), folder, name.c_str());
    return failure;
  }
  removeItemAt(folder, aside.c_str(), 0);
  return 0;
}

int swapIn(int folder, const std::string& hiddenName, const std::string& name) {
  if (::renameat2(folder, hiddenName.c_str(), folder, name.c_str(), RENAME_EXCHANGE) == 0) {
    removeItemAt(folder, hiddenName.c_str(), 0);  // the old item, now under the hidden name
    return 0;
  }
  if (errno == ENOENT) return ::renameat(folder, hiddenName.c_str(), folder, name.c_str()) == 0 ? 0 : errno;
  if (errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP) return replaceByRenaming(folder, hiddenName, name);
  return errno;
}

}  // namespace

std::error_code placeItem(const std::string& source, const std::string& folder, const std::string& name) {
  Descriptor destination(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!destination.valid()) return {errno, std::generic_category()};
  const std::string hiddenName = hiddenSiblingName();
  if (const int failure = bringIn(source, destination.get(), hiddenName)) return {failure, std::generic_category()};
  if (const int failure = swapIn(destination.get(), hiddenName, name)) {
    removeItemAt(destination.get(), hiddenName.c_str(), 0);
    return {failure, std::generic_category()};
  }
  return {};
}

void removeItem(const std::string& path) {
  const auto [parent, name] = splitPath(path);
  Descriptor folder(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder.valid()) removeItemAt(folder.get(), name.c_str(), 0);
}

}  // namespace fennick::detail
