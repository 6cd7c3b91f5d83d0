#pragma once
// One thread's depth-first walk of a folder's tree for DirectorySizeWalker,
// holding a bounded number of descriptors and one read buffer whatever the
// depth.
//
// Each folder is read whole before the walk goes down: the sizes of its
// entries are summed at once and the names of its subfolders kept, so a
// folder needs no descriptor while its subfolders are walked. The walk keeps
// the folder it started from and the lowest few folders of its path open;
// the ones in between are closed on the way down and reopened on the way up
// through "..", checked against the identity they had, or, where ".." cannot
// be searched, down again by name from the starting folder. Every open is
// relative to an open folder, so paths longer than PATH_MAX are no obstacle.
//
// Nothing is left out silently: what cannot be read is counted as unreadable
// with its error. An entry that vanishes while the walk runs was not in the
// tree and is no error. Internal to the platform layer.
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace fennick::platform {

/// Where a branch sends what it found. Called from many threads at once.
class FolderWalkSink {
 public:
  virtual ~FolderWalkSink() = default;
  /// Takes over the open subfolder `folder`, to be walked by another
  /// thread; false leaves it to the caller.
  virtual bool share(int folder) = 0;
  /// Bytes of the entries of one folder, and how many entries it had.
  virtual void add(std::int64_t bytes, std::uint64_t items) = 0;
  /// `count` items could not be read; `error` is the errno of the failure.
  virtual void unreadable(std::uint64_t count, int error) = 0;
};

class FolderBranch {
 public:
  /// At most `window` (3 or more) descriptors open at once.
  FolderBranch(FolderWalkSink& sink, std::size_t window);
  FolderBranch(const FolderBranch&) = delete;
  FolderBranch& operator=(const FolderBranch&) = delete;

  /// Walks the tree of the open folder `root`, and closes it.
  void walk(int root);

 private:
  // A folder on the current path. Its subfolders' names lie in names_ at
  // [nextName, namesEnd); its own name in its parent's part, at nameAt.
  struct Frame {
    int descriptor = -1;  // -1 while closed to spare descriptors
    std::size_t namesBegin = 0;
    std::size_t nextName = 0;
    std::size_t namesEnd = 0;
    std::size_t nameAt = 0;
    dev_t device = 0;  // recorded when closed, to recognise it when reopened
    ino_t inode = 0;
  };

  void descend(int folder, std::size_t nameAt);
  void ascend();
  void readFolder(Frame& frame);
  int openSubfolder(const char* name);
  bool closeOneAbove();
  int reopen(std::size_t index, int child);
  int reopenFromStart(std::size_t index);
  std::size_t openCount() const;

  FolderWalkSink& sink_;
  const std::size_t window_;
  std::unique_ptr<char[]> buffer_;
  std::vector<Frame> frames_;
  std::string names_;  // NUL-terminated names of subfolders still to walk
  // frames_[0] is always open, frames_[1, lowestOpen_) closed, the rest open.
  std::size_t lowestOpen_ = 1;
};

}  // namespace fennick::platform
