#include "fennick/Platform/Files/Internal/RootOwnedPath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <utility>
#include <vector>

namespace fennick::platform {

namespace {

constexpr int kMaximumLinks = 40;
constexpr std::size_t kMaximumDepth = 256;

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const noexcept { return fd_; }
  explicit operator bool() const noexcept { return fd_ >= 0; }

 private:
  int fd_;
};

bool isRootsAlone(const struct stat& info) {
  if (info.st_uid != 0) return false;
  if (S_ISLNK(info.st_mode)) return true;  // a link's own mode means nothing
  if (!S_ISDIR(info.st_mode) && !S_ISREG(info.st_mode)) return false;
  return (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Opens `name` in `directory` without following a link, and keeps it only
// when it is root's alone.
Descriptor openTrusted(int directory, const char* name, struct stat& info) {
  Descriptor opened(::openat(directory, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!opened || ::fstat(opened.get(), &info) != 0 || !isRootsAlone(info)) return Descriptor();
  return opened;
}

// Pushes the components of `path` so that the first one is popped first.
void pushComponents(std::string_view path, std::vector<std::string>& pending) {
  std::vector<std::string> components;
  for (std::size_t start = 0; start < path.size();) {
    std::size_t end = path.find('/', start);
    if (end == std::string_view::npos) end = path.size();
    if (end > start) components.emplace_back(path.substr(start, end - start));
    start = end + 1;
  }
  pending.insert(pending.end(), components.rbegin(), components.rend());
}

std::string joined(const std::vector<std::string>& names) {
  if (names.empty()) return "/";
  std::string path;
  for (const auto& name : names) path += "/" + name;
  return path;
}

}  // namespace

std::optional<std::string> rootOwnedPath(std::string_view path) {
  if (path.empty() || path.front() != '/' || path.size() >= PATH_MAX || path.find('\0') != std::string_view::npos)
    return std::nullopt;
  struct stat info {};
  const Descriptor root = openTrusted(AT_FDCWD, "/", info);
  if (!root) return std::nullopt;
  Descriptor current;  // the item reached so far; none while that is the root
  bool reachedFile = false;
  std::vector<std::string> names;
  std::vector<std::string> pending;
  pushComponents(path, pending);
  int links = 0;
  while (!pending.empty()) {
    const std::string name = std::move(pending.back());
    pending.pop_back();
    if (reachedFile) return std::nullopt;  // as the kernel answers ENOTDIR
    if (name == ".") continue;
    const int directory = current ? current.get() : root.get();
    if (name == "..") {
      if (names.empty()) continue;
      names.pop_back();
      current = names.empty() ? Descriptor() : openTrusted(directory, "..", info);
      if (!names.empty() && !current) return std::nullopt;
      continue;
    }
    Descriptor next = openTrusted(directory, name.c_str(), info);
    if (!next) return std::nullopt;
    if (S_ISLNK(info.st_mode)) {
      char target[PATH_MAX];
      const ssize_t length = ::readlinkat(next.get(), "", target, sizeof target);
      if (++links > kMaximumLinks || length <= 0 || static_cast<std::size_t>(length) >= sizeof target)
        return std::nullopt;
      const std::string_view text(target, static_cast<std::size_t>(length));
      if (text.front() == '/') {
        names.clear();
        current = Descriptor();
      }
      pushComponents(text, pending);
      continue;
    }
    names.push_back(name);
    if (names.size() > kMaximumDepth) return std::nullopt;
    reachedFile = !S_ISDIR(info.st_mode);
    current = std::move(next);
  }
  return joined(names);
}

}  // namespace fennick::platform
