#pragma once
// The mount table of the process's mount namespace (/proc/self/mountinfo):
// the mounts it holds now, and a signal when it changes. The kernel marks a
// change of the table by making the file poll with POLLPRI; the table waits
// for that on the dispatch reactor, through an epoll descriptor of its own
// (the reactor polls for input only). Thread-safe. Internal to the platform
// layer.
#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/Source.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace fennick::platform {

class MountTable {
 public:
  struct Mount {
    std::uint64_t id = 0;
    std::string mountPoint;  // decoded (the table writes spaces and such as octal escapes)
  };
  /// Receives the sorted IDs of the mounts after a change.
  using Listener = std::function<void(const std::vector<std::uint64_t>& mountIds)>;

  /// The one table of the process (never destroyed).
  static MountTable& shared();

  /// The mounts as the table lists them now; nothing when the table cannot
  /// be read in full (no descriptor left, a read error), which is not the
  /// same as a table without mounts.
  static std::optional<std::vector<Mount>> readMounts();
  /// The mount point of the mount with ID `id`, if it is in the table now.
  static std::optional<std::string> mountPointOfMount(std::uint64_t id);

  /// Calls `listener` (a copy is kept) on the table's serial queue after each
  /// change of the table, with the IDs of the mounts then. The table is
  /// watched from the first listener on, for the life of the process.
  void addListener(Listener listener);

 private:
  MountTable() = default;
  void startWatching();
  void tableChanged();

  std::mutex mutex_;
  std::vector<Listener> listeners_;
  Ref<dispatch::Queue> queue_;
  Ref<dispatch::Source> source_;
  int epoll_ = -1;
  int table_ = -1;
};

}  // namespace fennick::platform
