#include "fennick/Helpers/Unarchiver/Internal/ExtractedTreeCheck.h"

#include "fennick/Helpers/Unarchiver/Internal/DirectoryReader.h"

#include <climits>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace fennick::detail {

namespace {

std::string foldedCase(std::string name) {
  for (char& c : name)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return name;
}

// The folder is private and the tool has exited, so nothing can swap the
// item between the lstat that found it and the change made here by name.
bool neutraliseMode(int folder, const char* name, mode_t mode) {
  if ((mode & kUnsafeModeBits) == 0) return true;
  return ::fchmodat(folder, name, mode & 07777 & ~kUnsafeModeBits, 0) == 0;
}

class TreeWalker {
 public:
  TreeWalker(std::uint64_t maximumBytes, const std::string& absoluteLinkPrefix)
      : remainingBytes_(maximumBytes), prefix_(absoluteLinkPrefix) {}

  /// Walks the folder whose descriptor it takes over.
  TreeProblem walk(int descriptor, std::size_t depth) {
    DirectoryReader reader(descriptor);
    if (!reader) return TreeProblem::Unreadable;
    const int folder = reader.descriptor();
    std::set<std::string> foldedNames;
    while (auto name = reader.next()) {
      if (!foldedNames.insert(foldedCase(*name)).second) return TreeProblem::CaseCollision;
      if (const TreeProblem problem = checkEntry(folder, *name, depth); problem != TreeProblem::None) return problem;
    }
    return reader.failed() ? TreeProblem::Unreadable : TreeProblem::None;
  }

 private:
  TreeProblem checkEntry(int folder, const std::string& name, std::size_t depth) {
    struct stat status {};
    if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return TreeProblem::Unreadable;
    switch (status.st_mode & S_IFMT) {
      case S_IFLNK:
        return checkLink(folder, name, depth);
      case S_IFREG:
        if (status.st_nlink > 1) return TreeProblem::SharedFile;
        if (static_cast<std::uint64_t>(status.st_size) > remainingBytes_) return TreeProblem::TooLarge;
        remainingBytes_ -= static_cast<std::uint64_t>(status.st_size);
        return neutraliseMode(folder, name.c_str(), status.st_mode) ? TreeProblem::None : TreeProblem::Unreadable;
      case S_IFDIR: {
        if (depth + 1 >= kMaximumTreeDepth) return TreeProblem::TooDeep;
        if (!neutraliseMode(folder, name.c_str(), status.st_mode)) return TreeProblem::Unreadable;
        return walk(::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC), depth + 1);
      }
      default:
        return TreeProblem::SpecialFile;
    }
  }

  TreeProblem checkLink(int folder, const std::string& name, std::size_t depth) {
    char buffer[PATH_MAX + 1];
    const ssize_t length = ::readlinkat(folder, name.c_str(), buffer, sizeof buffer);
    if (length <= 0 || static_cast<std::size_t>(length) >= sizeof buffer) return TreeProblem::Unreadable;
    const std::string target(buffer, static_cast<std::size_t>(length));
    if (rewrittenByTool(target)) {
      std::string original = target.substr(prefix_.size());
      if (original.empty()) original = "/";
      const bool remade = ::unlinkat(folder, name.c_str(), 0) == 0 &&
                          ::symlinkat(original.c_str(), folder, name.c_str()) == 0;
      return remade ? TreeProblem::None : TreeProblem::Unreadable;
    }
    if (target.front() == '/') return TreeProblem::None;
    return relativeLinkTargetStaysInside(target, depth) ? TreeProblem::None : TreeProblem::EscapingLink;
  }

  bool rewrittenByTool(const std::string& target) const {
    if (prefix_.empty() || target.compare(0, prefix_.size(), prefix_) != 0) return false;
    return target.size() == prefix_.size() || target[prefix_.size()] == '/';
  }

  std::uint64_t remainingBytes_;
  const std::string& prefix_;
};

}  // namespace

bool relativeLinkTargetStaysInside(std::string_view target, std::size_t depth) {
  std::size_t ups = 0;
  bool afterName = false;
  while (!target.empty()) {
    const std::size_t slash = target.find('/');
    const std::string_view component = target.substr(0, slash);
    target = slash == std::string_view::npos ? std::string_view() : target.substr(slash + 1);
    if (component.empty() || component == ".") continue;
    if (component != "..") {
      afterName = true;
    } else if (afterName || ++ups > depth) {
      return false;
    }
  }
  return true;
}

TreeProblem checkExtractedTree(const std::string& root, std::uint64_t maximumBytes,
                               const std::string& absoluteLinkPrefix) {
  const int folder = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (folder < 0) return TreeProblem::Unreadable;
  struct stat status {};
  // An archive's "./" entry gives the root folder its mode.
  if (::fstat(folder, &status) != 0 ||
      ((status.st_mode & kUnsafeModeBits) != 0 && ::fchmod(folder, status.st_mode & 07777 & ~kUnsafeModeBits) != 0)) {
    ::close(folder);
    return TreeProblem::Unreadable;
  }
  return TreeWalker(maximumBytes, absoluteLinkPrefix).walk(folder, 0);
}

const char* describeTreeProblem(TreeProblem problem) {
  switch (problem) {
    case TreeProblem::None:
      return "";
    case TreeProblem::SpecialFile:
      return "The archive holds a device, FIFO or socket, which is never unpacked.";
    case TreeProblem::SharedFile:
      return "The archive holds a hard link, which is never unpacked.";
    case TreeProblem::EscapingLink:
      return "The archive holds a symbolic link that points outside of it.";
    case TreeProblem::CaseCollision:
      return "The archive holds two names that differ only in case.";
    case TreeProblem::TooDeep:
      return "The archive's folders are nested too deeply.";
    case TreeProblem::TooLarge:
      return "The archive unpacks to more than is allowed.";
    case TreeProblem::Unreadable:
      return "The unpacked content could not be checked.";
  }
  return "";
}

}  // namespace fennick::detail
