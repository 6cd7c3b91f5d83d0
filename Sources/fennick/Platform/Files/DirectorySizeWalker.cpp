#include "fennick/Platform/Files/DirectorySizeWalker.h"

#include "fennick/Dispatch/Group.h"
#include "fennick/Dispatch/Queue.h"
#include "fennick/Platform/Files/Internal/FolderBranch.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/String.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <mutex>
#include <thread>

namespace fennick::platform {

namespace {

constexpr std::int64_t kFileNoSuchFileError = 4;
constexpr std::int64_t kFileReadUnknownError = 256;
constexpr std::int64_t kFileReadNoPermissionError = 257;

// Descriptors one walking thread keeps open at most: enough that ordinary
// trees never reopen a folder.
constexpr std::size_t kWindow = 16;
constexpr std::size_t kMaxDescriptors = 256;

// The descriptors a walk may hold at once: a share of the process's limit,
// so that the rest of the process keeps enough.
std::size_t descriptorBudget() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kMaxDescriptors;
  return std::clamp<std::size_t>(static_cast<std::size_t>(limit.rlim_cur / 4), 3, kMaxDescriptors);
}

}  // namespace

// The state the walking threads share: the folders waiting for a thread, and
// the sums.
class DirectorySizeWalker::Walk final : public FolderWalkSink {
 public:
  explicit Walk(DirectorySizeWalker& walker) : walker_(walker), group_(dispatch::Group::create()) {
    const std::size_t budget = descriptorBudget();
    window_ = std::min(kWindow, budget);
    // Each thread holds its window, and one more while a folder waits for it.
    const std::size_t threads = std::max<std::size_t>(1, budget / (window_ + 1));
    maxThreads_ = std::min<std::size_t>(threads, std::max(1u, std::thread::hardware_concurrency()));
  }

  std::int64_t run(int root) {
    waiting_.push_back(root);
    work();
    group_->wait(dispatch::Time::FOREVER);
    return total_.load(std::memory_order_relaxed);
  }

  // Hands a subfolder to another thread when one is free.
  bool share(int folder) override {
    std::lock_guard lock(mutex_);
    if (threads_ >= maxThreads_) return false;
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

  void add(std::int64_t bytes, std::uint64_t items) override {
    total_.fetch_add(bytes, std::memory_order_relaxed);
    walker_.items_.fetch_add(items, std::memory_order_relaxed);
  }

  void unreadable(std::uint64_t count, int error) override { walker_.noteUnreadable(count, error); }

 private:
  // Takes waiting folders until there are none.
  void work() {
    FolderBranch branch(*this, window_);
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
      branch.walk(folder);
    }
  }

  DirectorySizeWalker& walker_;
  std::size_t window_ = kWindow;
  std::size_t maxThreads_ = 1;
  const Ref<dispatch::Group> group_;
  std::atomic<std::int64_t> total_{0};
  std::mutex mutex_;  // guards the two below
  std::deque<int> waiting_;
  std::size_t threads_ = 1;  // the caller's
};

std::int64_t DirectorySizeWalker::run(Ref<Error>* error) {
  // A path cut short at a NUL byte would name another folder.
  int root = -1;
  if (path_.find('\0') == std::string::npos) root = ::open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  else errno = EINVAL;
  if (root < 0) {
    if (errno == ENOTDIR) return 0;  // not a folder: nothing below it
    noteUnreadable(1, errno);
    if (error) *error = incompleteError(true);
    return kDirectorySizeUnknown;
  }
  Walk walk(*this);
  const std::int64_t total = walk.run(root);
  if (unreadable_.load(std::memory_order_relaxed) == 0) return total;
  if (error) *error = incompleteError(false);
  return kDirectorySizeUnknown;
}

void DirectorySizeWalker::noteUnreadable(std::uint64_t count, int error) {
  unreadable_.fetch_add(count, std::memory_order_relaxed);
  int none = 0;
  firstError_.compare_exchange_strong(none, error, std::memory_order_relaxed);
}

Ref<Error> DirectorySizeWalker::incompleteError(bool folderItself) const {
  const int cause = firstError_.load(std::memory_order_relaxed);
  std::int64_t code = kFileReadUnknownError;
  if (cause == EACCES || cause == EPERM) code = kFileReadNoPermissionError;
  else if (folderItself && cause == ENOENT) code = kFileNoSuchFileError;
  const std::uint64_t count = unreadableItems();
  std::string description;
  if (folderItself)
    description = "The folder’s size couldn’t be determined because the folder couldn’t be read.";
  else
    description = "The folder’s size couldn’t be determined because " + std::to_string(count) +
                  (count == 1 ? " item in it couldn’t be read." : " items in it couldn’t be read.");
  return Error::errorWithDomain_code_userInfo(
      NSCocoaErrorDomain, code,
      Dictionary::dictionaryWithStringKeys({{NSLocalizedDescriptionKey, String::string(description)},
                                            {NSUnderlyingErrorKey, Error::posixError(cause)}}));
}

}  // namespace fennick::platform
