// The recovery-attempt members of Error: building recoverable errors and
// driving the attempt they carry.
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Errors/OVErrorRecoveryAttemptInfo.h"
#include "fennick/Runtime/Collections/Set.h"

namespace fennick {
namespace {

constexpr const char* kLaunchedKeyPath = "recoveryAttemptInfo.launched";
constexpr const char* kCancelledKeyPath = "recoveryAttemptInfo.cancelled";

void setOrRemove(Dictionary& info, const char* key, std::optional<std::string_view> text) {
  if (text) info.setObject_forKey(String::string(*text), key);
  else info.removeObjectForKey(key);
}

// A mutable copy of `userInfo` (empty without one) with the three texts set.
Ref<Dictionary> userInfoWithTexts(const Ref<Dictionary>& userInfo, std::optional<std::string_view> description,
                                  std::optional<std::string_view> recoverySuggestion,
                                  const Ref<Array>& recoveryOptions) {
  Ref<Dictionary> info = userInfo ? Dictionary::dictionaryWithDictionary(userInfo) : Dictionary::dictionary();
  setOrRemove(*info, NSLocalizedDescriptionKey, description);
  setOrRemove(*info, NSLocalizedRecoverySuggestionErrorKey, recoverySuggestion);
  if (recoveryOptions) info->setObject_forKey(recoveryOptions->copy(), NSLocalizedRecoveryOptionsErrorKey);
  else info->removeObjectForKey(NSLocalizedRecoveryOptionsErrorKey);
  return info;
}

Ref<Error> errorWithAttempt(std::string_view domain, std::int64_t code, const Ref<Dictionary>& info,
                            Error::RecoveryAttemptBlock block) {
  info->setObject_forKey(OVErrorRecoveryAttemptInfo::recoveryAttemptInfoWithBlock(std::move(block)),
                         OVErrorRecoveryAttemptInfoKey);
  return Error::errorWithDomain_code_userInfo(domain, code, info);
}

Ref<Error> mutableSelf(const Error& error) {
  return std::static_pointer_cast<Error>(std::const_pointer_cast<Object>(error.self()));
}

}  // namespace

void detail::describeErrorRecoveryProperties(ClassBuilder<Error>& builder) {
  builder.property("recoveryAttemptInfo", &Error::recoveryAttemptInfo);
  builder.property("presentationLaunched", &Error::isPresentationLaunched);
  builder.property("presentationCancelled", &Error::isPresentationCancelled);
  builder.dependentKeys("presentationLaunched", {kLaunchedKeyPath});
  builder.dependentKeys("presentationCancelled", {kCancelledKeyPath});
}

Ref<Error> Error::errorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo(
    std::string_view domain, std::int64_t code, std::optional<std::string_view> description,
    std::optional<std::string_view> recoverySuggestion, const Ref<Array>& recoveryOptions,
    const Ref<Dictionary>& userInfo) {
  return errorWithDomain_code_userInfo(domain, code,
                                       userInfoWithTexts(userInfo, description, recoverySuggestion, recoveryOptions));
}

Ref<Error> Error::errorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo_recoveryAttemptBlock(
    std::string_view domain, std::int64_t code, std::optional<std::string_view> description,
    std::optional<std::string_view> recoverySuggestion, const Ref<Array>& recoveryOptions,
    const Ref<Dictionary>& userInfo, RecoveryAttemptBlock block) {
  return errorWithAttempt(domain, code, userInfoWithTexts(userInfo, description, recoverySuggestion, recoveryOptions),
                          std::move(block));
}

Ref<OVErrorRecoveryAttemptInfo> Error::recoveryAttemptInfo() const {
  return OVErrorRecoveryAttemptInfo::dynamicCastObject(userInfo_->objectForKey(OVErrorRecoveryAttemptInfoKey));
}

Ref<Error> Error::overrideWithErrorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo_recoveryAttemptBlock(
    std::string_view domain, std::int64_t code, std::optional<std::string_view> description,
    std::optional<std::string_view> recoverySuggestion, const Ref<Array>& recoveryOptions,
    [[maybe_unused]] const Ref<Dictionary>& userInfo, RecoveryOptionMapping mapping) const {
  // The wrapper's user info is built from nothing but the wrapped error and
  // the texts; whatever `userInfo` holds stays out by design.
  Ref<Error> wrapped = mutableSelf(*this);
  auto info = userInfoWithTexts(Dictionary::dictionaryWithStringKeys({{NSUnderlyingErrorKey, wrapped}}),
                                description, recoverySuggestion, recoveryOptions);
  Ref<Error> wrapper = errorWithAttempt(
      domain, code, info,
      [wrapped, mapping = std::move(mapping)](const Ref<Error>& error, std::uint64_t optionIndex) {
        if (mapping) optionIndex = mapping(error, optionIndex);
        return wrapped->recoverWithIndexOfOption(optionIndex);
      });
  if (const auto attempt = recoveryAttemptInfo()) {
    // Weak: a wrapper nobody holds any more has released its waiters already.
    attempt->notifyRecoveryCompletionWithBlock([weakWrapper = std::weak_ptr<Error>(wrapper)](bool) {
      if (const Ref<Error> wrapper = weakWrapper.lock()) wrapper->noNeedForRecovery();
    });
  }
  return wrapper;
}

Ref<Error> Error::errorWithRecoveryAttemptBlock(RecoveryAttemptBlock block) const {
  return errorWithAttempt(domain_, code_, Dictionary::dictionaryWithDictionary(userInfo_), std::move(block));
}

Ref<Error> Error::recoverWithIndexOfOption(std::uint64_t optionIndex) const {
  const auto attempt = recoveryAttemptInfo();
  return attempt ? attempt->finishRecoveryOfError_indexOfRecoveryOption(mutableSelf(*this), optionIndex) : nullptr;
}

void Error::noNeedForRecovery() const {
  if (const auto attempt = recoveryAttemptInfo()) attempt->noNeedForRecoveryOfError(mutableSelf(*this));
}

void Error::notifyRecoveryCompletionWithBlock(std::function<void(bool)> block) const {
  if (const auto attempt = recoveryAttemptInfo()) attempt->notifyRecoveryCompletionWithBlock(std::move(block));
}

bool Error::isPresentationLaunched() const {
  const auto attempt = recoveryAttemptInfo();
  return attempt && attempt->isLaunched();
}

bool Error::isPresentationCancelled() const {
  const auto attempt = recoveryAttemptInfo();
  return attempt && attempt->isCancelled();
}

Ref<Set> Error::keyPathsForValuesAffectingPresentationLaunched() {
  return Set::setWithObjects({String::string(kLaunchedKeyPath)});
}

Ref<Set> Error::keyPathsForValuesAffectingPresentationCancelled() {
  return Set::setWithObjects({String::string(kCancelledKeyPath)});
}

}  // namespace fennick
