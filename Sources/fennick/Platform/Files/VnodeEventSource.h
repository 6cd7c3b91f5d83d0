#pragma once
// Vnode event sources on Linux: a dispatch source that reports what happens
// to one file or folder as the seven vnode event bits, following the item by
// identity across renames.
//
// All sources share one inotify descriptor of the process, read on the
// dispatch reactor (the kernel limits inotify instances per user, so there is
// never one per source); sources of one item share one kernel watch. The
// item is held by its file identity, an O_PATH descriptor shared with the
// item's file reference URLs. Events that arrive before a handler run are
// coalesced into one bit set: the source's data().
//
// How inotify maps onto the bits:
//   DELETE     the item's last link went (seen through the link count, so the
//              source's own descriptor does not delay it; a folder's removal
//              is seen from the folder that held it)
//   WRITE      data written; on a folder, entries added, removed or renamed
//   EXTEND     with WRITE, when the size grew
//   ATTRIB     metadata set (mode, owner, times, extended attributes)
//   LINK       a file's hard links, a folder's subfolders, changed in number
//   RENAME     the item itself moved, within or across folders
//   REVOKE     the item's file system left the mount table (a lazy unmount)
//              or was unmounted
// The shared descriptors keep a file system busy: a plain unmount fails while
// an item on it is watched or referenced. A lazy unmount detaches it; the
// sources of its items report REVOKE and every descriptor on it is closed, so
// that the file system can really go.
#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/Source.h"
#include "fennick/Runtime/URLs/URL.h"

#include <cstdint>
#include <functional>

namespace fennick {

/// Vnode event bits (the platform's values).
inline constexpr std::uintptr_t DISPATCH_VNODE_DELETE = 0x01;
inline constexpr std::uintptr_t DISPATCH_VNODE_WRITE = 0x02;
inline constexpr std::uintptr_t DISPATCH_VNODE_EXTEND = 0x04;
inline constexpr std::uintptr_t DISPATCH_VNODE_ATTRIB = 0x08;
inline constexpr std::uintptr_t DISPATCH_VNODE_LINK = 0x10;
inline constexpr std::uintptr_t DISPATCH_VNODE_RENAME = 0x20;
inline constexpr std::uintptr_t DISPATCH_VNODE_REVOKE = 0x40;
/// Not reported on Linux.
inline constexpr std::uintptr_t DISPATCH_VNODE_FUNLOCK = 0x100;

namespace platform {

/// A suspended data-or source on `queue` (nullptr: the default global queue)
/// whose data are the vnode bits, limited to `mask`, of the item `url` names:
/// the item a file reference URL holds, or the item at a file URL's path
/// (symbolic links followed). Set its event handler and resume it. The watch
/// ends when the source is cancelled, or dropped: its cancel handler, set
/// here, releases the item and then calls `cancelHandler` (do not replace
/// it). Nil when the item cannot be watched: not a file URL, nothing there,
/// its file system gone, or the inotify watch limit reached (which logs one
/// line naming fs.inotify.max_user_watches). Thread-safe.
Ref<dispatch::Source> makeVnodeEventSource(const URL& url, std::uintptr_t mask, Ref<dispatch::Queue> queue,
                                           std::function<void()> cancelHandler);

/// Number of kernel watches the process's sources hold (for diagnostics).
std::size_t vnodeWatchCount();

}  // namespace platform
}  // namespace fennick
