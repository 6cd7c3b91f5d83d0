#include "fennick/Platform/Files/Internal/VnodeEventMapping.h"

#include "fennick/Platform/Files/VnodeEventSource.h"

#include <sys/inotify.h>

namespace fennick::platform {

namespace {

bool operator==(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

constexpr std::uint32_t kEntryEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

// Metadata changes that are not the link count's. Reads move the access
// time without an event, and writes the modification time with one of their
// own, so neither alone says that attributes were set.
bool attributesDiffer(const ItemSnapshot& a, const ItemSnapshot& b, bool compareModified) {
  return a.mode != b.mode || a.owner != b.owner || a.group != b.group ||
         (compareModified && !(a.modified == b.modified));
}

std::uintptr_t linkCountBits(const ItemSnapshot& before, const ItemSnapshot& now) {
  if (now.linkCount == before.linkCount) return 0;
  return now.linkCount == 0 ? DISPATCH_VNODE_DELETE : DISPATCH_VNODE_LINK;
}

}  // namespace

ItemSnapshot ItemSnapshot::of(const struct stat& status) {
  ItemSnapshot snapshot;
  snapshot.linkCount = status.st_nlink;
  snapshot.size = status.st_size;
  snapshot.mode = status.st_mode;
  snapshot.owner = status.st_uid;
  snapshot.group = status.st_gid;
  snapshot.modified = status.st_mtim;
  snapshot.changed = status.st_ctim;
  return snapshot;
}

std::uintptr_t vnodeBitsForBurst(const InotifyBurst& burst, const ItemSnapshot& before,
                                 const std::optional<ItemSnapshot>& now) {
  std::uintptr_t bits = 0;
  if (burst.mask & (IN_MODIFY | kEntryEvents)) bits |= DISPATCH_VNODE_WRITE;
  if (burst.subdirectoryChanged) bits |= DISPATCH_VNODE_LINK;
  if (now && (bits & DISPATCH_VNODE_WRITE) && now->size > before.size) bits |= DISPATCH_VNODE_EXTEND;
  if ((burst.mask & IN_ATTRIB) && now) {
    const std::uintptr_t links = linkCountBits(before, *now);
    bits |= links;
    // inotify reports a link-count change as a metadata change; only what
    // else changed, or a change that shows in no field (extended
    // attributes), is an attribute change.
    if (!links || attributesDiffer(before, *now, !(burst.mask & IN_MODIFY))) bits |= DISPATCH_VNODE_ATTRIB;
  }
  if (burst.mask & IN_MOVE_SELF) bits |= DISPATCH_VNODE_RENAME;
  if (burst.mask & IN_DELETE_SELF) bits |= DISPATCH_VNODE_DELETE;
  if (burst.mask & IN_UNMOUNT) bits |= DISPATCH_VNODE_REVOKE;
  return bits;
}

std::uintptr_t vnodeBitsFromStatusChange(const ItemSnapshot& before, const std::optional<ItemSnapshot>& now) {
  if (!now) return 0;
  std::uintptr_t bits = linkCountBits(before, *now);
  if (now->size != before.size || !(now->modified == before.modified)) bits |= DISPATCH_VNODE_WRITE;
  if (now->size > before.size) bits |= DISPATCH_VNODE_EXTEND;
  if (attributesDiffer(before, *now, false)) bits |= DISPATCH_VNODE_ATTRIB;
  if (!bits && !(now->changed == before.changed)) bits |= DISPATCH_VNODE_ATTRIB;
  return bits;
}

}  // namespace fennick::platform
