#include "fennick/Helpers/Files/OVFileMonitoringManager.h"

#include "fennick/Dispatch/Once.h"
#include "fennick/Dispatch/OVDispatchQueue.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVBlockBasedFileObserver) {}
FENNICK_DEFINE_CLASS(OVFileMonitoringManager) {}

// -- Block observer -----------------------------------------------------------------

Ref<OVBlockBasedFileObserver> OVBlockBasedFileObserver::initWithURL_isRecursive_flags_block(Ref<URL> url,
                                                                                           bool isRecursive,
                                                                                           std::uintptr_t flags,
                                                                                           Block block) {
  return make<OVBlockBasedFileObserver>(std::move(url), isRecursive, flags, std::move(block));
}

void OVBlockBasedFileObserver::didChangeWithFlags_forURL(std::uintptr_t flags, const Ref<URL>&) {
  if ((flags & flags_) && block_) block_(flags);
}

// -- Relay from the monitors ---------------------------------------------------------

namespace {

// Each monitor keeps its observers alive. The manager would so be kept alive
// by the monitors it owns; this stand-in forwards to it while it lives.
class WeakManagerObserver final : public OVFileObserver {
 public:
  explicit WeakManagerObserver(const Ref<OVFileMonitoringManager>& manager) : manager_(manager) {}

  void didChangeWithFlags_forURL(std::uintptr_t flags, const Ref<URL>& url) override {
    if (auto manager = manager_.lock()) manager->didChangeWithFlags_forURL(flags, url);
  }
  void didInvalidateObservationOfFileAtURL(const Ref<URL>& url) override {
    if (auto manager = manager_.lock()) manager->didInvalidateObservationOfFileAtURL(url);
  }
  void didDeleteFileAtURL_oldFilePathURL(const Ref<URL>& url, const Ref<URL>& oldFilePathURL) override {
    if (auto manager = manager_.lock()) manager->didDeleteFileAtURL_oldFilePathURL(url, oldFilePathURL);
  }
  void didWriteToFileAtURL(const Ref<URL>& url) override {
    if (auto manager = manager_.lock()) manager->didWriteToFileAtURL(url);
  }
  void didExtendFileAtURL(const Ref<URL>& url) override {
    if (auto manager = manager_.lock()) manager->didExtendFileAtURL(url);
  }
  void didChangeAttributesOfFileAtURL(const Ref<URL>& url) override {
    if (auto manager = manager_.lock()) manager->didChangeAttributesOfFileAtURL(url);
  }
  void didChangeLinkCountOfFileAtURL(const Ref<URL>& url) override {
    if (auto manager = manager_.lock()) manager->didChangeLinkCountOfFileAtURL(url);
  }
  void didMoveFileAtURL_fromFilePathURL_toFilePathURL(const Ref<URL>& url, const Ref<URL>& from,
                                                      const Ref<URL>& to) override {
    if (auto manager = manager_.lock()) manager->didMoveFileAtURL_fromFilePathURL_toFilePathURL(url, from, to);
  }
  void didRevokeFileAtURL(const Ref<URL>& url) override {
    if (auto manager = manager_.lock()) manager->didRevokeFileAtURL(url);
  }

 private:
  const std::weak_ptr<OVFileMonitoringManager> manager_;
};

}  // namespace

// -- Registration --------------------------------------------------------------------

const Ref<OVFileMonitoringManager>& OVFileMonitoringManager::defaultMonitor() {
  static dispatch::OnceFlag once;
  static Ref<OVFileMonitoringManager> manager;
  dispatch::once(once, [] { manager = init(); });
  return manager;
}

Ref<OVFileMonitoringManager> OVFileMonitoringManager::init() { return make<OVFileMonitoringManager>(); }

OVFileMonitoringManager::OVFileMonitoringManager()
    : fileMonitorsByMonitoredURL_(Dictionary::dictionary()),
      internalQueue_(OVBuildInternalDispatchQueue("file-monitoring-manager")) {}

Ref<OVFileMonitoringManager> OVFileMonitoringManager::strongSelf() {
  return std::static_pointer_cast<OVFileMonitoringManager>(self());
}

void OVFileMonitoringManager::addObserver_url_isRecursive(Ref<OVFileObserver> observer, Ref<URL> url,
                                                          bool isRecursive) {
  internalQueue_->async([self = strongSelf(), observer = std::move(observer), url = std::move(url), isRecursive] {
    Ref<URL> referenceURL = url ? url->fileReferenceURL() : nullptr;
    if (!observer || !referenceURL) return;
    self->_addObserver_monitoredURL_observedURL_isRecursive(observer, referenceURL, referenceURL, isRecursive);
  });
}

void OVFileMonitoringManager::removeObserver_url_isRecursive(Ref<OVFileObserver> observer, Ref<URL> url,
                                                             bool isRecursive) {
  internalQueue_->async([self = strongSelf(), observer = std::move(observer), url = std::move(url), isRecursive] {
    Ref<URL> referenceURL = url ? url->fileReferenceURL() : nullptr;
    if (!observer || !referenceURL) return;
    self->_removeObserver_monitoredURL_observedURL_isRecursive(observer, referenceURL, referenceURL, isRecursive);
  });
}

Ref<OVBlockBasedFileObserver> OVFileMonitoringManager::addObserverOfURL_isRecursive_withBlock(
    Ref<URL> url, bool isRecursive, OVBlockBasedFileObserver::Block block) {
  return addObserverOfURL_isRecursive_flags_withBlock(std::move(url), isRecursive, OVFileMonitorEventMask,
                                                      std::move(block));
}

Ref<OVBlockBasedFileObserver> OVFileMonitoringManager::addObserverOfURL_isRecursive_flags_withBlock(
    Ref<URL> url, bool isRecursive, std::uintptr_t flags, OVBlockBasedFileObserver::Block block) {
  auto observer = OVBlockBasedFileObserver::initWithURL_isRecursive_flags_block(url, isRecursive, flags,
                                                                                std::move(block));
  addObserver_url_isRecursive(observer, std::move(url), isRecursive);
  return observer;
}

void OVFileMonitoringManager::removeObserver(const Ref<OVBlockBasedFileObserver>& observer) {
  if (!observer) return;
  removeObserver_url_isRecursive(observer, observer->url(), observer->isRecursive());
}

void OVFileMonitoringManager::_addObserver_monitoredURL_observedURL_isRecursive(const Ref<OVFileObserver>& observer,
                                                                               const Ref<URL>& monitoredURL,
                                                                               const Ref<URL>& observedURL,
                                                                               bool isRecursive) {
  OVAssertOnQueue(internalQueue_);
  Id monitor = fileMonitorsByMonitoredURL_->fetchOrCreateObjectForKey_creationBlock(monitoredURL, [&]() -> Id {
    auto created = OVFileMonitor::initWithURL(monitoredURL);
    if (!created) return nullptr;
    if (!monitorObserver_) monitorObserver_ = std::make_shared<WeakManagerObserver>(strongSelf());
    created->addObserver(monitorObserver_);
    return created;
  });
  if (!monitor) return;

  // The public methods pass one object twice: identity marks the item's own
  // level, every other level is a folder above it.
  if (observedURL.get() == monitoredURL.get()) fileObserversByObservedURL_[observedURL].insert(observer);
  else observedURLsByMonitoredURLs_[monitoredURL].insert(observedURL);

  if (!isRecursive) return;
  Ref<URL> parent = monitoredURL->URLByDeletingLastPathComponent();
  if (!parent || parent->path() == "/") return;
  if (Ref<URL> parentReference = parent->fileReferenceURL())
    _addObserver_monitoredURL_observedURL_isRecursive(observer, parentReference, observedURL, true);
}

void OVFileMonitoringManager::_removeObserver_monitoredURL_observedURL_isRecursive(
    const Ref<OVFileObserver>& observer, const Ref<URL>& monitoredURL, const Ref<URL>& observedURL,
    bool isRecursive) {
  OVAssertOnQueue(internalQueue_);
  if (observedURL.get() == monitoredURL.get()) {
    auto observers = fileObserversByObservedURL_.find(observedURL);
    if (observers != fileObserversByObservedURL_.end()) {
      observers->second.erase(observer);
      if (observers->second.empty()) {
        // The entry goes with its last observer: its key, a reference URL,
        // holds the item open, and would keep a file system busy for good.
        fileObserversByObservedURL_.erase(observers);
        forgetObservedURLInFolders(observedURL);
        releaseMonitorIfUnused(observedURL);
      }
    }
  } else if (auto observed = observedURLsByMonitoredURLs_.find(monitoredURL);
             observed != observedURLsByMonitoredURLs_.end()) {
    observed->second.erase(observedURL);
    if (observed->second.empty()) {
      observedURLsByMonitoredURLs_.erase(observed);
      releaseMonitorIfUnused(monitoredURL);
    }
  }

  if (!isRecursive) return;
  Ref<URL> parent = monitoredURL->URLByDeletingLastPathComponent();
  // Unlike adding, this tests the level's own path, so the walk reaches "/",
  // where nothing was recorded.
  if (!parent || monitoredURL->path() == "/") return;
  if (Ref<URL> parentReference = parent->fileReferenceURL())
    _removeObserver_monitoredURL_observedURL_isRecursive(observer, parentReference, observedURL, true);
}

// With no observer left the item was heard by nobody in its folders' lists,
// also of folders it was moved out of, which the walk up from where it is now
// no longer reaches.
void OVFileMonitoringManager::forgetObservedURLInFolders(const Ref<URL>& observedURL) {
  std::vector<Ref<URL>> unused;
  for (auto folder = observedURLsByMonitoredURLs_.begin(); folder != observedURLsByMonitoredURLs_.end();) {
    if (folder->second.erase(observedURL) && folder->second.empty()) {
      unused.push_back(folder->first);
      folder = observedURLsByMonitoredURLs_.erase(folder);
    } else {
      ++folder;
    }
  }
  for (const Ref<URL>& folderURL : unused) releaseMonitorIfUnused(folderURL);
}

void OVFileMonitoringManager::releaseMonitorIfUnused(const Ref<URL>& monitoredURL) {
  if (fileObserversByObservedURL_.contains(monitoredURL) || observedURLsByMonitoredURLs_.contains(monitoredURL))
    return;
  auto monitor = std::static_pointer_cast<OVFileMonitor>(fileMonitorsByMonitoredURL_->objectForKey(monitoredURL));
  if (!monitor) return;
  monitor->removeObserver(monitorObserver_);
  if (!monitor->hasObservers()) fileMonitorsByMonitoredURL_->removeObjectForKey(monitoredURL);
}

// -- Fan-out --------------------------------------------------------------------------

void OVFileMonitoringManager::forEachOfFileObserversForMonitoredURL_isRelatedURLsAllowed_performBlock(
    const Ref<URL>& monitoredURL, bool isRelatedURLsAllowed,
    const std::function<void(const Ref<OVFileObserver>&, const Ref<URL>&)>& block) {
  OVAssertOnQueue(internalQueue_);
  auto visitObserversOf = [&](const Ref<URL>& observedURL) {
    auto observers = fileObserversByObservedURL_.find(observedURL);
    if (observers == fileObserversByObservedURL_.end()) return;
    // Copied: an observer may register or remove observers while it runs
    // (those calls are queued, but a copy keeps this loop independent of it).
    const ObserverSet reached = observers->second;
    for (const auto& observer : reached) block(observer, observedURL);
  };
  visitObserversOf(monitoredURL);
  if (!isRelatedURLsAllowed) return;
  auto related = observedURLsByMonitoredURLs_.find(monitoredURL);
  if (related == observedURLsByMonitoredURLs_.end()) return;
  const URLSet observedURLs = related->second;
  for (const auto& observedURL : observedURLs) visitObserversOf(observedURL);
}

void OVFileMonitoringManager::relay(const Ref<URL>& url, bool related,
                                    std::function<void(OVFileObserver&, const Ref<URL>&)> call) {
  internalQueue_->async([self = strongSelf(), url, related, call = std::move(call)] {
    self->forEachOfFileObserversForMonitoredURL_isRelatedURLsAllowed_performBlock(
        url, related, [&](const Ref<OVFileObserver>& observer, const Ref<URL>& observedURL) {
          call(*observer, observedURL);
        });
  });
}

void OVFileMonitoringManager::didChangeWithFlags_forURL(std::uintptr_t flags, const Ref<URL>& url) {
  relay(url, false, [flags](OVFileObserver& observer, const Ref<URL>& observedURL) {
    observer.didChangeWithFlags_forURL(flags, observedURL);
  });
}

void OVFileMonitoringManager::didInvalidateObservationOfFileAtURL(const Ref<URL>& url) {
  relay(url, false, [](OVFileObserver& observer, const Ref<URL>& observedURL) {
    observer.didInvalidateObservationOfFileAtURL(observedURL);
  });
}

void OVFileMonitoringManager::didDeleteFileAtURL_oldFilePathURL(const Ref<URL>& url, const Ref<URL>& oldFilePathURL) {
  relay(url, true, [oldFilePathURL](OVFileObserver& observer, const Ref<URL>& observedURL) {
    observer.didDeleteFileAtURL_oldFilePathURL(observedURL, oldFilePathURL);
  });
}

void OVFileMonitoringManager::didWriteToFileAtURL(const Ref<URL>& url) {
  relay(url, false, [](OVFileObserver& observer, const Ref<URL>& observedURL) { observer.didWriteToFileAtURL(observedURL); });
}

void OVFileMonitoringManager::didExtendFileAtURL(const Ref<URL>& url) {
  relay(url, false, [](OVFileObserver& observer, const Ref<URL>& observedURL) { observer.didExtendFileAtURL(observedURL); });
}

void OVFileMonitoringManager::didChangeAttributesOfFileAtURL(const Ref<URL>& url) {
  relay(url, false, [](OVFileObserver& observer, const Ref<URL>& observedURL) {
    observer.didChangeAttributesOfFileAtURL(observedURL);
  });
}

void OVFileMonitoringManager::didChangeLinkCountOfFileAtURL(const Ref<URL>& url) {
  relay(url, false, [](OVFileObserver& observer, const Ref<URL>& observedURL) {
    observer.didChangeLinkCountOfFileAtURL(observedURL);
  });
}

void OVFileMonitoringManager::didMoveFileAtURL_fromFilePathURL_toFilePathURL(const Ref<URL>& url, const Ref<URL>& from,
                                                                             const Ref<URL>& to) {
  relay(url, true, [from, to](OVFileObserver& observer, const Ref<URL>& observedURL) {
    // The observed item sits at the same depth below the moved one as before,
    // so its old path is the moved item's old path plus the components of its
    // current path beyond the moved item's new depth.
    Ref<URL> now = observedURL->filePathURL();
    Ref<Array> components = now ? now->pathComponents() : nullptr;
    Ref<Array> movedToComponents = to ? to->pathComponents() : nullptr;
    const std::size_t depth = movedToComponents ? movedToComponents->count() : 0;
    const std::size_t observedDepth = components ? components->count() : 0;
    if (depth > observedDepth || !from || !now) return;
    Ref<URL> oldPath = from;
    for (std::size_t index = depth; index < observedDepth; ++index)
      oldPath = oldPath->URLByAppendingPathComponent(components->objectAtIndex(index)->description());
    observer.didMoveFileAtURL_fromFilePathURL_toFilePathURL(observedURL, oldPath, now);
  });
}

void OVFileMonitoringManager::didRevokeFileAtURL(const Ref<URL>& url) {
  relay(url, true, [](OVFileObserver& observer, const Ref<URL>& observedURL) { observer.didRevokeFileAtURL(observedURL); });
}

// -- Diagnostics -----------------------------------------------------------------------

std::size_t OVFileMonitoringManager::monitorCount() const {
  return internalQueue_->sync([this] { return fileMonitorsByMonitoredURL_->count(); });
}

std::size_t OVFileMonitoringManager::observerCountForURL(const Ref<URL>& url) const {
  Ref<URL> referenceURL = url ? url->fileReferenceURL() : nullptr;
  if (!referenceURL) return 0;
  return internalQueue_->sync([&] {
    auto observers = fileObserversByObservedURL_.find(referenceURL);
    return observers == fileObserversByObservedURL_.end() ? std::size_t{0} : observers->second.size();
  });
}

}  // namespace fennick
