#pragma once
// Watching one file or folder for kernel-level changes.
//
// An OVFileMonitor follows its item by identity: it holds the item's file
// reference URL, which stays the same when the item is renamed or moved, and
// keeps the item's current path URL beside it, updated on every rename.
// Observers implement OVFileObserver; every method has an empty default, so an
// observer overrides only what it wants to hear.
//
// On Linux the events come from a vnode event source over the process's one
// inotify descriptor (see fennick/Platform/VnodeEventSource.h for how inotify
// maps onto the seven bits and what keeps a file system busy).
//
// Thread-safety: the monitor's state lives on its private serial queue, which
// targets a shared concurrent queue. addObserver and removeObserver may be
// called from any thread and return at once; hasObservers and filePathURL wait
// for the queue and must not be called from it. Observers are called on the
// global utility queue, one asynchronous call per observer and event, so calls
// may run in parallel and out of order: observers must be thread-safe.
#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/Source.h"
#include "fennick/Platform/Files/VnodeEventSource.h"
#include "fennick/Runtime/ObjectModel/Object.h"
#include "fennick/Runtime/URLs/URL.h"

#include <cstdint>
#include <functional>
#include <unordered_set>

namespace fennick {

/// The seven vnode bits that monitors watch (DISPATCH_VNODE_DELETE to _REVOKE).
inline constexpr std::uintptr_t OVFileMonitorEventMask = 0x7F;

/// What a file monitor tells its observers. `url` is the item's file reference
/// URL unless stated otherwise.
class OVFileObserver {
 public:
  virtual ~OVFileObserver() = default;

  /// Every event, with all its bits.
  virtual void didChangeWithFlags_forURL(std::uintptr_t /*flags*/, const Ref<URL>& /*url*/) {}
  /// The watch ended; nothing more will come. Receives the item's path URL,
  /// not its reference URL.
  virtual void didInvalidateObservationOfFileAtURL(const Ref<URL>& /*filePathURL*/) {}
  /// The item's last link went; `oldFilePathURL` is where it was.
  virtual void didDeleteFileAtURL_oldFilePathURL(const Ref<URL>& /*url*/, const Ref<URL>& /*oldFilePathURL*/) {}
  virtual void didWriteToFileAtURL(const Ref<URL>& /*url*/) {}
  virtual void didExtendFileAtURL(const Ref<URL>& /*url*/) {}
  virtual void didChangeAttributesOfFileAtURL(const Ref<URL>& /*url*/) {}
  virtual void didChangeLinkCountOfFileAtURL(const Ref<URL>& /*url*/) {}
  virtual void didMoveFileAtURL_fromFilePathURL_toFilePathURL(const Ref<URL>& /*url*/, const Ref<URL>& /*from*/,
                                                              const Ref<URL>& /*to*/) {}
  /// The item's file system went away.
  virtual void didRevokeFileAtURL(const Ref<URL>& /*url*/) {}
};

/// A suspended vnode event source on `url`'s item (a file reference URL in a
/// monitor's use) delivering on `queue`: `eventHandler` receives the coalesced
/// bits of each run, `cancelHandler` runs after the item's hold is released.
/// Nil when the URL is not a file URL or the item cannot be watched
/// (gone, or the inotify watch limit reached). The caller resumes the source.
Ref<dispatch::Source> makeWatcher(const Ref<URL>& url, Ref<dispatch::Queue> queue,
                                  std::function<void(std::uintptr_t)> eventHandler,
                                  std::function<void()> cancelHandler);

/// Turns one set of event bits into calls on `observer`, in a fixed order:
/// didChangeWithFlags_forURL, then delete, write, extend, attributes, link
/// count, move (whose new path is asked of `url` now) and revoke, each for its
/// bit.
void notifyObserverOfChanges(OVFileObserver& observer, std::uintptr_t flags, const Ref<URL>& url,
                             const Ref<URL>& oldFilePathURL);

class OVFileMonitor : public Object {
  FENNICK_DECLARE_CLASS(OVFileMonitor, Object)

 public:
  /// The concurrent utility queue "OVFileMonitor shared queue", made once,
  /// that the internal queues of monitors made with initWithURL target.
  static const Ref<dispatch::Queue>& defaultTargetQueue();

  /// A monitor of the item `url` names, or nil when there is none or it
  /// cannot be watched. The watch starts at once.
  static Ref<OVFileMonitor> initWithURL(const Ref<URL>& url);
  /// The same, with the internal queue targeting `targetQueue`.
  static Ref<OVFileMonitor> initWithURL_targetQueue(const Ref<URL>& url, Ref<dispatch::Queue> targetQueue);
  /// Cancels the watch if it still runs (observers hear no invalidation).
  ~OVFileMonitor() override;

  /// Queued; returns at once. The monitor keeps its observers alive.
  void addObserver(Ref<OVFileObserver> observer);
  /// Queued; returns at once.
  void removeObserver(Ref<OVFileObserver> observer);
  /// Whether any observer is registered, once the adds and removes queued
  /// before this call took effect. Not from the internal queue.
  bool hasObservers() const;

  /// The item's current path URL. Not from the internal queue.
  Ref<URL> filePathURL() const;
  /// The item's file reference URL, handed to observers.
  const Ref<URL>& fileReferenceURL() const { return fileReferenceURL_; }
  /// The event source; nil once the item was deleted or revoked. Not from the
  /// internal queue.
  Ref<dispatch::Source> watcher() const;
  const Ref<dispatch::Queue>& internalQueue() const { return internalQueue_; }

  /// The watcher's event entry; runs on the internal queue.
  void handleEventWithFlags(std::uintptr_t flags);
  /// The watcher's cancellation entry; runs on the internal queue.
  void didCloseHandler();

 protected:
  explicit OVFileMonitor(Ref<dispatch::Queue> internalQueue) : internalQueue_(std::move(internalQueue)) {}

 private:
  Ref<dispatch::Source> watcher_;
  Ref<URL> fileReferenceURL_;
  Ref<URL> filePathURL_;
  std::unordered_set<Ref<OVFileObserver>> observers_;
  const Ref<dispatch::Queue> internalQueue_;
};

}  // namespace fennick
