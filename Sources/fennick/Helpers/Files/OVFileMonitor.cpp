#include "fennick/Helpers/Files/OVFileMonitor.h"

#include "fennick/Dispatch/Once.h"
#include "fennick/Dispatch/OVDispatchQueue.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

#include <fmt/format.h>

namespace fennick {

FENNICK_DEFINE_CLASS(OVFileMonitor) {}

Ref<dispatch::Source> makeWatcher(const Ref<URL>& url, Ref<dispatch::Queue> queue,
                                  std::function<void(std::uintptr_t)> eventHandler,
                                  std::function<void()> cancelHandler) {
  if (!url || !url->isFileURL()) return nullptr;
  Ref<dispatch::Source> source =
      platform::makeVnodeEventSource(*url, OVFileMonitorEventMask, std::move(queue), std::move(cancelHandler));
  if (!source) return nullptr;
  // The handler holds its source weakly: the source owns the handler.
  source->setEventHandler([weakSource = std::weak_ptr<dispatch::Source>(source), eventHandler = std::move(eventHandler)] {
    if (Ref<dispatch::Source> strongSource = weakSource.lock()) eventHandler(strongSource->data());
  });
  return source;
}

void notifyObserverOfChanges(OVFileObserver& observer, std::uintptr_t flags, const Ref<URL>& url,
                             const Ref<URL>& oldFilePathURL) {
  observer.didChangeWithFlags_forURL(flags, url);
  if (flags & DISPATCH_VNODE_DELETE) observer.didDeleteFileAtURL_oldFilePathURL(url, oldFilePathURL);
  if (flags & DISPATCH_VNODE_WRITE) observer.didWriteToFileAtURL(url);
  if (flags & DISPATCH_VNODE_EXTEND) observer.didExtendFileAtURL(url);
  if (flags & DISPATCH_VNODE_ATTRIB) observer.didChangeAttributesOfFileAtURL(url);
  if (flags & DISPATCH_VNODE_LINK) observer.didChangeLinkCountOfFileAtURL(url);
  if (flags & DISPATCH_VNODE_RENAME)
    observer.didMoveFileAtURL_fromFilePathURL_toFilePathURL(url, oldFilePathURL, url->filePathURL());
  if (flags & DISPATCH_VNODE_REVOKE) observer.didRevokeFileAtURL(url);
}

const Ref<dispatch::Queue>& OVFileMonitor::defaultTargetQueue() {
  static dispatch::OnceFlag once;
  static Ref<dispatch::Queue> queue;
  dispatch::once(once, [] {
    queue = OVBuildDispatchQueue("OVFileMonitor shared queue", QOS_CLASS_UTILITY, nullptr, true);
  });
  return queue;
}

Ref<OVFileMonitor> OVFileMonitor::initWithURL(const Ref<URL>& url) {
  return initWithURL_targetQueue(url, defaultTargetQueue());
}

Ref<OVFileMonitor> OVFileMonitor::initWithURL_targetQueue(const Ref<URL>& url, Ref<dispatch::Queue> targetQueue) {
  if (!url) return nullptr;
  Ref<URL> referenceURL = url->fileReferenceURL();
  Ref<URL> pathURL = url->filePathURL();
  if (!referenceURL || !pathURL) return nullptr;  // no such item, or it was deleted

  auto queue = OVBuildInternalDispatchQueue(fmt::format("file-monitor-{}", url->lastPathComponent()));
  queue->setTarget(std::move(targetQueue));
  auto monitor = make<OVFileMonitor>(queue);
  // The callbacks hold the monitor weakly: it owns the source that owns them.
  std::weak_ptr<OVFileMonitor> weakMonitor = monitor;
  auto watcher = makeWatcher(
      referenceURL, queue,
      [weakMonitor](std::uintptr_t flags) {
        if (auto strongMonitor = weakMonitor.lock()) strongMonitor->handleEventWithFlags(flags);
      },
      [weakMonitor] {
        if (auto strongMonitor = weakMonitor.lock()) strongMonitor->didCloseHandler();
      });
  if (!watcher) return nullptr;

  monitor->watcher_ = watcher;
  monitor->fileReferenceURL_ = std::move(referenceURL);
  monitor->filePathURL_ = std::move(pathURL);
  watcher->resume();
  return monitor;
}

OVFileMonitor::~OVFileMonitor() {
  if (watcher_) watcher_->cancel();
}

void OVFileMonitor::addObserver(Ref<OVFileObserver> observer) {
  if (!observer) return;
  internalQueue_->async([self = std::static_pointer_cast<OVFileMonitor>(self()), observer = std::move(observer)]() mutable {
    self->observers_.insert(std::move(observer));
  });
}

void OVFileMonitor::removeObserver(Ref<OVFileObserver> observer) {
  if (!observer) return;
  internalQueue_->async([self = std::static_pointer_cast<OVFileMonitor>(self()), observer = std::move(observer)] {
    self->observers_.erase(observer);
  });
}

bool OVFileMonitor::hasObservers() const {
  return internalQueue_->sync([this] { return !observers_.empty(); });
}

Ref<URL> OVFileMonitor::filePathURL() const {
  return internalQueue_->sync([this] { return filePathURL_; });
}

Ref<dispatch::Source> OVFileMonitor::watcher() const {
  return internalQueue_->sync([this] { return watcher_; });
}

void OVFileMonitor::handleEventWithFlags(std::uintptr_t flags) {
  OVAssertOnQueue(internalQueue_);
  Ref<URL> oldFilePathURL = filePathURL_;
  if (flags & DISPATCH_VNODE_RENAME) {
    if (Ref<URL> movedTo = fileReferenceURL_->filePathURL()) filePathURL_ = std::move(movedTo);
  }
  const Ref<dispatch::Queue> utility = dispatch::global(QOS_CLASS_UTILITY);
  for (const Ref<OVFileObserver>& observer : observers_) {
    utility->async([observer, flags, url = fileReferenceURL_, oldFilePathURL] {
      notifyObserverOfChanges(*observer, flags, url, oldFilePathURL);
    });
  }
  // After a delete or a revoke the monitor stays silent for good, even when an
  // item appears again at the same path: it followed the item, not the path.
  if ((flags & (DISPATCH_VNODE_DELETE | DISPATCH_VNODE_REVOKE)) && watcher_) {
    watcher_->cancel();
    watcher_ = nullptr;
  }
}

void OVFileMonitor::didCloseHandler() {
  OVAssertOnQueue(internalQueue_);
  const Ref<dispatch::Queue> utility = dispatch::global(QOS_CLASS_UTILITY);
  for (const Ref<OVFileObserver>& observer : observers_) {
    utility->async([observer, filePathURL = filePathURL_] { observer->didInvalidateObservationOfFileAtURL(filePathURL); });
  }
}

}  // namespace fennick
