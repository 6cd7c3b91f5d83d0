#pragma once
// The space a folder's tree takes on disk, summed as fast as `du` walks it.
//
// The walk reads each folder with getdents64 and each entry's status with
// fstatat relative to the folder's descriptor: no path is built for an entry,
// and nothing is allocated per entry (each walking thread keeps one read
// buffer per folder depth). Subtrees are handed to the dispatch pool while
// threads are free, so large trees are walked on every core; the sum does not
// depend on how the work was shared.
//
// What counts: the allocated size (blocks × 512) of every entry that is not a
// folder, symbolic links included; folders add nothing, and the walked folder
// itself is not counted. Symbolic links are not followed (the starting path
// is, so a link to a folder is measured as that folder). Entries and folders
// that cannot be read are skipped.
#include <atomic>
#include <cstdint>
#include <string>

namespace fennick::platform {

class DirectorySizeWalker {
 public:
  explicit DirectorySizeWalker(std::string path) : path_(std::move(path)) {}
  DirectorySizeWalker(const DirectorySizeWalker&) = delete;
  DirectorySizeWalker& operator=(const DirectorySizeWalker&) = delete;

  /// Walks the tree and returns the bytes it occupies; 0 when the path is not
  /// a folder that can be read. Blocks until done: do not call it on an
  /// interface thread. Call it once per walker.
  std::int64_t run();

  /// Entries seen so far; readable from any thread while run() works.
  std::uint64_t itemsVisited() const noexcept { return items_.load(std::memory_order_relaxed); }

 private:
  class Walk;
  friend class Walk;

  const std::string path_;
  std::atomic<std::uint64_t> items_{0};
};

}  // namespace fennick::platform
