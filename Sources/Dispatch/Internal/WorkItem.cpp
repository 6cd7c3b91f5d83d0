#include "fennick/Dispatch/Internal/WorkItem.h"

#include <mutex>
#include <vector>

namespace fennick::dispatch::internal {
namespace {

#if defined(__SANITIZE_ADDRESS__)
// Recycling would hide use-after-free of items from AddressSanitizer.
constexpr bool kRecycle = false;
#else
constexpr bool kRecycle = true;
#endif

// Items move between threads in magazines: a producer thread allocates, a
// worker frees, so each thread's cache hands full magazines to the depot and
// takes them back from it when it runs dry.
constexpr std::size_t kMagazineSize = 256;
constexpr std::size_t kDepotCapacity = 64;

struct Magazine {
  WorkItem* first = nullptr;
  std::size_t count = 0;

  void push(WorkItem* item) noexcept {
    item->next.store(first, std::memory_order_relaxed);
    first = item;
    ++count;
  }
  WorkItem* pop() noexcept {
    WorkItem* item = first;
    first = item->next.load(std::memory_order_relaxed);
    --count;
    return item;
  }
  void destroyAll() noexcept {
    while (count > 0) delete pop();
  }
};

class Depot {
 public:
  // Immortal: worker threads may still free items while the process exits.
  static Depot& shared() {
    static Depot* depot = new Depot;
    return *depot;
  }

  bool take(Magazine& into) {
    std::lock_guard lock(mutex_);
    if (full_.empty()) return false;
    into = full_.back();
    full_.pop_back();
    return true;
  }

  void give(Magazine magazine) {
    {
      std::lock_guard lock(mutex_);
      if (full_.size() < kDepotCapacity) {
        full_.push_back(magazine);
        return;
      }
    }
    magazine.destroyAll();
  }

 private:
  std::mutex mutex_;
  std::vector<Magazine> full_;
};

class ThreadCache {
 public:
  ~ThreadCache() {
    alive = false;
    if (current_.count > 0) Depot::shared().give(current_);
    if (spare_.count > 0) Depot::shared().give(spare_);
  }

  WorkItem* allocate() {
    if (current_.count == 0) {
      if (spare_.count > 0) {
        std::swap(current_, spare_);
      } else if (!Depot::shared().take(current_)) {
        return new WorkItem;
      }
    }
    return current_.pop();
  }

  void recycle(WorkItem* item) {
    if (current_.count == kMagazineSize) {
      if (spare_.count > 0) Depot::shared().give(spare_);
      spare_ = current_;
      current_ = Magazine{};
    }
    current_.push(item);
  }

  // False once this thread's cache is gone (late frees during thread exit).
  static thread_local bool alive;

 private:
  Magazine current_;
  Magazine spare_;
};

thread_local bool ThreadCache::alive = true;

ThreadCache& threadCache() {
  thread_local ThreadCache cache;
  return cache;
}

}  // namespace

WorkItem* WorkItem::allocate() {
  if (!kRecycle || !ThreadCache::alive) return new WorkItem;
  return threadCache().allocate();
}

void WorkItem::recycle(WorkItem* item) noexcept {
  if (!kRecycle || !ThreadCache::alive) {
    delete item;
    return;
  }
  item->kind = ItemKind::Block;
  item->context = nullptr;
  threadCache().recycle(item);
}

}  // namespace fennick::dispatch::internal
