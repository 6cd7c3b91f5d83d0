#include "fennick/Helpers/System/OVReachability.h"

#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/Source.h"
#include "fennick/Dispatch/OVDispatchQueue.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/UUID.h"

#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <unistd.h>

namespace fennick {

FENNICK_DEFINE_CLASS(OVReachability) {}

const Ref<dispatch::Queue>& OVReachability::queue() {
  static const Ref<dispatch::Queue>& shared = *new Ref<dispatch::Queue>(OVBuildInternalDispatchQueue("reachability"));
  return shared;
}

Ref<OVReachability> OVReachability::initWithReachabilityRef(Target target) {
  if (!target) {
    std::fprintf(stderr, "Assertion failed: reachabilityRef\n");
    std::abort();
  }
  return make<OVReachability>(std::move(target));
}

Ref<OVReachability> OVReachability::initWithHostName(std::string_view hostName) {
  auto target = platform::ReachabilityTarget::withHostName(hostName);
  if (!target) return nullptr;
  auto reachability = initWithReachabilityRef(target);
  std::weak_ptr<OVReachability> weak = reachability;
  // Resolving may block for as long as the resolver takes: never on the caller's thread.
  dispatch::global(QOS_CLASS_UTILITY)->async([target, weak] {
    if (!target->resolve()) return;
    queue()->async([weak] {
      if (auto self = weak.lock()) self->flagsMayHaveChanged();
    });
  });
  return reachability;
}

Ref<OVReachability> OVReachability::initWithAddress(const sockaddr* address) {
  auto target = platform::ReachabilityTarget::withAddress(address);
  return target ? initWithReachabilityRef(std::move(target)) : nullptr;
}

Ref<OVReachability> OVReachability::initForInternetConnection() {
  sockaddr_in any{};
  any.sin_family = AF_INET;
  return initWithAddress(reinterpret_cast<const sockaddr*>(&any));
}

OVReachability::~OVReachability() { stopNotifier(); }

std::int64_t OVReachability::statusForFlags(std::uint32_t flags) {
  if (!(flags & platform::kReachable)) return OVReachabilityStatusNotReachable;
  std::int64_t status = (flags & platform::kConnectionRequired) ? 0 : 1;
  if ((flags & (platform::kConnectionOnDemand | platform::kConnectionOnTraffic)) &&
      !(flags & platform::kInterventionRequired))
    status = 1;
  return status;
}

Ref<UUID> OVReachability::subscribeForChangesWithBlock(ChangesBlock block) {
  auto token = UUID::init();
  auto self = std::static_pointer_cast<OVReachability>(shared_from_this());
  queue()->async([self, token, block = std::move(block)]() mutable {
    if (self->changesBlockByToken_.empty()) self->startNotifier();
    self->changesBlockByToken_.emplace_back(token, std::move(block));
  });
  return token;
}

void OVReachability::unsubscribeForChangesWithToken(const Ref<UUID>& token) {
  auto self = std::static_pointer_cast<OVReachability>(shared_from_this());
  queue()->async([self, token] {
    auto& subscriptions = self->changesBlockByToken_;
    const bool hadSubscriptions = !subscriptions.empty();
    std::erase_if(subscriptions, [&](const auto& entry) { return entry.first->isEqual(token.get()); });
    if (hadSubscriptions && subscriptions.empty()) self->stopNotifier();
  });
}

void OVReachability::startNotifier() {
  const int socket = platform::openRouteChangeSocket();
  auto source = socket >= 0 ? dispatch::Source::createRead(socket, queue()) : nullptr;
  if (!source) {
    std::fprintf(stderr, "Assertion failed: didSchedule\n");
    std::abort();
  }
  ++notifierStarts_;
  lastFlags_ = reachabilityFlags();
  // The source holds the object weakly, as the platform's context does; the
  // destructor stops the source before the object goes away.
  std::weak_ptr<OVReachability> weak = std::static_pointer_cast<OVReachability>(shared_from_this());
  source->setEventHandler([weak, socket] {
    const bool changed = platform::drainRouteChanges(socket);
    if (auto self = weak.lock(); self && changed) self->flagsMayHaveChanged();
  });
  source->setCancelHandler([socket] { ::close(socket); });
  source->resume();
  source_ = std::move(source);
}

void OVReachability::stopNotifier() {
  if (!source_) return;
  source_->cancel();
  source_ = nullptr;
}

void OVReachability::flagsMayHaveChanged() {
  if (!source_) return;
  const auto flags = reachabilityFlags();
  if (flags == lastFlags_) return;
  lastFlags_ = flags;
  notifySubscribersOfStatus(statusForFlags(flags));
}

void OVReachability::notifySubscribers() { notifySubscribersOfStatus(status()); }

void OVReachability::notifySubscribersOfStatus(std::int64_t current) {
  OVAssertOnQueue(queue());
  for (const auto& entry : changesBlockByToken_)
    dispatch::global(QOS_CLASS_UTILITY)->async([block = entry.second, current] { block(current); });
}

bool OVReachability::isNotifierRunning() const {
  return queue()->sync([this] { return source_ != nullptr; });
}

int OVReachability::notifierStarts() const {
  return queue()->sync([this] { return notifierStarts_; });
}

}  // namespace fennick
