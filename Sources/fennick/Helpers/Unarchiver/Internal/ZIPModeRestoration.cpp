#include "fennick/Helpers/Unarchiver/Internal/ZIPModeRestoration.h"

#include "fennick/Helpers/Unarchiver/Internal/ExtractedTreeCheck.h"
#include "fennick/Helpers/Unarchiver/Internal/ZIPCentralDirectory.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <optional>
#include <span>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace fennick::detail {

namespace {

constexpr int kFolderFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

class Descriptor {
 public:
  explicit Descriptor(int fd) noexcept : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const noexcept { return fd_; }
  bool valid() const noexcept { return fd_ >= 0; }

 private:
  int fd_;
};

// The errors that say an item is not where the directory puts it: missing,
// or a component that is not a folder (a link among them).
bool isAbsence(int error) { return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG; }

// The components bsdtar resolves a name to: empty and "." ones fall away; a
// ".." makes bsdtar refuse the entry, so such a name names nothing here.
std::optional<std::vector<std::string>> componentsOf(std::string_view name) {
  std::vector<std::string> components;
  while (!name.empty()) {
    const std::size_t slash = name.find('/');
    const std::string_view component = name.substr(0, slash);
    name = slash == std::string_view::npos ? std::string_view() : name.substr(slash + 1);
    if (component == "..") return std::nullopt;
    if (!component.empty() && component != ".") components.emplace_back(component);
  }
  if (components.empty() || components.size() > kMaximumTreeDepth) return std::nullopt;
  return components;
}

// Opens the folder that holds an item, one component at a time, never
// through a link; on failure `error` holds why.
Descriptor openFolder(int root, std::span<const std::string> folders, int& error) {
  int current = ::openat(root, ".", kFolderFlags);
  for (std::size_t index = 0; current >= 0 && index < folders.size(); ++index) {
    const int next = ::openat(current, folders[index].c_str(), kFolderFlags);
    const int opening = errno;
    ::close(current);
    errno = opening;
    current = next;
  }
  error = current >= 0 ? 0 : errno;
  return Descriptor(current);
}

bool changeMode(int folder, const char* name, mode_t permissions) {
  if (::fchmodat(folder, name, permissions, AT_SYMLINK_NOFOLLOW) == 0) return true;
  // glibc carries the flag out through /proc, which a chroot may lack. The
  // item was just found to be no link, in a folder nobody else can enter.
  return errno == EOPNOTSUPP && ::fchmodat(folder, name, permissions, 0) == 0;
}

ZIPModeProblem judgeLinkTarget(std::string_view target, std::size_t depth) {
  if (target.empty() || target.size() >= PATH_MAX || target.find('\0') != std::string_view::npos)
    return ZIPModeProblem::InvalidLink;
  if (target.front() == '/' || !relativeLinkTargetStaysInside(target, depth)) return ZIPModeProblem::EscapingLink;
  return ZIPModeProblem::None;
}

// The content of the regular file that bsdtar wrote for a link, up to
// PATH_MAX bytes (one more than any target may have).
std::optional<std::string> readLinkFile(int folder, const char* name, const struct stat& found) {
  Descriptor file(::openat(folder, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat opened {};
  if (!file.valid() || ::fstat(file.get(), &opened) != 0 || !S_ISREG(opened.st_mode) ||
      opened.st_ino != found.st_ino || opened.st_dev != found.st_dev)
    return std::nullopt;
  std::string content(PATH_MAX, '\0');
  std::size_t length = 0;
  while (length < content.size()) {
    const ssize_t got = ::read(file.get(), content.data() + length, content.size() - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    if (got == 0) break;
    length += static_cast<std::size_t>(got);
  }
  content.resize(length);
  return content;
}

ZIPModeProblem makeLink(int folder, const std::string& name, const struct stat& found, std::size_t depth) {
  // A file with other names is refused by the tree check; replacing this
  // one name would hide that.
  if (found.st_nlink != 1) return ZIPModeProblem::None;
  const auto target = readLinkFile(folder, name.c_str(), found);
  if (!target) return ZIPModeProblem::Unreadable;
  if (const auto problem = judgeLinkTarget(*target, depth); problem != ZIPModeProblem::None) return problem;
  if (::unlinkat(folder, name.c_str(), 0) != 0 || ::symlinkat(target->c_str(), folder, name.c_str()) != 0)
    return ZIPModeProblem::Unreadable;
  return ZIPModeProblem::None;
}

ZIPModeProblem checkExistingLink(int folder, const std::string& name, std::size_t depth) {
  char target[PATH_MAX];
  const ssize_t length = ::readlinkat(folder, name.c_str(), target, sizeof target);
  if (length < 0) return ZIPModeProblem::Unreadable;
  return judgeLinkTarget(std::string_view(target, static_cast<std::size_t>(length)), depth);
}

ZIPModeProblem restoreEntry(int root, const std::vector<std::string>& components, mode_t recorded) {
  const std::span<const std::string> folders(components.data(), components.size() - 1);
  int error = 0;
  const Descriptor folder = openFolder(root, folders, error);
  if (!folder.valid()) return isAbsence(error) ? ZIPModeProblem::None : ZIPModeProblem::Unreadable;
  const std::string& name = components.back();
  struct stat found {};
  if (::fstatat(folder.get(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0)
    return isAbsence(errno) ? ZIPModeProblem::None : ZIPModeProblem::Unreadable;

  const mode_t recordedType = recorded & S_IFMT, foundType = found.st_mode & S_IFMT;
  if (recordedType == S_IFLNK) {
    if (foundType == S_IFREG) return makeLink(folder.get(), name, found, folders.size());
    if (foundType == S_IFLNK) return checkExistingLink(folder.get(), name, folders.size());
    return ZIPModeProblem::None;
  }
  // Writers that record permissions without a type leave it to the name.
  const bool plain = foundType == S_IFREG || foundType == S_IFDIR;
  if (!plain || (recordedType != 0 && recordedType != foundType)) return ZIPModeProblem::None;
  return changeMode(folder.get(), name.c_str(), keptPermissions(recorded, foundType == S_IFDIR))
             ? ZIPModeProblem::None
             : ZIPModeProblem::Unreadable;
}

}  // namespace

mode_t keptPermissions(mode_t recorded, bool folder) {
  return (recorded & 07777 & ~kUnsafeModeBits) | (folder ? S_IRWXU : S_IRUSR);
}

ZIPModeProblem restoreZIPModesAndLinks(const std::string& root, const ZIPCentralDirectory& directory) {
  const Descriptor rootFolder(::open(root.c_str(), kFolderFlags));
  if (!rootFolder.valid()) return ZIPModeProblem::Unreadable;
  for (const ZIPDirectoryEntry& entry : directory.entries()) {
    const auto recorded = static_cast<mode_t>(entry.unixMode());
    if (recorded == 0) continue;
    const auto components = componentsOf(entry.name);
    if (!components) continue;
    if (const auto problem = restoreEntry(rootFolder.get(), *components, recorded); problem != ZIPModeProblem::None)
      return problem;
  }
  return ZIPModeProblem::None;
}

const char* describeZIPModeProblem(ZIPModeProblem problem) {
  switch (problem) {
    case ZIPModeProblem::None:
      return "";
    case ZIPModeProblem::EscapingLink:
      return "The archive holds a symbolic link that points outside of it.";
    case ZIPModeProblem::InvalidLink:
      return "The archive holds a symbolic link whose target is not a usable path.";
    case ZIPModeProblem::Unreadable:
      return "The unpacked content could not be given the modes the archive records.";
  }
  return "";
}

}  // namespace fennick::detail
