#pragma once
// What a receptionist's subscriber receives. Made for one delivery and not
// changed afterwards, so it may be read from any thread.
#include "fennick/Helpers/Receptionist/OVReceptionistSubscriptionInfo.h"

namespace fennick {

/// What a subscriber receives: its subscription record plus the change.
class OVReceptionistChangeInfo : public OVReceptionistSubscriptionInfo {
  FENNICK_DECLARE_CLASS(OVReceptionistChangeInfo, OVReceptionistSubscriptionInfo)

 public:
  static Ref<OVReceptionistChangeInfo> initWithPrototype(
      const Ref<OVReceptionistSubscriptionInfo>& prototype);

  /// True only for the synthetic first call.
  bool isInitial() const { return initial_; }
  void setInitial(bool initial) { initial_ = initial; }
  /// The observed object; not owned (nil once it has gone away).
  Id changedObject() const { return changedObject_.lock(); }
  void setChangedObject(const Id& object) { changedObject_ = object; }
  const Ref<Dictionary>& changeDictionary() const { return changeDictionary_; }
  /// Stores a copy.
  void setChangeDictionary(const Ref<Dictionary>& change);
  /// The new / old value, with the null marker mapped to nil.
  Id newValue() const;
  Id oldValue() const;
  /// Whether new and old value differ.
  bool isChanged() const;

 protected:
  OVReceptionistChangeInfo() = default;

 private:
  bool initial_ = false;
  WeakRef<Object> changedObject_;
  Ref<Dictionary> changeDictionary_;
};

}  // namespace fennick
