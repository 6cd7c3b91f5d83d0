#include "fennick/Helpers/Coordination/OVCancellation.h"

#include "fennick/Dispatch/OVDispatchQueue.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVCancellation) { builder.property("isCancelled", &OVCancellation::isCancelled); }

FENNICK_DEFINE_CLASS(OVCancellationToken) {}

void detail::runCancellationHandlers(std::vector<dispatch::Block> handlers) {
  if (handlers.empty()) return;
  dispatch::global(QOS_CLASS_UTILITY)->async([handlers = std::move(handlers)]() mutable {
    for (auto& handler : handlers) handler();
  });
}

void detail::addOrRunCancellationHandler(bool cancelled, std::vector<dispatch::Block>& handlers,
                                         dispatch::Block handler) {
  if (!cancelled) handlers.push_back(std::move(handler));
  else dispatch::global(QOS_CLASS_UTILITY)->async(std::move(handler));
}

OVCancellationToken::OVCancellationToken()
    : internalQueue_(OVBuildInternalDispatchQueue("cancellation-token-internal")) {}

Ref<OVCancellationToken> OVCancellationToken::init() { return make<OVCancellationToken>(); }

void OVCancellationToken::performBlock(const std::function<void()>& block) {
  internalQueue_->sync([&] { block(); });
}

void OVCancellationToken::addCancellationHandler(dispatch::Block handler) {
  if (!handler) return;
  performBlock([&] { detail::addOrRunCancellationHandler(isCancelled(), cancellationHandlers_, std::move(handler)); });
}

void OVCancellationToken::cancel() {
  performBlock([this] { cancelOnQueue(); });
}

void OVCancellationToken::cancelOnQueue() {
  OVAssertOnQueue(internalQueue_);
  if (isCancelled()) return;
  changeValueForKey("isCancelled", [this] { cancelled_.store(true, std::memory_order_release); });
  detail::runCancellationHandlers(std::exchange(cancellationHandlers_, {}));
}

}  // namespace fennick
