#include "fennick/Helpers/Files/OVURLsAccessController.h"

#include "fennick/Dispatch/Once.h"
#include "fennick/Dispatch/OVDispatchQueue.h"
#include "fennick/Helpers/Files/OVBookmarkedURLTransformer.h"
#include "fennick/Helpers/Files/URLSecurityScope.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/ObjectModel/Log.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVURLsAccessInfo) {}
FENNICK_DEFINE_CLASS(OVDeploymentURLsAccessInfo) {}
FENNICK_DEFINE_CLASS(OVDebugURLsAccessInfo) {}
FENNICK_DEFINE_CLASS(OVURLsAccessController) {}

namespace {
constexpr const char* kGenericPropose = "generic";
}

// -- Access infos -------------------------------------------------------------------

Ref<OVDeploymentURLsAccessInfo> OVDeploymentURLsAccessInfo::initWithURL(Ref<URL> url) {
  return make<OVDeploymentURLsAccessInfo>(std::move(url));
}

void OVDeploymentURLsAccessInfo::beginAccessingWithPropose(const OVPropose&) { ++proposesCount_; }

void OVDeploymentURLsAccessInfo::endAccessingWithPropose(const OVPropose&) { --proposesCount_; }

Ref<OVDebugURLsAccessInfo> OVDebugURLsAccessInfo::initWithURL(Ref<URL> url) {
  return make<OVDebugURLsAccessInfo>(std::move(url));
}

std::size_t OVDebugURLsAccessInfo::countForPropose(const OVPropose& propose) const {
  auto found = proposes_.find(propose.value_or(kGenericPropose));
  return found == proposes_.end() ? 0 : found->second;
}

void OVDebugURLsAccessInfo::beginAccessingWithPropose(const OVPropose& propose) {
  ++proposes_[propose.value_or(kGenericPropose)];
}

void OVDebugURLsAccessInfo::endAccessingWithPropose(const OVPropose& propose) {
  auto found = proposes_.find(propose.value_or(kGenericPropose));
  if (found == proposes_.end()) return;
  if (--found->second == 0) proposes_.erase(found);
}

// -- Controller ---------------------------------------------------------------------

const Ref<OVURLsAccessController>& OVURLsAccessController::defaultURLsAccessController() {
  static dispatch::OnceFlag once;
  static Ref<OVURLsAccessController> controller;
  dispatch::once(once, [] { controller = init(); });
  return controller;
}

Ref<OVURLsAccessController> OVURLsAccessController::init() {
  auto controller = make<OVURLsAccessController>();
  // The queue carries the controller's own description in its label, which
  // only exists once the object does.
  controller->internalQueue_ = OVBuildInternalDispatchQueue(controller->description());
  return controller;
}

OVURLsAccessController::OVURLsAccessController() = default;

Ref<OVURLsAccessInfo> OVURLsAccessController::fetchAccessInfoForURL(const Ref<URL>& url) const {
  if (!url) return nullptr;
  auto found = accessInfosByURL_.find(url);
  return found == accessInfosByURL_.end() ? nullptr : found->second;
}

Ref<OVURLsAccessInfo> OVURLsAccessController::fetchOrBuildAccessInfoForURL(const Ref<URL>& url) {
  Ref<OVURLsAccessInfo>& info = accessInfosByURL_[url];
  if (!info) info = OVDeploymentURLsAccessInfo::initWithURL(url);
  return info;
}

bool OVURLsAccessController::beginAccessingSecurityScopedResourceAtURL_propose(const Ref<URL>& url,
                                                                               const OVPropose& propose) {
  if (!isBookmarkingEnabled()) return true;
  Ref<URL> secureURL = secureAccessURL(url);
  if (!secureURL) return false;
  return internalQueue_->sync([&] {
    Ref<OVURLsAccessInfo> info = fetchOrBuildAccessInfoForURL(secureURL);
    // A failed start leaves the new, empty entry where it is.
    if (!info->isAccessing() && !secureURL->startAccessingSecurityScopedResource()) return false;
    info->beginAccessingWithPropose(propose);
    return true;
  });
}

void OVURLsAccessController::endAccessingSecurityScopedResource_propose(const Ref<URL>& url,
                                                                        const OVPropose& propose) {
  if (!isBookmarkingEnabled()) return;
  Ref<URL> secureURL = secureAccessURL(url);
  internalQueue_->sync([&] {
    Ref<OVURLsAccessInfo> info = fetchAccessInfoForURL(secureURL);
    if (!info) {
      OVLog("Did fail to get access info for url {} with propose {}.", url ? url->description() : "(null)",
            propose.value_or("(null)"));
      return;
    }
    const bool wasAccessing = info->isAccessing();
    info->endAccessingWithPropose(propose);
    if (wasAccessing && !info->isAccessing()) {
      secureURL->stopAccessingSecurityScopedResource();
      accessInfosByURL_.erase(secureURL);
    }
  });
}

Ref<URL> OVURLsAccessController::bookmarkedURL(const Ref<URL>& url) {
  if (!url) return nullptr;
  if (!isBookmarkingEnabled()) return url;
  return OVBookmarkedURLTransformer::bookmarkedURLForURL(url);
}

}  // namespace fennick
