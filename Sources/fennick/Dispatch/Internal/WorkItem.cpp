#include "fennick/Dispatch/Internal/WorkItem.h"

#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>
#include <vector>

namespace fennick::dispatch::detail {
namespace {

#if defined(__SANITIZE_ADDRESS__)
// Pooling would hide use-after-free of items from AddressSanitizer.
constexpr bool kPooled = false;
#else
constexpr bool kPooled = true;
#endif

// Items are carved in order out of aligned slabs by the thread that submits
// work, and a slab is reused only once every item of it has been recycled.
// A producer therefore writes, and the worker draining its queue reads,
// consecutive memory that the hardware prefetches, and a submission costs a
// pointer bump instead of a malloc. An item finds its slab by alignment.
constexpr std::size_t kSlabSize = 16 * 1024;
// Slabs kept for reuse (8 MiB at most). Freed slabs would stay in the
// allocator's arenas anyway, and keeping them here keeps the allocator's
// arena lock, which a worker could sleep on, out of the workers' path.
constexpr std::size_t kSpareSlabs = 512;

struct alignas(64) SlabHeader {
  std::atomic<std::uint32_t> recycled{0};
};

constexpr std::size_t kFirstItemOffset =
    (sizeof(SlabHeader) + alignof(WorkItem) - 1) / alignof(WorkItem) * alignof(WorkItem);
constexpr std::uint32_t kItemsPerSlab =
    static_cast<std::uint32_t>((kSlabSize - kFirstItemOffset) / sizeof(WorkItem));

SlabHeader* slabOf(WorkItem* item) {
  return reinterpret_cast<SlabHeader*>(reinterpret_cast<std::uintptr_t>(item) & ~(kSlabSize - 1));
}

WorkItem* itemAt(SlabHeader* slab, std::uint32_t index) {
  return reinterpret_cast<WorkItem*>(reinterpret_cast<unsigned char*>(slab) + kFirstItemOffset) +
         index;
}

class SpareSlabs {
 public:
  // Immortal: items may be recycled while the process exits.
  static SpareSlabs& shared() {
    static SpareSlabs* spares = new SpareSlabs;
    return *spares;
  }

  SpareSlabs() { slabs_.reserve(kSpareSlabs); }

  SlabHeader* take() {
    {
      std::lock_guard lock(mutex_);
      if (!slabs_.empty()) {
        SlabHeader* slab = slabs_.back();
        slabs_.pop_back();
        slab->recycled.store(0, std::memory_order_relaxed);
        return slab;
      }
    }
    void* memory = std::aligned_alloc(kSlabSize, kSlabSize);
    if (memory == nullptr) throw std::bad_alloc();
    return new (memory) SlabHeader;
  }

  void give(SlabHeader* slab) {
    {
      std::lock_guard lock(mutex_);
      if (slabs_.size() < kSpareSlabs) {
        slabs_.push_back(slab);
        return;
      }
    }
    slab->~SlabHeader();
    std::free(slab);
  }

 private:
  std::mutex mutex_;
  std::vector<SlabHeader*> slabs_;
};

void recycleInSlab(SlabHeader* slab, std::uint32_t count) {
  // Zero would let a slab whose items all came back be handed out twice.
  if (count == 0) return;
  const std::uint32_t total = slab->recycled.fetch_add(count, std::memory_order_acq_rel) + count;
  if (total == kItemsPerSlab) SpareSlabs::shared().give(slab);
}

// The slab the current thread is carving items from.
class SlabCursor {
 public:
  ~SlabCursor() {
    alive = false;
    // Items never handed out count as recycled, so the slab is freed in time.
    if (slab_ != nullptr) recycleInSlab(slab_, kItemsPerSlab - next_);
  }

  WorkItem* allocate() {
    if (slab_ == nullptr || next_ == kItemsPerSlab) {
      slab_ = SpareSlabs::shared().take();
      next_ = 0;
    }
    return new (itemAt(slab_, next_++)) WorkItem;
  }

  static thread_local bool alive;

 private:
  SlabHeader* slab_ = nullptr;
  std::uint32_t next_ = 0;
};

thread_local bool SlabCursor::alive = true;

}  // namespace

WorkItem* WorkItem::allocate() {
  if (!kPooled) return new WorkItem;
  if (!SlabCursor::alive) {
    // Submissions from thread-exit code: a slab of its own for this item.
    SlabHeader* slab = SpareSlabs::shared().take();
    recycleInSlab(slab, kItemsPerSlab - 1);
    return new (itemAt(slab, 0)) WorkItem;
  }
  thread_local SlabCursor cursor;
  return cursor.allocate();
}

void WorkItem::recycle(WorkItem* item) noexcept {
  if (!kPooled) {
    delete item;
    return;
  }
  item->~WorkItem();
  recycleInSlab(slabOf(item), 1);
}

void WorkItem::discard(WorkItem* item) noexcept {
  if (item->kind != ItemKind::Block) return;
  item->block.reset();
  item->origin.reset();
  recycle(item);
}

}  // namespace fennick::dispatch::detail
