#include "fennick/Helpers/Secrets/OVKeychainStorage.h"

#include "fennick/Platform/System/SecretService.h"
#include "fennick/Runtime/Processes/Bundle.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Coding/KeyedArchiver.h"
#include "fennick/Runtime/Coding/KeyedUnarchiver.h"
#include "fennick/Runtime/ObjectModel/Log.h"
#include "fennick/Runtime/Coding/PropertyList.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVKeychainStorage) { builder.property("name", &OVKeychainStorage::name); }

namespace {

// What keyring managers show for an item: the key, then the store. Stored
// with the item, never logged.
std::string itemLabel(std::string_view service, std::string_view key) {
  return fmt::format("{} ({})", key, service);
}

}  // namespace

Ref<OVKeychainStorage> OVKeychainStorage::init() {
  return initWithName(String::string(Bundle::mainBundle()->bundleIdentifier()));
}

Ref<OVKeychainStorage> OVKeychainStorage::initWithName(const Ref<String>& name) {
  return make<OVKeychainStorage>(name);
}

Ref<OVKeychainStorage> OVKeychainStorage::storageWithName(const Ref<String>& name) { return initWithName(name); }

// Every failure of the keyring counts alike, whatever its cause (a refused
// key, no bus, no daemon, no answer in time; a store whose name was set to
// nil, which names no item): a look-up that failed means "not there", so
// bytes are added and there is nothing to delete. The lines
// logged are fixed texts; neither the key, the name nor the keyring's own
// message, which may quote them, reaches the log.
bool OVKeychainStorage::setData_forKey(const Ref<Data>& data, std::string_view key) {
  const Ref<String> service = name();
  const platform::SecretService secrets;  // one deadline for the look-up and the change
  const bool found = service && secrets.lookup(service->view(), key).value.has_value();
  if (!data) {
    if (!found || !secrets.remove(service->view(), key)) return true;
    OVLog("Could not delete keychain item");
    return false;
  }
  if (service && !secrets.store(service->view(), key, itemLabel(service->view(), key), data->span())) return true;
  OVLog("{}", found ? "Could not update keychain item" : "Could not add keychain item");
  return false;
}

Ref<Data> OVKeychainStorage::dataForKey(std::string_view key) const {
  const Ref<String> service = name();
  if (!service) return nullptr;
  platform::SecretLookup found = platform::SecretService().lookup(service->view(), key);
  if (!found.value) return nullptr;
  return Data::dataWithBytes(std::move(*found.value));
}

bool OVKeychainStorage::setPlistValue_forKey(const Id& value, std::string_view key) {
  return setData_forKey(value ? dataForPlistValue(value) : nullptr, key);
}

Id OVKeychainStorage::plistValueForKey(std::string_view key) const {
  const Ref<Data> data = dataForKey(key);
  return data ? plistValueFromData(data) : nullptr;
}

bool OVKeychainStorage::setObject_forKey(const Id& object, std::string_view key) {
  return setData_forKey(KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(object, false, nullptr),
                        key);
}

Id OVKeychainStorage::objectForKey(std::string_view key) const {
  const Ref<Data> data = dataForKey(key);
  if (!data) return nullptr;
  std::unique_ptr<KeyedUnarchiver> unarchiver = KeyedUnarchiver::initForReadingFromData_error(data, nullptr);
  if (!unarchiver) return nullptr;
  unarchiver->setRequiresSecureCoding(false);
  return unarchiver->decodeObjectForKey("root");
}

Ref<Data> OVKeychainStorage::dataForPlistValue(const Id& value) {
  Ref<Error> error;
  Ref<Data> data = PropertyList::dataWithPropertyList_format_error(value, PropertyListFormat::Binary, &error);
  if (!data) OVLog("Plist serialization error: {}", error ? error->description() : "(null)");
  return data;
}

Id OVKeychainStorage::plistValueFromData(const Ref<Data>& data) {
  Ref<Error> error;
  Id value = PropertyList::propertyListWithData_format_error(data, nullptr, &error);
  if (!value) OVLog("Plist deserialization error: {}", error ? error->description() : "(null)");
  return value;
}

}  // namespace fennick
