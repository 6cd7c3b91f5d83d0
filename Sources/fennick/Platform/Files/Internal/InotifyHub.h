#pragma once
// The process's one inotify descriptor, read on the dispatch reactor, and the
// table from watch descriptor to the sinks (data-or sources) of that item.
//
// The kernel hands out one watch descriptor per inode: watching an item twice
// returns the same one, and removing it removes it for both, so each watch
// counts what holds it and is removed when the last holder goes. A folder
// that a sink watches also holds the watch of the folder above it: removing a
// folder sends nothing to the folder itself while a descriptor of ours keeps
// it open, only to its parent, where the removal is noticed by the link count
// of the watched folders below. Thread-safe. Internal to the platform layer.
#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/Source.h"
#include "fennick/Platform/Files/Internal/VnodeEventMapping.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace fennick::platform {

class LinuxFileIdentity;

class InotifyHub {
 public:
  struct Registration;

  /// The process's hub, made on first use; nil when inotify cannot be set up.
  static InotifyHub* shared();

  /// Delivers the bits of `identity`'s events, limited to `mask`, to `sink`
  /// from now on. Nil when the kernel refuses the watch.
  std::shared_ptr<Registration> watch(Ref<const LinuxFileIdentity> identity, const Ref<dispatch::Source>& sink,
                                      std::uintptr_t mask);
  /// Ends a registration; the last one of an item removes its kernel watch.
  void unwatch(const std::shared_ptr<Registration>& registration);

  /// Kernel watches held now.
  std::size_t watchCount() const;

 private:
  struct Watch;
  using WatchRef = std::shared_ptr<Watch>;

  explicit InotifyHub(int descriptor);
  WatchRef acquireLocked(Ref<const LinuxFileIdentity> identity);
  void releaseIfUnusedLocked(const WatchRef& watch);
  void attachParentLocked(const WatchRef& watch);
  void detachParentLocked(const WatchRef& watch);
  void forgetLocked(const WatchRef& watch);

  void readEvents();
  void collectLocked(const char* buffer, std::size_t length, std::vector<WatchRef>& touched, bool& overflowed);
  void checkChildFoldersLocked(const WatchRef& parent, std::vector<WatchRef>& touched);
  void deliverLocked(const std::vector<WatchRef>& touched);
  void mountTableChanged(const std::vector<std::uint64_t>& mountIds);

  const int descriptor_;
  const Ref<dispatch::Queue> queue_;
  Ref<dispatch::Source> source_;
  std::vector<char> buffer_;  // used on queue_ only

  mutable std::mutex mutex_;  // guards everything below and every Watch
  std::unordered_map<int, WatchRef> watches_;
  // watches_.size(), written under the lock; read without it, so that asking
  // how many watches are held never holds up their setting up or tearing down.
  std::atomic<std::size_t> watchCount_{0};
};

}  // namespace fennick::platform
