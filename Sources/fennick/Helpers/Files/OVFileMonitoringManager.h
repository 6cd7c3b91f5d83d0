#pragma once
// The process-wide entry point for watching files.
//
// Clients register observers for an item; the manager shares one
// OVFileMonitor per watched item among all of them and relays the monitor's
// events. A recursive registration also watches every folder above the item
// (up to, not including, "/"), so that its observers learn when a folder
// above is deleted, moved or revoked; the items below a watched folder are
// not watched. Every key is a file reference URL, so registrations follow
// their items across renames.
//
// Thread-safety: all methods may be called from any thread. Registrations are
// queued on the manager's private queue and take effect a little after the
// call returns; events from before that are not delivered. Observers are
// called on the manager's queue, one at a time, in the order events reach it:
// a slow observer delays the others, and an observer must not wait for work
// that needs the manager's queue.
//
// What is held lets go with the registrations: a monitor, with its watch and
// the descriptor that keeps its item's file system busy, lives while its item
// has an observer or a recursive registration below it still hears about it,
// so a program that removed all its observers holds no watch and can unmount
// the file systems it observed. Monitors do not keep their manager alive: a
// manager of one's own stops watching once its last owner releases it.
//
// Kept as they are on purpose: a monitor's invalidation carries the item's
// path URL, which keys nothing here, so observers of the manager never hear
// one; and removing a recursive registration takes its item off a folder's
// list even when another recursive registration of it remains.
#include "fennick/Helpers/Files/URLKey.h"
#include "fennick/Helpers/Files/OVFileMonitor.h"
#include "fennick/Runtime/Collections/Dictionary.h"

#include <functional>
#include <unordered_map>
#include <unordered_set>

namespace fennick {

/// A callback as an observer: it hears every event on the item whose bits
/// share at least one bit with its filter, and receives all the event's bits.
/// It hears nothing else (folder events of recursive registrations come
/// through delete, move and revoke, which it does not take).
class OVBlockBasedFileObserver : public Object, public OVFileObserver {
  FENNICK_DECLARE_CLASS(OVBlockBasedFileObserver, Object)

 public:
  using Block = std::function<void(std::uintptr_t flags)>;

  static Ref<OVBlockBasedFileObserver> initWithURL_isRecursive_flags_block(Ref<URL> url, bool isRecursive,
                                                                          std::uintptr_t flags, Block block);

  const Ref<URL>& url() const { return url_; }
  bool isRecursive() const { return isRecursive_; }
  std::uintptr_t flags() const { return flags_; }
  const Block& block() const { return block_; }

  void didChangeWithFlags_forURL(std::uintptr_t flags, const Ref<URL>& url) override;

 protected:
  OVBlockBasedFileObserver(Ref<URL> url, bool isRecursive, std::uintptr_t flags, Block block)
      : url_(std::move(url)), isRecursive_(isRecursive), flags_(flags), block_(std::move(block)) {}

 private:
  const Ref<URL> url_;
  const bool isRecursive_;
  const std::uintptr_t flags_;
  const Block block_;
};

class OVFileMonitoringManager : public Object, public OVFileObserver {
  FENNICK_DECLARE_CLASS(OVFileMonitoringManager, Object)

 public:
  /// The shared manager, made on first use and never destroyed.
  static const Ref<OVFileMonitoringManager>& defaultMonitor();
  /// An independent manager. Releasing it ends its watches; its observers
  /// hear nothing more.
  static Ref<OVFileMonitoringManager> init();

  /// Registers `observer` (kept alive until removed) for the item `url` names
  /// now. An item that cannot be watched is not registered. Queued.
  void addObserver_url_isRecursive(Ref<OVFileObserver> observer, Ref<URL> url, bool isRecursive);
  /// Ends the registration made with the same three arguments. Queued.
  void removeObserver_url_isRecursive(Ref<OVFileObserver> observer, Ref<URL> url, bool isRecursive);
  /// A block observer of all seven bits; the result is the token for removeObserver.
  Ref<OVBlockBasedFileObserver> addObserverOfURL_isRecursive_withBlock(Ref<URL> url, bool isRecursive,
                                                                       OVBlockBasedFileObserver::Block block);
  /// A block observer of the bits in `flags`; the result is the token for removeObserver.
  Ref<OVBlockBasedFileObserver> addObserverOfURL_isRecursive_flags_withBlock(Ref<URL> url, bool isRecursive,
                                                                             std::uintptr_t flags,
                                                                             OVBlockBasedFileObserver::Block block);
  /// Ends a block observer's registration; nil does nothing.
  void removeObserver(const Ref<OVBlockBasedFileObserver>& observer);

  /// Internal, on the internal queue only.
  void _addObserver_monitoredURL_observedURL_isRecursive(const Ref<OVFileObserver>& observer,
                                                         const Ref<URL>& monitoredURL, const Ref<URL>& observedURL,
                                                         bool isRecursive);
  void _removeObserver_monitoredURL_observedURL_isRecursive(const Ref<OVFileObserver>& observer,
                                                            const Ref<URL>& monitoredURL,
                                                            const Ref<URL>& observedURL, bool isRecursive);
  void forEachOfFileObserversForMonitoredURL_isRelatedURLsAllowed_performBlock(
      const Ref<URL>& monitoredURL, bool isRelatedURLsAllowed,
      const std::function<void(const Ref<OVFileObserver>&, const Ref<URL>&)>& block);

  // Events from the monitors, relayed to the registered observers.
  void didChangeWithFlags_forURL(std::uintptr_t flags, const Ref<URL>& url) override;
  void didInvalidateObservationOfFileAtURL(const Ref<URL>& url) override;
  void didDeleteFileAtURL_oldFilePathURL(const Ref<URL>& url, const Ref<URL>& oldFilePathURL) override;
  void didWriteToFileAtURL(const Ref<URL>& url) override;
  void didExtendFileAtURL(const Ref<URL>& url) override;
  void didChangeAttributesOfFileAtURL(const Ref<URL>& url) override;
  void didChangeLinkCountOfFileAtURL(const Ref<URL>& url) override;
  void didMoveFileAtURL_fromFilePathURL_toFilePathURL(const Ref<URL>& url, const Ref<URL>& from,
                                                      const Ref<URL>& to) override;
  void didRevokeFileAtURL(const Ref<URL>& url) override;

  const Ref<dispatch::Queue>& internalQueue() const { return internalQueue_; }
  /// Counts for diagnostics and tests; wait for the internal queue, so not from it.
  std::size_t monitorCount() const;
  std::size_t observerCountForURL(const Ref<URL>& url) const;

 protected:
  OVFileMonitoringManager();

 private:
  using ObserverSet = std::unordered_set<Ref<OVFileObserver>>;
  using URLSet = std::unordered_set<Ref<URL>, URLKeyHash, URLKeyEqual>;

  Ref<OVFileMonitoringManager> strongSelf();
  /// Ends the watch of `monitoredURL` when no registration uses it any more.
  void releaseMonitorIfUnused(const Ref<URL>& monitoredURL);
  /// Takes `observedURL` off the lists of every folder above it, wherever it
  /// moved since, and lets go of the folders that no registration uses now.
  void forgetObservedURLInFolders(const Ref<URL>& observedURL);
  /// Runs `relay` on the internal queue for every observer the fan-out reaches.
  void relay(const Ref<URL>& url, bool related,
             std::function<void(OVFileObserver& observer, const Ref<URL>& observedURL)> call);

  // The manager's stand-in among each monitor's observers: it holds the
  // manager weakly, so that monitors do not keep their manager alive.
  Ref<OVFileObserver> monitorObserver_;
  const Ref<Dictionary> fileMonitorsByMonitoredURL_;
  std::unordered_map<Ref<URL>, ObserverSet, URLKeyHash, URLKeyEqual> fileObserversByObservedURL_;
  std::unordered_map<Ref<URL>, URLSet, URLKeyHash, URLKeyEqual> observedURLsByMonitoredURLs_;
  const Ref<dispatch::Queue> internalQueue_;
};

}  // namespace fennick
