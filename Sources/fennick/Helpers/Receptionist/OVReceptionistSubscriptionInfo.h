#pragma once
// One subscription of a receptionist. Records are made and changed on the
// receptionist's internal queue; the stop mark may be read from any thread.
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/ObjectModel/Object.h"
#include "fennick/Runtime/Values/String.h"

#include <atomic>
#include <functional>
#include <memory>

namespace fennick {

class OVObjectHolder;
class OVReceptionistChangeInfo;

/// Called with one change record.
using OVReceptionistChangeBlock = std::function<void(const Ref<OVReceptionistChangeInfo>&)>;

/// One subscription: an observed object (weakly held), a key path, options and
/// the callback. Two records are equal when they name the same object and key
/// path, whatever their callbacks.
class OVReceptionistSubscriptionInfo : public Object {
  FENNICK_DECLARE_CLASS(OVReceptionistSubscriptionInfo, Object)

 public:
  static Ref<OVReceptionistSubscriptionInfo> info();
  static Ref<OVReceptionistSubscriptionInfo> initWithPrototype(
      const Ref<OVReceptionistSubscriptionInfo>& prototype);

  const Id& originalObserver() const { return originalObserver_; }
  void setOriginalObserver(const Id& observer) { originalObserver_ = observer; }
  const Ref<OVObjectHolder>& observedObjectHolder() const { return observedObjectHolder_; }
  void setObservedObjectHolder(const Ref<OVObjectHolder>& holder);
  const Ref<String>& keyPath() const { return keyPath_; }
  void setKeyPath(const Ref<String>& keyPath);
  std::uint64_t options() const { return options_; }
  void setOptions(std::uint64_t options) { options_ = options; }
  void* context() const { return context_; }
  void setContext(void* context) { context_ = context; }
  const OVReceptionistChangeBlock& changeBlock() const;
  void setChangeBlock(OVReceptionistChangeBlock block);

  /// Delivers a change to the callback; a prior notification only when the
  /// record asked for prior notifications; nothing once the record is stopped.
  void notifyChangeOfObject_keyPath_change_isInitial(const Id& object, const Ref<String>& keyPath,
                                                     const Ref<Dictionary>& change, bool isInitial);
  Ref<OVReceptionistChangeInfo> buildChangeInfoWithChangeDictionary_changedObject_isInitial(
      const Ref<Dictionary>& change, const Id& object, bool isInitial);

  /// Marks the record as stopped: a delivery already on its way checks the
  /// mark just before calling the callback, and drops the change.
  void markStopped() noexcept { stopped_.store(true, std::memory_order_release); }
  bool isStopped() const noexcept { return stopped_.load(std::memory_order_acquire); }

  bool isEqual(const Object* other) const override;
  std::size_t hash() const override;
  /// A copy that is not stopped.
  Id copy() const override;

 protected:
  OVReceptionistSubscriptionInfo() = default;
  void copyFrom(const OVReceptionistSubscriptionInfo& prototype);

 private:
  Id originalObserver_;
  Ref<OVObjectHolder> observedObjectHolder_;
  Ref<String> keyPath_;
  std::uint64_t options_ = 0;
  void* context_ = nullptr;
  // Shared, not copied: every change record made from this record carries it.
  std::shared_ptr<const OVReceptionistChangeBlock> changeBlock_;
  std::atomic<bool> stopped_{false};
};

}  // namespace fennick
