#include "fennick/Helpers/OVKeychainStorage.h"

#include "fennick/Platform/SecretService.h"
#include "fennick/Runtime/Bundle.h"
#include "fennick/Runtime/ClassBuilder.h"
#include "fennick/Runtime/Error.h"
#include "fennick/Runtime/KeyedArchiver.h"
#include "fennick/Runtime/KeyedUnarchiver.h"
#include "fennick/Runtime/Log.h"
#include "fennick/Runtime/PropertyList.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVKeychainStorage) { builder.property("name", &OVKeychainStorage::name); }

namespace {

using platform::SecretServiceError;

// Logs the line of a failed call: why the service could not be reached, or
// the operation's own line when the service answered with a refusal.
void logFailure(const SecretServiceError& error, std::string_view operationLine) {
  if (error.kind == SecretServiceError::Kind::unavailable)
    OVLog("The secret service is unavailable: {}", error.message);
  else
    OVLog("{}", operationLine);
}

// What keyring managers show for an item: the key, then the store.
std::string itemLabel(const String& service, std::string_view key) {
  return fmt::format("{} ({})", key, service.view());
}

}  // namespace

Ref<OVKeychainStorage> OVKeychainStorage::init() {
  return initWithName(String::string(Bundle::mainBundle()->bundleIdentifier()));
}

Ref<OVKeychainStorage> OVKeychainStorage::initWithName(const Ref<String>& name) {
  return make<OVKeychainStorage>(name);
}

Ref<OVKeychainStorage> OVKeychainStorage::storageWithName(const Ref<String>& name) { return initWithName(name); }

bool OVKeychainStorage::setData_forKey(const Ref<Data>& data, std::string_view key) {
  const Ref<String> service = name();
  const platform::SecretService secrets;
  const platform::SecretLookup existing = secrets.lookup(service->view(), key);
  const bool found = existing.value.has_value();
  if (existing.error && existing.error->kind == SecretServiceError::Kind::unavailable) {
    logFailure(*existing.error, {});
    return false;
  }
  // A look-up that failed for another reason counts as "not there": bytes are
  // added, and there is nothing to delete.
  if (!data && !found) return true;

  std::optional<SecretServiceError> error;
  std::string_view operationLine;
  if (data) {
    error = secrets.store(service->view(), key, itemLabel(*service, key), data->span());
    operationLine = found ? "Could not update keychain item" : "Could not add keychain item";
  } else {
    error = secrets.remove(service->view(), key);
    operationLine = "Could not delete keychain item";
  }
  if (!error) return true;
  logFailure(*error, operationLine);
  return false;
}

Ref<Data> OVKeychainStorage::dataForKey(std::string_view key) const {
  platform::SecretLookup found = platform::SecretService().lookup(name()->view(), key);
  if (found.error && found.error->kind == SecretServiceError::Kind::unavailable) logFailure(*found.error, {});
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
