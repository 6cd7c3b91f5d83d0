#pragma once
// Object holders let any object serve as a dictionary key or set member by
// identity, with a choice of ownership:
//
//   OVStrongObjectHolder   keeps the object alive;
//   OVUnownedObjectHolder  keeps only the object's address;
//   OVWeakObjectHolder     an unowned holder that also tells whether the
//                          object is still alive (weakObject()).
//
// Equality and hashing go by the held object's address, never by the object's
// own isEqual, and the address is kept after the object is destroyed: a
// dictionary keyed by weak holders stays consistent, and an entry can still be
// found and removed once its object is gone. A strong and a weak holder of the
// same object are equal and hash alike.
//
// Holders are immutable once made, so they may be read from any thread. The
// unowned and weak holders reach their object through a std::weak_ptr, which
// is safe to read concurrently because nothing writes it after creation; an
// unowned holder of a destroyed object therefore answers nil rather than a
// dangling pointer.
#include "fennick/Runtime/ObjectModel/Object.h"

namespace fennick {

class OVStrongObjectHolder;
class OVUnownedObjectHolder;
class OVWeakObjectHolder;

/// The abstract holder: it holds nothing (object() is nil).
class OVObjectHolder : public Object {
  FENNICK_DECLARE_CLASS(OVObjectHolder, Object)

 public:
  static Ref<OVStrongObjectHolder> strongHolderOfObject(const Id& object);
  static Ref<OVWeakObjectHolder> weakHolderForObject(const Id& object);
  static Ref<OVUnownedObjectHolder> unownedHolderForObject(const Id& object);
  /// initWithObject(nil).
  static Ref<OVObjectHolder> init();
  static Ref<OVObjectHolder> initWithObject(const Id& object);

  /// The held object; nil for the abstract holder, and for unowned and weak
  /// holders once the object has been destroyed.
  virtual Id object() const { return nullptr; }
  /// The held object's address (nullptr for none); kept after the object dies.
  /// Only ever compared, never read through.
  virtual const Object* objectAddress() const noexcept { return nullptr; }

  /// True when `other` is a holder of any kind holding the same address.
  bool isEqual(const Object* other) const override;
  /// The held address.
  std::size_t hash() const override;
  std::string description() const override;
  /// A new holder of the receiver's class holding the same object (or, for a
  /// weak or unowned holder, the same address).
  Id copy() const override;

 protected:
  OVObjectHolder() = default;
};

class OVStrongObjectHolder : public OVObjectHolder {
  FENNICK_DECLARE_CLASS(OVStrongObjectHolder, OVObjectHolder)

 public:
  static Ref<OVStrongObjectHolder> init() { return initWithObject(nullptr); }
  static Ref<OVStrongObjectHolder> initWithObject(const Id& object);

  Id object() const override { return object_; }
  const Object* objectAddress() const noexcept override { return object_.get(); }
  Id copy() const override;

 protected:
  explicit OVStrongObjectHolder(Id object) : object_(std::move(object)) {}

 private:
  const Id object_;
};

class OVUnownedObjectHolder : public OVObjectHolder {
  FENNICK_DECLARE_CLASS(OVUnownedObjectHolder, OVObjectHolder)

 public:
  static Ref<OVUnownedObjectHolder> init() { return initWithObject(nullptr); }
  static Ref<OVUnownedObjectHolder> initWithObject(const Id& object);

  /// The object while it lives, nil afterwards.
  Id object() const override { return reference_.lock(); }
  const Object* objectAddress() const noexcept override { return address_; }
  /// Compares addresses directly with other unowned and weak holders, and the
  /// address with the object of any other holder.
  bool isEqual(const Object* other) const override;
  Id copy() const override;

 protected:
  OVUnownedObjectHolder(const Object* address, WeakRef<Object> reference)
      : address_(address), reference_(std::move(reference)) {}

  const Object* const address_;
  const WeakRef<Object> reference_;
};

class OVWeakObjectHolder : public OVUnownedObjectHolder {
  FENNICK_DECLARE_CLASS(OVWeakObjectHolder, OVUnownedObjectHolder)

 public:
  static Ref<OVWeakObjectHolder> init() { return initWithObject(nullptr); }
  static Ref<OVWeakObjectHolder> initWithObject(const Id& object);

  /// The object if it is still alive, else nil.
  Id weakObject() const { return reference_.lock(); }
  Id copy() const override;

 protected:
  OVWeakObjectHolder(const Object* address, WeakRef<Object> reference)
      : OVUnownedObjectHolder(address, std::move(reference)) {}
};

}  // namespace fennick
