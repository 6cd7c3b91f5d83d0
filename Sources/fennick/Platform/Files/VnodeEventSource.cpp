#include "fennick/Platform/Files/VnodeEventSource.h"

#include "fennick/Platform/Files/Internal/FileIdentityTable.h"
#include "fennick/Platform/Files/Internal/InotifyHub.h"
#include "fennick/Platform/Files/Internal/LinuxFileIdentity.h"

namespace fennick::platform {

namespace {

Ref<const LinuxFileIdentity> identityOf(const URL& url) {
  // Every identity is made by this layer's table.
  if (const auto& identity = url.fileIdentity()) return std::static_pointer_cast<const LinuxFileIdentity>(identity);
  std::optional<std::string> path = url.fileSystemRepresentation();
  return path ? FileIdentityTable::shared().identityOfItemAtPath(*path) : nullptr;
}

}  // namespace

Ref<dispatch::Source> makeVnodeEventSource(const URL& url, std::uintptr_t mask, Ref<dispatch::Queue> queue,
                                           std::function<void()> cancelHandler) {
  Ref<const LinuxFileIdentity> identity = identityOf(url);
  if (!identity || identity->isRevoked()) return nullptr;
  InotifyHub* hub = InotifyHub::shared();
  if (!hub) return nullptr;
  Ref<dispatch::Source> source = dispatch::Source::createDataOr(std::move(queue));
  auto registration = hub->watch(std::move(identity), source, mask);
  if (!registration) return nullptr;
  source->setCancelHandler([hub, registration, cancelHandler = std::move(cancelHandler)] {
    hub->unwatch(registration);
    if (cancelHandler) cancelHandler();
  });
  return source;
}

std::size_t vnodeWatchCount() {
  InotifyHub* hub = InotifyHub::shared();
  return hub ? hub->watchCount() : 0;
}

}  // namespace fennick::platform
