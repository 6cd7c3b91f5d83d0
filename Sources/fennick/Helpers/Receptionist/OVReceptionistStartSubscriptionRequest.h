#pragma once
// A request that starts subscriptions, with a change callback or a target
// and selector turned into one.
//
// Not thread-safe: a receptionist uses it on its internal queue (or under
// its bookkeeping lock when it has no queue).
#include "fennick/Helpers/Receptionist/OVReceptionistSubscriptionInfo.h"
#include "fennick/Helpers/Receptionist/OVReceptionistSubscriptionRequest.h"

#include <optional>

namespace fennick {

/// A method signature as far as the receptionist needs one: the resolved
/// selector and its argument count (receiver and selector included).
struct OVMethodSignature {
  Selector selector;
  std::size_t numberOfArguments = 0;
};

class OVReceptionistStartSubscriptionRequest : public OVReceptionistSubscriptionRequest {
  FENNICK_DECLARE_CLASS(OVReceptionistStartSubscriptionRequest, OVReceptionistSubscriptionRequest)

 public:
  static Ref<OVReceptionistStartSubscriptionRequest> request();

  const Id& originalObserver() const { return originalObserver_; }
  void setOriginalObserver(const Id& observer) { originalObserver_ = observer; }
  std::uint64_t options() const { return options_; }
  void setOptions(std::uint64_t options) { options_ = options; }
  const OVReceptionistChangeBlock& changeBlock() const { return changeBlock_; }
  void setChangeBlock(OVReceptionistChangeBlock block) { changeBlock_ = std::move(block); }
  /// Not owned: a target that goes away simply stops receiving calls.
  Id target() const { return target_.lock(); }
  void setTarget(const Id& target) { target_ = target; }
  Selector action() const { return action_; }
  void setAction(Selector action) { action_ = action; }

  /// The handler's signature for `selector`; without a selector, the longest
  /// of "didChange<Key>OfObject:newValue:oldValue:", "...OfObject:newValue:",
  /// "...OfObject:" and "didChange<Key>" that the handler answers.
  static std::optional<OVMethodSignature> methodSignatureForHandler_selector_keyPath(
      const Object& handler, Selector selector, const Ref<String>& keyPath);
  /// A change callback calling `handler` (held weakly) with changed object,
  /// new and old value as its signature has room; the argument bits it needs
  /// are OR-ed into `options`, and the chosen selector is written back.
  /// Without a signature there is no callback.
  static OVReceptionistChangeBlock changeBlockForReceptionist_forKeyPath_object_handler_selector_options(
      OVReceptionist& receptionist, const Ref<String>& keyPath, const Id& object, const Id& handler,
      Selector& selector, std::uint64_t& options);

  void performForReceptionist_forKeyPath_object(OVReceptionist& receptionist,
                                                const Ref<String>& keyPath, const Id& object) override;
  Ref<OVReceptionistSubscriptionInfo> buildSubscriptionInfoForReceptionist_forKeyPath_object(
      OVReceptionist& receptionist, const Ref<String>& keyPath, const Id& object) override;

 protected:
  OVReceptionistStartSubscriptionRequest() = default;

 public:
  void copyFromPrototype(const OVReceptionistSubscriptionRequest& prototype) override;

 protected:
  Ref<OVReceptionistSubscriptionRequest> makeEmpty() const override;

 private:
  Id originalObserver_;
  std::uint64_t options_ = 0;
  OVReceptionistChangeBlock changeBlock_;
  WeakRef<Object> target_;
  Selector action_;
};

}  // namespace fennick
