#pragma once
// File-system fixtures shared by the tests of the files subsystem: a private
// temporary folder, small file operations and a count of the process's open
// descriptors.
#include "fennick/Platform/Files/VnodeEventSource.h"
#include "fennick/Runtime/URLs/URL.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace fennick::filetest {

/// A fresh folder under $TMPDIR (or /tmp), removed with its contents at the end.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    const char* root = std::getenv("TMPDIR");
    std::string pattern = std::string(root && *root ? root : "/tmp") + "/fennick-files-XXXXXX";
    if (char* made = ::mkdtemp(pattern.data())) path_ = made;
  }
  ~TemporaryFolder() { removeTree(path_); }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  static void removeTree(const std::string& path) {
    if (path.empty()) return;
    // Tests that take permissions away give them back before they end.
    ::nftw(path.c_str(), [](const char* item, const struct stat*, int, struct FTW*) { return ::remove(item), 0; },
           16, FTW_DEPTH | FTW_PHYS);
  }

 private:
  std::string path_;
};

/// Creates or replaces a file holding `contents`.
inline bool writeFile(const std::string& path, const std::string& contents) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (descriptor < 0) return false;
  const bool written = ::write(descriptor, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size());
  ::close(descriptor);
  return written;
}

/// Appends to a file.
inline bool appendToFile(const std::string& path, const std::string& contents) {
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool written = ::write(descriptor, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size());
  ::close(descriptor);
  return written;
}

/// The number of descriptors the process has open now.
inline int openDescriptorCount();

/// The number of open descriptors once the process-wide services of the files
/// subsystem (the mount-table watch, the inotify descriptor, the reactor) are
/// running, as they do for the rest of the process once started: the baseline
/// of tests that check that nothing else stays open.
inline int descriptorBaseline() {
  URL::fileURLWithPath("/")->fileReferenceURL();
  platform::vnodeWatchCount();
  return openDescriptorCount();
}

inline int openDescriptorCount() {
  DIR* folder = ::opendir("/proc/self/fd");
  if (!folder) return -1;
  int count = 0;
  while (::readdir(folder)) ++count;
  ::closedir(folder);
  return count - 3;  // ".", ".." and the folder's own descriptor
}

/// The descriptors of this process that name the item `item` describes,
/// read from /proc rather than asked of the library.
inline int descriptorsOnItem(const struct stat& item) {
  int count = 0;
  DIR* folder = ::opendir("/proc/self/fd");
  if (!folder) return -1;
  while (const dirent* entry = ::readdir(folder)) {
    struct stat status {};
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    if (entry->d_name[0] != '.' && ::stat(link.c_str(), &status) == 0 && status.st_dev == item.st_dev &&
        status.st_ino == item.st_ino)
      ++count;
  }
  ::closedir(folder);
  return count;
}

/// Whether an inotify descriptor of this process watches the item `item`
/// describes, as the kernel lists its watches in /proc/self/fdinfo.
inline bool isWatchedByInotify(const struct stat& item) {
  bool watched = false;
  DIR* folder = ::opendir("/proc/self/fdinfo");
  if (!folder) return false;
  while (const dirent* entry = ::readdir(folder)) {
    if (entry->d_name[0] == '.') continue;
    std::FILE* info = std::fopen((std::string("/proc/self/fdinfo/") + entry->d_name).c_str(), "r");
    if (!info) continue;
    char line[512];
    while (std::fgets(line, sizeof line, info)) {
      unsigned long inode = 0, device = 0;
      // The kernel's device numbers: major in the bits above 20.
      if (std::sscanf(line, "inotify wd:%*d ino:%lx sdev:%lx", &inode, &device) == 2 && inode == item.st_ino &&
          makedev(device >> 20, device & 0xFFFFF) == item.st_dev)
        watched = true;
    }
    std::fclose(info);
  }
  ::closedir(folder);
  return watched;
}

}  // namespace fennick::filetest
