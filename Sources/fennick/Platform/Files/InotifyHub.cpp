#include "fennick/Platform/Files/Internal/InotifyHub.h"

#include "fennick/Platform/Files/Internal/FileIdentityTable.h"
#include "fennick/Platform/Files/Internal/LinuxFileIdentity.h"
#include "fennick/Platform/Files/Internal/MountTable.h"
#include "fennick/Platform/Files/VnodeEventSource.h"
#include "fennick/Runtime/ObjectModel/Log.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace fennick::platform {

namespace {

constexpr std::uint32_t kWatchedEvents =
    IN_MODIFY | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::size_t kBufferSize = 64 * 1024;

std::optional<ItemSnapshot> snapshotOf(const LinuxFileIdentity& identity) {
  std::optional<ItemSnapshot> snapshot;
  identity.withDescriptor([&](int descriptor) {
    struct stat status {};
    if (::fstat(descriptor, &status) == 0) snapshot = ItemSnapshot::of(status);
  });
  return snapshot;
}

std::string parentPathOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

struct InotifyHub::Registration {
  std::weak_ptr<dispatch::Source> sink;
  std::uintptr_t mask = 0;
  std::weak_ptr<Watch> watch;
};

struct InotifyHub::Watch {
  int descriptor = -1;  // the kernel's watch descriptor
  Ref<const LinuxFileIdentity> identity;
  std::vector<std::shared_ptr<Registration>> registrations;
  WatchRef parent;               // a watched folder's folder
  std::vector<Watch*> children;  // watched folders inside this one
  ItemSnapshot last;
  InotifyBurst burst;
  std::uintptr_t pending = 0;
  bool queued = false;  // in this round's list of watches to deliver
  bool inKernel = true;
  bool ignored = false;  // the kernel dropped the watch
  bool deleteReported = false;
  bool revokeReported = false;

  bool isHeld() const { return !registrations.empty() || !children.empty(); }
};

InotifyHub* InotifyHub::shared() {
  static InotifyHub* const hub = []() -> InotifyHub* {
    const int descriptor = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (descriptor < 0) {
      OVLog("Cannot watch files: no inotify instance is available ({}; see fs.inotify.max_user_instances).",
            std::strerror(errno));
      return nullptr;
    }
    auto* made = new InotifyHub(descriptor);
    MountTable::shared().addListener([made](const std::vector<std::uint64_t>& ids) { made->mountTableChanged(ids); });
    return made;
  }();
  return hub;
}

InotifyHub::InotifyHub(int descriptor)
    : descriptor_(descriptor),
      queue_(dispatch::Queue::createSerial("com.orvane.vnode-events", QOS_CLASS_UTILITY)),
      buffer_(kBufferSize) {
  source_ = dispatch::Source::createRead(descriptor_, queue_);
  source_->setEventHandler([this] { readEvents(); });
  source_->resume();
}

// -- Registrations ---------------------------------------------------------------------

std::shared_ptr<InotifyHub::Registration> InotifyHub::watch(Ref<const LinuxFileIdentity> identity,
                                                             const Ref<dispatch::Source>& sink,
                                                             std::uintptr_t mask) {
  std::lock_guard lock(mutex_);
  WatchRef watch = acquireLocked(std::move(identity));
  if (!watch) return nullptr;
  auto registration = std::make_shared<Registration>();
  registration->sink = sink;
  registration->mask = mask;
  registration->watch = watch;
  watch->registrations.push_back(registration);
  if (watch->identity->isDirectory() && !watch->parent) attachParentLocked(watch);
  return registration;
}

void InotifyHub::unwatch(const std::shared_ptr<Registration>& registration) {
  std::lock_guard lock(mutex_);
  WatchRef watch = registration->watch.lock();
  registration->watch.reset();
  if (!watch) return;
  std::erase(watch->registrations, registration);
  if (watch->registrations.empty()) detachParentLocked(watch);
  releaseIfUnusedLocked(watch);
}

std::size_t InotifyHub::watchCount() const { return watchCount_.load(std::memory_order_acquire); }

InotifyHub::WatchRef InotifyHub::acquireLocked(Ref<const LinuxFileIdentity> identity) {
  int descriptor = -1;
  int error = ENOENT;  // a revoked identity's file system is gone
  identity->withDescriptor([&](int item) {
    descriptor = ::inotify_add_watch(descriptor_, LinuxFileIdentity::procPath(item).c_str(), kWatchedEvents);
    error = descriptor < 0 ? errno : 0;
  });
  if (descriptor < 0) {
    // The item is not named: its path is the caller's, not the log's.
    if (error == ENOSPC)
      OVLog("Cannot watch a file: the inotify watch limit is reached (raise fs.inotify.max_user_watches).");
    return nullptr;
  }
  if (auto found = watches_.find(descriptor); found != watches_.end()) {
    const Watch& known = *found->second;
    if (known.identity->device() == identity->device() && known.identity->inode() == identity->inode())
      return found->second;
    // The kernel dropped the old watch and reused its number before we read
    // that it did.
    WatchRef stale = found->second;
    stale->inKernel = false;
    forgetLocked(stale);
  }
  auto watch = std::make_shared<Watch>();
  watch->descriptor = descriptor;
  watch->last = snapshotOf(*identity).value_or(ItemSnapshot{});
  watch->identity = std::move(identity);
  watches_.emplace(descriptor, watch);
  watchCount_.store(watches_.size(), std::memory_order_release);
  return watch;
}

void InotifyHub::releaseIfUnusedLocked(const WatchRef& watch) {
  if (watch->isHeld()) return;
  if (watch->inKernel) ::inotify_rm_watch(descriptor_, watch->descriptor);
  watch->inKernel = false;
  forgetLocked(watch);
}

void InotifyHub::attachParentLocked(const WatchRef& watch) {
  std::optional<std::string> path = watch->identity->currentPath();
  if (!path || *path == "/") return;
  Ref<LinuxFileIdentity> parentIdentity = FileIdentityTable::shared().identityOfItemAtPath(parentPathOf(*path));
  if (!parentIdentity) return;
  WatchRef parent = acquireLocked(std::move(parentIdentity));
  if (!parent || parent == watch) return;
  parent->children.push_back(watch.get());
  watch->parent = std::move(parent);
}

void InotifyHub::detachParentLocked(const WatchRef& watch) {
  WatchRef parent = std::move(watch->parent);
  watch->parent.reset();
  if (!parent) return;
  std::erase(parent->children, watch.get());
  releaseIfUnusedLocked(parent);
}

// Takes the watch out of the table; it lives on only as long as someone
// still points at it.
void InotifyHub::forgetLocked(const WatchRef& watch) {
  const WatchRef keep = watch;
  for (Watch* child : watch->children) child->parent.reset();
  watch->children.clear();
  detachParentLocked(watch);
  if (auto found = watches_.find(watch->descriptor); found != watches_.end() && found->second == watch) {
    watches_.erase(found);
    watchCount_.store(watches_.size(), std::memory_order_release);
  }
}

// -- Events ------------------------------------------------------------------------------

void InotifyHub::readEvents() {
  std::vector<WatchRef> touched;
  bool overflowed = false;
  std::lock_guard lock(mutex_);
  for (;;) {
    const ssize_t length = ::read(descriptor_, buffer_.data(), buffer_.size());
    if (length <= 0) break;
    collectLocked(buffer_.data(), static_cast<std::size_t>(length), touched, overflowed);
  }
  if (overflowed) {
    // Events were lost: tell each item what its status says changed.
    for (auto& [descriptor, watch] : watches_) {
      const std::optional<ItemSnapshot> now = snapshotOf(*watch->identity);
      watch->pending |= vnodeBitsFromStatusChange(watch->last, now);
      if (now) watch->last = *now;
      if (!watch->queued) {
        watch->queued = true;
        touched.push_back(watch);
      }
    }
  }
  for (std::size_t i = 0; i < touched.size(); ++i) {
    const WatchRef watch = touched[i];
    if (watch->burst.mask == 0) continue;
    const std::optional<ItemSnapshot> now = snapshotOf(*watch->identity);
    watch->pending |= vnodeBitsForBurst(watch->burst, watch->last, now);
    if (now) watch->last = *now;
    if (watch->burst.subdirectoryChanged) checkChildFoldersLocked(watch, touched);
    if ((watch->burst.mask & IN_MOVE_SELF) && watch->parent) {
      // A moved folder is held by its new parent from now on.
      detachParentLocked(watch);
      attachParentLocked(watch);
    }
  }
  deliverLocked(touched);
  for (const WatchRef& watch : touched) {
    if (!watch->ignored) continue;
    watch->inKernel = false;
    forgetLocked(watch);
  }
}

void InotifyHub::collectLocked(const char* buffer, std::size_t length, std::vector<WatchRef>& touched,
                               bool& overflowed) {
  for (std::size_t offset = 0; offset + sizeof(inotify_event) <= length;) {
    inotify_event event;
    std::memcpy(&event, buffer + offset, sizeof event);
    offset += sizeof event + event.len;
    if (event.mask & IN_Q_OVERFLOW) {
      overflowed = true;
      continue;
    }
    auto found = watches_.find(event.wd);
    if (found == watches_.end()) continue;
    const WatchRef& watch = found->second;
    if (!watch->queued) {
      watch->queued = true;
      touched.push_back(watch);
    }
    watch->burst.mask |= event.mask;
    if ((event.mask & IN_ISDIR) && (event.mask & (IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO)))
      watch->burst.subdirectoryChanged = true;
    if (event.mask & IN_IGNORED) watch->ignored = true;
  }
}

// A removed folder tells nothing itself while our descriptor holds it open;
// its parent sees an entry go, and the folder's link count is then zero.
void InotifyHub::checkChildFoldersLocked(const WatchRef& parent, std::vector<WatchRef>& touched) {
  for (Watch* child : parent->children) {
    if (child->deleteReported) continue;
    const std::optional<ItemSnapshot> now = snapshotOf(*child->identity);
    if (!now || now->linkCount != 0) continue;
    child->pending |= DISPATCH_VNODE_DELETE;
    child->last = *now;
    auto found = watches_.find(child->descriptor);
    if (!child->queued && found != watches_.end()) {
      child->queued = true;
      touched.push_back(found->second);
    }
  }
}

void InotifyHub::deliverLocked(const std::vector<WatchRef>& touched) {
  for (const WatchRef& watch : touched) {
    std::uintptr_t bits = watch->pending;
    watch->pending = 0;
    watch->burst = {};
    watch->queued = false;
    // An item is deleted or revoked once.
    if (watch->deleteReported) bits &= ~DISPATCH_VNODE_DELETE;
    if (watch->revokeReported) bits &= ~DISPATCH_VNODE_REVOKE;
    watch->deleteReported |= (bits & DISPATCH_VNODE_DELETE) != 0;
    watch->revokeReported |= (bits & DISPATCH_VNODE_REVOKE) != 0;
    if (!bits) continue;
    for (const auto& registration : watch->registrations)
      if (auto sink = registration->sink.lock()) sink->mergeData(bits & registration->mask);
  }
}

void InotifyHub::mountTableChanged(const std::vector<std::uint64_t>& mountIds) {
  // The descriptors on a vanished file system close before anyone hears of
  // it, so that a client reacting to REVOKE finds the file system free.
  FileIdentityTable::shared().revokeItemsOutside(mountIds);
  std::lock_guard lock(mutex_);
  std::vector<WatchRef> gone;
  for (const auto& [descriptor, watch] : watches_) {
    const std::uint64_t mount = watch->identity->mountId();
    if (mount != 0 && !std::binary_search(mountIds.begin(), mountIds.end(), mount)) gone.push_back(watch);
  }
  for (const WatchRef& watch : gone) {
    watch->pending |= DISPATCH_VNODE_REVOKE;
    watch->queued = true;
  }
  deliverLocked(gone);
  for (const WatchRef& watch : gone) {
    if (watch->inKernel) ::inotify_rm_watch(descriptor_, watch->descriptor);
    watch->inKernel = false;
    forgetLocked(watch);
  }
}

}  // namespace fennick::platform
