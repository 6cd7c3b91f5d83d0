#pragma once
// How inotify's events on one item become the seven vnode event bits. inotify
// tells what happened in coarse classes (metadata changed, data modified, an
// entry of a folder created ...); comparing the item's status before and after
// tells the bits apart: a link count that dropped to zero is a delete, one that
// changed otherwise is a link-count change, a size that grew is an extend.
// Pure functions. Internal to the platform layer.
#include <sys/stat.h>

#include <cstdint>
#include <optional>

namespace fennick::platform {

/// What of an item's status the mapping compares.
struct ItemSnapshot {
  std::uint64_t linkCount = 0;
  std::int64_t size = 0;
  std::uint32_t mode = 0;
  std::uint32_t owner = 0;
  std::uint32_t group = 0;
  struct timespec modified {};
  struct timespec changed {};

  static ItemSnapshot of(const struct stat& status);
};

/// The inotify events of one item collected over one read of the queue.
struct InotifyBurst {
  std::uint32_t mask = 0;             // union of the events' masks
  bool subdirectoryChanged = false;   // a folder was created, removed or moved in or out of it
};

/// The vnode bits for a burst on an item whose status was `before` and is
/// `now` (nil when it can no longer be read).
std::uintptr_t vnodeBitsForBurst(const InotifyBurst& burst, const ItemSnapshot& before,
                                 const std::optional<ItemSnapshot>& now);

/// The vnode bits that explain a change from `before` to `now` when the
/// kernel's queue overflowed and the events themselves were lost.
std::uintptr_t vnodeBitsFromStatusChange(const ItemSnapshot& before, const std::optional<ItemSnapshot>& now);

}  // namespace fennick::platform
