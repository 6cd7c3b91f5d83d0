#include "fennick/Platform/DirectorySizeWalker.h"

#include "fennick/Dispatch/Group.h"
#include "fennick/Dispatch/Queue.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace fennick::platform {

namespace {

constexpr std::size_t kBufferSize = 32 * 1024;
// Folders waiting for a free thread, each an open descriptor: bounded so that
// a wide tree cannot use up the process's descriptors.
constexpr std::size_t kMaxWaitingFolders = 64;

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

}  // namespace

// The state the walking threads share: the folders waiting for a thread, and
// the sums.
class DirectorySizeWalker::Walk {
 public:
  explicit Walk(DirectorySizeWalker& walker)
      : walker_(walker),
        maxThreads_(std::max(1u, std::thread::hardware_concurrency())),
        group_(dispatch::Group::create()) {}

  std::int64_t run(int root) {
    waiting_.push_back(root);
    work();
    group_->wait(dispatch::Time::FOREVER);
    return total_.load(std::memory_order_relaxed);
  }

 private:
  // One walking thread's buffers, one per depth, reused for every folder.
  struct Buffers {
    std::vector<std::unique_ptr<char[]>> byDepth;
    char* at(std::size_t depth) {
      while (byDepth.size() <= depth) byDepth.push_back(std::make_unique<char[]>(kBufferSize));
      return byDepth[depth].get();
    }
  };

  // Takes waiting folders until there are none.
  void work() {
    Buffers buffers;
    for (;;) {
      int folder = -1;
      {
        std::lock_guard lock(mutex_);
        if (waiting_.empty()) {
          --threads_;
          return;
        }
        folder = waiting_.front();
        waiting_.pop_front();
      }
      walkFolder(folder, 0, buffers);
    }
  }

  // Hands a subfolder to another thread when one is free; false means the
  // caller walks it itself.
  bool share(int folder) {
    std::lock_guard lock(mutex_);
    if (threads_ >= maxThreads_ || waiting_.size() >= kMaxWaitingFolders) return false;
    waiting_.push_back(folder);
    ++threads_;
    group_->enter();
    // The block keeps the group alive: the walk ends, and may be freed, as
    // soon as the last leave empties it, while that leave is still running.
    dispatch::global(QOS_CLASS_USER_INITIATED)->async([this, group = group_] {
      work();
      group->leave();
    });
    return true;
  }

  void walkFolder(int folder, std::size_t depth, Buffers& buffers) {
    char* buffer = buffers.at(depth);
    std::int64_t bytes = 0;
    std::uint64_t items = 0;
    for (;;) {
      const long length = ::syscall(SYS_getdents64, folder, buffer, kBufferSize);
      if (length <= 0) break;
      for (long offset = 0; offset < length;) {
        const auto* entry = reinterpret_cast<const LinuxDirent64*>(buffer + offset);
        offset += entry->length;
        if (isDotOrDotDot(entry->name)) continue;
        ++items;
        bool isFolder = entry->type == DT_DIR;
        if (!isFolder) {
          struct stat status {};
          if (::fstatat(folder, entry->name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
          isFolder = S_ISDIR(status.st_mode);  // file systems that leave the type unknown
          if (!isFolder) bytes += static_cast<std::int64_t>(status.st_blocks) * 512;
        }
        if (!isFolder) continue;
        const int subfolder = openFolderAt(folder, entry->name);
        if (subfolder >= 0 && !share(subfolder)) walkFolder(subfolder, depth + 1, buffers);
      }
    }
    ::close(folder);
    total_.fetch_add(bytes, std::memory_order_relaxed);
    walker_.items_.fetch_add(items, std::memory_order_relaxed);
  }

  DirectorySizeWalker& walker_;
  const unsigned maxThreads_;
  const Ref<dispatch::Group> group_;
  std::atomic<std::int64_t> total_{0};
  std::mutex mutex_;  // guards the two below
  std::deque<int> waiting_;
  unsigned threads_ = 1;  // the caller's
};

std::int64_t DirectorySizeWalker::run() {
  const int root = ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (root < 0) return 0;
  Walk walk(*this);
  return walk.run(root);
}

}  // namespace fennick::platform
