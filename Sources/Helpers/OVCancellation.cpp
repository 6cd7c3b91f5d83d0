#include "fennick/Helpers/OVCancellation.h"

#include "fennick/FoundationExtensions/OVDispatchQueue.h"
#include "fennick/Runtime/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVCancellation) { builder.property("isCancelled", &OVCancellation::isCancelled); }

FENNICK_DEFINE_CLASS(OVCancellationToken) {}

void detail::runCancellationHandlers(std::vector<std::function<void()>> handlers) {
  if (handlers.empty()) return;
  dispatch::global(QOS_CLASS_UTILITY)->async([handlers = std::move(handlers)] {
    for (const auto& handler : handlers) handler();
  });
}

void detail::addOrRunCancellationHandler(bool cancelled, std::vector<std::function<void()>>& handlers,
                                         std::function<void()> handler) {
  if (!cancelled) handlers.push_back(std::move(handler));
  else dispatch::global(QOS_CLASS_UTILITY)->async(std::move(handler));
}

OVCancellationToken::OVCancellationToken()
    : internalQueue_(OVBuildInternalDispatchQueue("cancellation-token-internal")) {}

Ref<OVCancellationToken> OVCancellationToken::init() { return make<OVCancellationToken>(); }

void OVCancellationToken::performBlock(const std::function<void()>& block) {
  internalQueue_->sync([&] { block(); });
}

void OVCancellationToken::addCancellationHandler(std::function<void()> handler) {
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
