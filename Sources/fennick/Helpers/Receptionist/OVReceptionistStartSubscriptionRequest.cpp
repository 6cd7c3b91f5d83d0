#include "fennick/Helpers/Receptionist/OVReceptionistStartSubscriptionRequest.h"

#include "fennick/Helpers/Receptionist/OVReceptionist.h"
#include "fennick/Helpers/Receptionist/OVReceptionistChangeInfo.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVReceptionistStartSubscriptionRequest) {}

Ref<OVReceptionistStartSubscriptionRequest> OVReceptionistStartSubscriptionRequest::request() {
  return make<OVReceptionistStartSubscriptionRequest>();
}

Ref<OVReceptionistSubscriptionRequest> OVReceptionistStartSubscriptionRequest::makeEmpty() const {
  return make<OVReceptionistStartSubscriptionRequest>();
}

void OVReceptionistStartSubscriptionRequest::copyFromPrototype(
    const OVReceptionistSubscriptionRequest& prototype) {
  OVReceptionistSubscriptionRequest::copyFromPrototype(prototype);
  auto* start = dynamic_cast<const OVReceptionistStartSubscriptionRequest*>(&prototype);
  if (!start) return;
  originalObserver_ = start->originalObserver_;
  options_ = start->options_;
  changeBlock_ = start->changeBlock_;
  target_ = start->target_;
  action_ = start->action_;
}

std::optional<OVMethodSignature> OVReceptionistStartSubscriptionRequest::methodSignatureForHandler_selector_keyPath(
    const Object& handler, Selector selector, const Ref<String>& keyPath) {
  if (selector) {
    if (!handler.respondsToSelector(selector)) return std::nullopt;
    return OVMethodSignature{selector, selector.signatureArgumentCount()};
  }
  if (!keyPath) return std::nullopt;
  const std::string word = keyPath->stringWithCapitalizedFirstLetter()->utf8();
  for (const char* pattern : {"didChange{}OfObject:newValue:oldValue:", "didChange{}OfObject:newValue:",
                              "didChange{}OfObject:", "didChange{}"}) {
    const Selector candidate = Selector::named(fmt::format(fmt::runtime(pattern), word));
    if (handler.respondsToSelector(candidate))
      return OVMethodSignature{candidate, candidate.signatureArgumentCount()};
  }
  return std::nullopt;
}

OVReceptionistChangeBlock
OVReceptionistStartSubscriptionRequest::changeBlockForReceptionist_forKeyPath_object_handler_selector_options(
    OVReceptionist&, const Ref<String>& keyPath, const Id&, const Id& handler, Selector& selector,
    std::uint64_t& options) {
  if (!handler) return nullptr;
  const auto signature = methodSignatureForHandler_selector_keyPath(*handler, selector, keyPath);
  if (!signature) return nullptr;
  selector = signature->selector;
  const std::size_t arguments = signature->numberOfArguments;
  if (arguments == 4) options |= NSKeyValueObservingOptionNew;
  else if (arguments >= 5) options |= NSKeyValueObservingOptionNew | NSKeyValueObservingOptionOld;
  return [weakHandler = WeakRef<Object>(handler), method = signature->selector,
          arguments](const Ref<OVReceptionistChangeInfo>& change) {
    Id target = weakHandler.lock();
    if (!target) return;
    target->performSelector(method, arguments >= 3 ? change->changedObject() : nullptr,
                            arguments >= 4 ? change->newValue() : nullptr,
                            arguments >= 5 ? change->oldValue() : nullptr);
  };
}

Ref<OVReceptionistSubscriptionInfo>
OVReceptionistStartSubscriptionRequest::buildSubscriptionInfoForReceptionist_forKeyPath_object(
    OVReceptionist& receptionist, const Ref<String>& keyPath, const Id& object) {
  auto info = OVReceptionistSubscriptionRequest::buildSubscriptionInfoForReceptionist_forKeyPath_object(
      receptionist, keyPath, object);
  info->setOriginalObserver(originalObserver_);
  std::uint64_t options = options_;
  OVReceptionistChangeBlock block = changeBlock_;
  if (!block) {
    Selector action = action_;
    block = changeBlockForReceptionist_forKeyPath_object_handler_selector_options(
        receptionist, keyPath, object, target(), action, options);
    // No callback can be built: such a subscription is not started.
    if (!block) return nullptr;
  }
  info->setOptions(options);
  info->setChangeBlock(std::move(block));
  return info;
}

void OVReceptionistStartSubscriptionRequest::performForReceptionist_forKeyPath_object(
    OVReceptionist& receptionist, const Ref<String>& keyPath, const Id& object) {
  if (auto info = buildSubscriptionInfoForReceptionist_forKeyPath_object(receptionist, keyPath, object))
    receptionist.startObservationWithInfo_object(info, object);
}

}  // namespace fennick
