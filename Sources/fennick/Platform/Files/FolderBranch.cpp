#include "fennick/Platform/Files/Internal/FolderBranch.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace fennick::platform {

namespace {

constexpr std::size_t kBufferSize = 32 * 1024;

// The record getdents64 fills (declared by no header of glibc 2.36).
struct LinuxDirent64 {
  std::uint64_t inode;
  std::int64_t offset;
  unsigned short length;
  unsigned char type;
  char name[1];
};

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

int openFolderAt(int parent, const char* name) {
  return ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

bool isOutOfDescriptors(int error) { return error == EMFILE || error == ENFILE; }

}  // namespace

FolderBranch::FolderBranch(FolderWalkSink& sink, std::size_t window)
    : sink_(sink), window_(window < 3 ? 3 : window), buffer_(std::make_unique<char[]>(kBufferSize)) {}

void FolderBranch::walk(int root) {
  frames_.clear();
  names_.clear();
  lowestOpen_ = 1;
  descend(root, 0);
  while (!frames_.empty()) {
    Frame& top = frames_.back();
    if (top.nextName == top.namesEnd) {
      ascend();
      continue;
    }
    const std::size_t nameAt = top.nextName;
    const char* name = names_.data() + nameAt;
    top.nextName += std::strlen(name) + 1;
    const int subfolder = openSubfolder(name);
    if (subfolder >= 0 && !sink_.share(subfolder)) descend(subfolder, nameAt);
  }
}

void FolderBranch::descend(int folder, std::size_t nameAt) {
  Frame frame;
  frame.descriptor = folder;
  frame.namesBegin = frame.nextName = names_.size();
  frame.nameAt = nameAt;
  frames_.push_back(frame);
  readFolder(frames_.back());
}

// Sums the sizes of the folder's entries and keeps the names of its
// subfolders for later.
void FolderBranch::readFolder(Frame& frame) {
  std::int64_t bytes = 0;
  std::uint64_t items = 0;
  for (;;) {
    const long length = ::syscall(SYS_getdents64, frame.descriptor, buffer_.get(), kBufferSize);
    // ENOENT: the folder was removed while it was read; it holds nothing now.
    if (length < 0 && errno != ENOENT) sink_.unreadable(1, errno);
    if (length <= 0) break;
    for (long offset = 0; offset < length;) {
      const auto* entry = reinterpret_cast<const LinuxDirent64*>(buffer_.get() + offset);
      offset += entry->length;
      if (isDotOrDotDot(entry->name)) continue;
      ++items;
      bool isFolder = entry->type == DT_DIR;
      if (!isFolder) {
        // Never opened: a FIFO or a device is measured by its status alone.
        struct stat status {};
        if (::fstatat(frame.descriptor, entry->name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
          if (errno != ENOENT) sink_.unreadable(1, errno);
          continue;
        }
        isFolder = S_ISDIR(status.st_mode);  // file systems that leave the type unknown
        if (!isFolder) bytes += static_cast<std::int64_t>(status.st_blocks) * 512;
      }
      if (isFolder) names_.append(entry->name, std::strlen(entry->name) + 1);
    }
  }
  frame.namesEnd = names_.size();
  sink_.add(bytes, items);
}

// Opens a subfolder of the lowest folder, closing folders higher up the
// path first when the window is full.
int FolderBranch::openSubfolder(const char* name) {
  if (openCount() >= window_) closeOneAbove();
  const int parent = frames_.back().descriptor;
  int subfolder = openFolderAt(parent, name);
  if (subfolder < 0 && isOutOfDescriptors(errno)) {
    // Others in the process took descriptors: give back what can be.
    while (closeOneAbove()) {
    }
    subfolder = openFolderAt(parent, name);
  }
  if (subfolder >= 0) return subfolder;
  const int error = errno;
  if (error == ENOENT) return -1;  // gone since the folder was read
  if (error == ENOTDIR || error == ELOOP) {
    // Replaced by something that is not a folder since: measure that.
    struct stat status {};
    if (::fstatat(parent, name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
      if (!S_ISDIR(status.st_mode)) sink_.add(static_cast<std::int64_t>(status.st_blocks) * 512, 0);
      else sink_.unreadable(1, error);
    } else if (errno != ENOENT) {
      sink_.unreadable(1, errno);
    }
    return -1;
  }
  sink_.unreadable(1, error);
  return -1;
}

std::size_t FolderBranch::openCount() const {
  return 1 + (frames_.size() > lowestOpen_ ? frames_.size() - lowestOpen_ : 0);
}

// Closes the highest open folder between the starting folder and the lowest
// one, remembering its identity.
bool FolderBranch::closeOneAbove() {
  if (lowestOpen_ + 1 >= frames_.size()) return false;
  Frame& frame = frames_[lowestOpen_];
  struct stat status {};
  if (::fstat(frame.descriptor, &status) != 0) return false;
  frame.device = status.st_dev;
  frame.inode = status.st_ino;
  ::close(frame.descriptor);
  frame.descriptor = -1;
  ++lowestOpen_;
  return true;
}

void FolderBranch::ascend() {
  const Frame done = frames_.back();
  frames_.pop_back();
  names_.resize(done.namesBegin);
  if (!frames_.empty()) {
    const std::size_t parent = frames_.size() - 1;
    if (frames_[parent].descriptor < 0) frames_[parent].descriptor = reopen(parent, done.descriptor);
    if (parent < lowestOpen_) lowestOpen_ = parent < 1 ? 1 : parent;
  }
  if (done.descriptor >= 0) ::close(done.descriptor);
}

// Reopens a closed folder of the path from its child `child` (-1 when that
// could not be opened either). When it cannot be reached again, the
// subfolders it still had are reported unreadable.
int FolderBranch::reopen(std::size_t index, int child) {
  const Frame& frame = frames_[index];
  auto isTheFolder = [&frame](int descriptor) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && status.st_dev == frame.device && status.st_ino == frame.inode;
  };
  int folder = child >= 0 ? ::openat(child, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
  if (folder >= 0 && !isTheFolder(folder)) {
    ::close(folder);
    folder = -1;
  }
  if (folder < 0) folder = reopenFromStart(index);
  if (folder >= 0) return folder;

  Frame& lost = frames_[index];
  std::uint64_t remaining = 0;
  for (std::size_t at = lost.nextName; at < lost.namesEnd; at += std::strlen(names_.data() + at) + 1) ++remaining;
  // A folder with nothing left to walk needed no reopening after all.
  if (remaining) sink_.unreadable(remaining, errno ? errno : ENOENT);
  lost.nextName = lost.namesEnd;
  return -1;
}

// Opens the folders of the path again by name from the starting folder,
// each checked to be the one it was: the fallback when ".." cannot be
// searched or leads elsewhere (the folder was moved meanwhile).
int FolderBranch::reopenFromStart(std::size_t index) {
  int folder = frames_[0].descriptor;
  for (std::size_t level = 1; level <= index; ++level) {
    const Frame& frame = frames_[level];
    int next = frame.descriptor;
    if (next < 0) {
      next = openFolderAt(folder, names_.data() + frame.nameAt);
      struct stat status {};
      if (next >= 0 && (::fstat(next, &status) != 0 || status.st_dev != frame.device || status.st_ino != frame.inode)) {
        ::close(next);
        next = -1;
        errno = ENOENT;
      }
    }
    if (folder != frames_[level - 1].descriptor) ::close(folder);
    if (next < 0) return -1;
    folder = next;
  }
  return folder;
}

}  // namespace fennick::platform
