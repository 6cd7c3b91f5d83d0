#pragma once
// The space a folder's tree takes on disk, summed as fast as `du` walks it.
//
// The walk reads each folder with getdents64 and each entry's status with
// fstatat relative to the folder's descriptor: no path is built for an entry.
// Subtrees are handed to the dispatch pool while threads are free, so large
// trees are walked on every core; the sum does not depend on how the work was
// shared. Depth costs neither descriptors nor buffers: each walking thread
// keeps a few folders of its path open and reopens the others on its way
// back (see fennick/Platform/Internal/FolderBranch.h), and the descriptors a
// walk holds at once stay within a quarter of the process's limit
// (RLIMIT_NOFILE), at most 256. Trees whose paths exceed PATH_MAX are walked
// like any other.
//
// What counts: the allocated size (blocks × 512) of every entry that is not a
// folder, symbolic links, FIFOs, sockets and devices included (measured by
// their status, never opened); folders add nothing, and the walked folder
// itself is not counted. Symbolic links are not followed (the starting path
// is, so a link to a folder is measured as that folder). Entries that vanish
// during the walk were not part of the tree.
//
// What cannot be read is never left out silently: a folder that cannot be
// opened or listed, an entry whose status cannot be read, or descriptors that
// ran out make the answer -1 (kDirectorySizeUnknown) with an error, never a
// total that only looks complete.
#include "fennick/Runtime/ObjectModel/Ref.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace fennick {
class Error;
}

namespace fennick::platform {

/// The answer of a walk that could not read the whole tree.
inline constexpr std::int64_t kDirectorySizeUnknown = -1;

class DirectorySizeWalker {
 public:
  explicit DirectorySizeWalker(std::string path) : path_(std::move(path)) {}
  DirectorySizeWalker(const DirectorySizeWalker&) = delete;
  DirectorySizeWalker& operator=(const DirectorySizeWalker&) = delete;

  /// Walks the tree and returns the bytes it occupies; 0 when the path names
  /// something that is not a folder. kDirectorySizeUnknown when the folder,
  /// or anything in its tree, could not be read, with `error` (if given) set
  /// to an NSCocoaErrorDomain record: 257 when permission was refused, 4
  /// when nothing is at the path, 256 otherwise, the first failure's POSIX
  /// error beneath. The record names neither the path nor the entries.
  /// Blocks until done: do not call it on an interface thread. Call it once
  /// per walker.
  std::int64_t run(Ref<Error>* error = nullptr);

  /// Entries seen so far; readable from any thread while run() works.
  std::uint64_t itemsVisited() const noexcept { return items_.load(std::memory_order_relaxed); }
  /// Entries and folders that could not be read; final once run() returned.
  std::uint64_t unreadableItems() const noexcept { return unreadable_.load(std::memory_order_relaxed); }

 private:
  class Walk;
  friend class Walk;

  void noteUnreadable(std::uint64_t count, int error);
  Ref<Error> incompleteError(bool folderItself) const;

  const std::string path_;
  std::atomic<std::uint64_t> items_{0};
  std::atomic<std::uint64_t> unreadable_{0};
  std::atomic<int> firstError_{0};
};

}  // namespace fennick::platform
