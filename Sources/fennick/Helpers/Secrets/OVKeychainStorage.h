#pragma once
// A small key-value store whose values live in the desktop's keyring: one
// generic-password item per key, all items of a store sharing its name as
// their service. On Linux the keyring is the freedesktop Secret Service
// (gnome-keyring, KWallet) reached over the D-Bus session bus; each item has
// the attributes "service" (the store's name) and "account" (the key), so
//   secret-tool lookup service NAME account KEY
// prints what the store wrote, and the store reads what `secret-tool store`
// wrote.
//
//   auto store = OVKeychainStorage::storageWithName("com.example.App");
//   store->setData_forKey(token, "refresh-token");
//   Ref<Data> token = store->dataForKey("refresh-token");
//
// The store keeps nothing in memory besides its name: every call goes to the
// keyring, synchronously on the caller's thread, and two stores with the same
// name see the same items. Calls may be made from any thread at once.
//
// Every operation answers within platform::SecretService::defaultTimeout()
// (ten seconds unless the program set another), the look-up and the change
// of a write together, whatever the keyring does: no session bus, no keyring
// daemon, a daemon that stopped answering, a keyring waiting on an unlock
// prompt nobody can answer. A write abandoned at the deadline may still take
// effect later if the daemon was only slow.
//
// Failures are answered with false (writes) or nil (reads), and every failure
// counts alike: a look-up that fails, for whatever reason, means "not there".
// So a write of bytes then tries to add the item and, when that fails too,
// logs "Could not add keychain item" and answers false; a write of nil has
// nothing to delete and answers true. A failed change of an item that was
// found logs "Could not update keychain item" or "Could not delete keychain
// item". Reads log nothing. The lines are fixed texts: no key, name, value or
// message of the keyring (which may quote them) reaches the log.
//
// Keys and names travel to the keyring as C strings. One that is not valid
// UTF-8, or that holds a NUL byte (which would cut it short, so that
// "token\0alice" and "token\0bob" would name one item), names no item: it is
// never sent, reads of it answer nil, writes of bytes false, writes of nil
// true.
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/ObjectModel/Object.h"
#include "fennick/Runtime/Values/String.h"

#include <atomic>
#include <string_view>

namespace fennick {

class OVKeychainStorage : public Object {
  FENNICK_DECLARE_CLASS(OVKeychainStorage, Object)

 public:
  /// A store named after the main bundle's identifier, so that a plain store
  /// is private to the application.
  static Ref<OVKeychainStorage> init();
  static Ref<OVKeychainStorage> initWithName(const Ref<String>& name);
  static Ref<OVKeychainStorage> storageWithName(const Ref<String>& name);

  /// The service name shared by the store's items. Atomic: safe to read and
  /// set from any thread.
  Ref<String> name() const { return name_.load(); }
  void setName(const Ref<String>& name) { name_.store(name); }

  /// Adds or updates the item of `key`; nil deletes it (deleting an absent
  /// item succeeds). Values are bytes of any length, zero bytes included.
  bool setData_forKey(const Ref<Data>& data, std::string_view key);
  /// The bytes stored under `key`, or nil when there are none or the keyring
  /// cannot be asked.
  Ref<Data> dataForKey(std::string_view key) const;

  /// The value as a binary property list; nil, or a value that is not a
  /// property list, deletes the item.
  bool setPlistValue_forKey(const Id& value, std::string_view key);
  Id plistValueForKey(std::string_view key) const;

  /// The object's keyed archive (any archivable class, without secure coding).
  bool setObject_forKey(const Id& object, std::string_view key);
  /// The object of the keyed archive stored under `key`; any archived class
  /// is accepted.
  Id objectForKey(std::string_view key) const;

  /// Binary property-list bytes, or nil with the line
  /// "Plist serialization error: " and the error logged.
  static Ref<Data> dataForPlistValue(const Id& value);
  /// The value of binary or XML property-list bytes, or nil with the line
  /// "Plist deserialization error: " and the error logged.
  static Id plistValueFromData(const Ref<Data>& data);

 protected:
  explicit OVKeychainStorage(Ref<String> name) : name_(std::move(name)) {}

 private:
  std::atomic<Ref<String>> name_;
};

}  // namespace fennick
