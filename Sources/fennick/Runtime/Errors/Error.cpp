#include "fennick/Runtime/Errors/Error.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Coding/Coder.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Coding/KeyedArchiver.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Errors/OVErrorRecoveryAttemptInfo.h"
#include "fennick/Runtime/Collections/Set.h"

#include <cstring>
#include <unordered_set>
#include <vector>

namespace fennick {

FENNICK_DEFINE_CLASS(Error) {
  builder.archiveNames({"NSError"});
  builder.coding();
  builder.property("domain", &Error::domain);
  builder.property("code", &Error::code);
  builder.property("userInfo", &Error::userInfo);
  builder.property("localizedDescription", &Error::localizedDescription);
  detail::describeErrorRecoveryProperties(builder);
}

Error::Error() : userInfo_(Dictionary::emptyDictionary()) {}

Error::Error(std::string domain, std::int64_t code, Ref<Dictionary> userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

Ref<Error> Error::errorWithDomain_code_userInfo(std::string_view domain, std::int64_t code,
                                                const Ref<Dictionary>& userInfo) {
  Ref<Dictionary> info = userInfo ? std::static_pointer_cast<Dictionary>(userInfo->copy())
                                  : Dictionary::emptyDictionary();
  return make<Error>(std::string(domain), code, std::move(info));
}

Ref<Error> Error::errorWithDomain_code_description(std::string_view domain, std::int64_t code,
                                                   std::string_view description) {
  return errorWithDomain_code_userInfo(
      domain, code,
      Dictionary::dictionaryWithStringKeys({{NSLocalizedDescriptionKey, String::string(description)}}));
}

Ref<Error> Error::posixError(int code) {
  return errorWithDomain_code_description(NSPOSIXErrorDomain, code, std::strerror(code));
}

std::string Error::stringForKey(const char* key) const {
  auto* text = String::dynamicCastObject(userInfo_->objectForKey(key).get());
  return text ? text->utf8() : std::string();
}

std::string Error::localizedDescription() const {
  if (auto* text = String::dynamicCastObject(userInfo_->objectForKey(NSLocalizedDescriptionKey).get()))
    return text->utf8();
  return fmt::format("The operation couldn\u2019t be completed. ({} error {}.)", domain_, code_);
}

std::string Error::localizedFailureReason() const { return stringForKey(NSLocalizedFailureReasonErrorKey); }

std::string Error::localizedRecoverySuggestion() const {
  return stringForKey(NSLocalizedRecoverySuggestionErrorKey);
}

Ref<Array> Error::localizedRecoveryOptions() const {
  return Array::dynamicCastObject(userInfo_->objectForKey(NSLocalizedRecoveryOptionsErrorKey));
}

Id Error::recoveryAttempter() const { return userInfo_->objectForKey(NSRecoveryAttempterErrorKey); }

Ref<Error> Error::underlyingError() const {
  return Error::dynamicCastObject(userInfo_->objectForKey(NSUnderlyingErrorKey));
}

bool Error::isEqual(const Object* other) const {
  if (other == this) return true;
  auto* error = Error::dynamicCastObject(other);
  return error && error->code_ == code_ && error->domain_ == domain_ &&
         error->userInfo_->isEqual(userInfo_.get());
}

std::size_t Error::hash() const { return std::hash<std::string>()(domain_) ^ static_cast<std::size_t>(code_); }

std::string Error::description() const {
  std::string text = fmt::format("Error Domain={} Code={}", domain_, code_);
  if (userInfo_->objectForKey(NSLocalizedDescriptionKey))
    text += fmt::format(" \"{}\"", localizedDescription());
  if (userInfo_->count()) text += " UserInfo=" + userInfo_->description();
  return text;
}

Id Error::copy() const { return std::const_pointer_cast<Object>(self()); }

void Error::encodeWithCoder(Coder& coder) const {
  coder.encodeInt64_forKey(code_, "NSCode");
  coder.encodeObject_forKey(String::string(domain_), "NSDomain");
  if (userInfo_->count()) coder.encodeObject_forKey(userInfo_, "NSUserInfo");
}

namespace {

// What an error's user info may hold when decoded: property-list values, the
// null marker, URLs and nested errors (underlying errors).
ClassList userInfoClasses() {
  ClassList classes{Dictionary::staticClass(), Array::staticClass(), String::staticClass(),
                    Number::staticClass(),     Data::staticClass(),  Date::staticClass(),
                    Null::staticClass(),       Error::staticClass()};
  if (const Class* url = Class::named("NSURL")) classes.push_back(url);
  return classes;
}

// Whether `target` can be reached from `root` through collections and the
// user info of errors: a decoded error whose user info leads back to it would
// form a cycle that its immutable copy of the user info keeps alive forever.
bool leadsTo(const Object* root, const Error* target) {
  std::vector<const Object*> pending{root};
  std::unordered_set<const Object*> seen;
  while (!pending.empty()) {
    const Object* next = pending.back();
    pending.pop_back();
    if (next == target) return true;
    if (!next || !seen.insert(next).second) continue;
    if (auto* array = dynamic_cast<const Array*>(next)) {
      for (const Id& member : *array) pending.push_back(member.get());
    } else if (auto* set = dynamic_cast<const Set*>(next)) {
      for (const Id& member : *set) pending.push_back(member.get());
    } else if (auto* dictionary = dynamic_cast<const Dictionary*>(next)) {
      for (const auto& entry : *dictionary) pending.insert(pending.end(), {entry.key.get(), entry.value.get()});
    } else if (auto* error = dynamic_cast<const Error*>(next)) {
      pending.push_back(error->userInfo().get());
    }
  }
  return false;
}

}  // namespace

void Error::initWithCoder(Coder& coder) {
  code_ = coder.decodeInt64ForKey("NSCode");
  if (auto domain = String::dynamicCastObject(coder.decodeObjectOfClass_forKey(String::staticClass(), "NSDomain")))
    domain_ = domain->utf8();
  auto info = Dictionary::dynamicCastObject(coder.decodeObjectOfClasses_forKey(userInfoClasses(), "NSUserInfo"));
  if (!info) return;
  if (leadsTo(info.get(), this))
    return coder.failWithError(errorWithDomain_code_description(
        NSCocoaErrorDomain, NSCoderReadCorruptError, "The user info of an error refers back to the error."));
  userInfo_ = std::static_pointer_cast<Dictionary>(info->copy());
}

}  // namespace fennick
