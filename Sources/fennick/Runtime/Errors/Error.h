#pragma once
// Error records: a domain, a signed code and a dictionary of user information
// (localized description, recovery suggestion and options, underlying error).
// Every failure that crosses the library's boundary is reported as one.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace fennick {

class Array;
class Dictionary;
class OVErrorRecoveryAttemptInfo;
class Set;

inline constexpr const char* NSCocoaErrorDomain = "NSCocoaErrorDomain";
inline constexpr const char* NSPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr const char* NSOSStatusErrorDomain = "NSOSStatusErrorDomain";

inline constexpr const char* NSLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr const char* NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason";
inline constexpr const char* NSLocalizedRecoverySuggestionErrorKey = "NSLocalizedRecoverySuggestion";
inline constexpr const char* NSLocalizedRecoveryOptionsErrorKey = "NSLocalizedRecoveryOptions";
inline constexpr const char* NSRecoveryAttempterErrorKey = "NSRecoveryAttempter";
inline constexpr const char* NSHelpAnchorErrorKey = "NSHelpAnchor";
inline constexpr const char* NSUnderlyingErrorKey = "NSUnderlyingError";
inline constexpr const char* NSFilePathErrorKey = "NSFilePath";
inline constexpr const char* NSURLErrorKey = "NSURL";
inline constexpr const char* NSDebugDescriptionErrorKey = "NSDebugDescription";

class Error : public Object {
  FENNICK_DECLARE_CLASS(Error, Object)

 public:
  static Ref<Error> errorWithDomain_code_userInfo(std::string_view domain, std::int64_t code,
                                                  const Ref<Dictionary>& userInfo = nullptr);
  /// Shorthand: an error whose user info holds only a localized description.
  static Ref<Error> errorWithDomain_code_description(std::string_view domain, std::int64_t code,
                                                     std::string_view description);
  /// A POSIX error for an errno value, with strerror's text as description.
  static Ref<Error> posixError(int code);

  const std::string& domain() const noexcept { return domain_; }
  std::int64_t code() const noexcept { return code_; }
  /// Never nil (empty when none was given).
  const Ref<Dictionary>& userInfo() const noexcept { return userInfo_; }

  /// The user info's description, or "The operation couldn’t be completed.
  /// (<domain> error <code>.)".
  std::string localizedDescription() const;
  std::string localizedFailureReason() const;
  std::string localizedRecoverySuggestion() const;
  /// Recovery option titles, or nil.
  Ref<Array> localizedRecoveryOptions() const;
  Id recoveryAttempter() const;
  Ref<Error> underlyingError() const;

  // -- Recovery attempts ------------------------------------------------------
  // An error may carry an OVErrorRecoveryAttemptInfo (fennick/Runtime/
  // OVErrorRecoveryAttemptInfo.h): the action for the option a person
  // chooses and the state of its presentation. Defined in Error+RecoveryAttempt.cpp.

  /// Recovers for the option at `optionIndex` (0 first); returns the error to
  /// present next, or nullptr.
  using RecoveryAttemptBlock = std::function<Ref<Error>(const Ref<Error>& error, std::uint64_t optionIndex)>;
  /// Maps an option index of a wrapping error to one of the wrapped error.
  using RecoveryOptionMapping = std::function<std::uint64_t(const Ref<Error>& error, std::uint64_t optionIndex)>;

  /// An error whose user info is a copy of `userInfo` with the description,
  /// recovery suggestion and recovery options (an Array of Strings) set under
  /// the platform keys; an absent value removes its key.
  static Ref<Error> errorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo(
      std::string_view domain, std::int64_t code, std::optional<std::string_view> description,
      std::optional<std::string_view> recoverySuggestion, const Ref<Array>& recoveryOptions,
      const Ref<Dictionary>& userInfo);
  /// The same, with a new recovery attempt for `block` under OVErrorRecoveryAttemptInfoKey.
  static Ref<Error> errorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo_recoveryAttemptBlock(
      std::string_view domain, std::int64_t code, std::optional<std::string_view> description,
      std::optional<std::string_view> recoverySuggestion, const Ref<Array>& recoveryOptions,
      const Ref<Dictionary>& userInfo, RecoveryAttemptBlock block);
  /// The attempt in the user info, or nullptr (also for an entry of another class).
  Ref<OVErrorRecoveryAttemptInfo> recoveryAttemptInfo() const;
  /// A new error that wraps this one as its underlying error and offers its
  /// own texts and options. Choosing option i of the new error recovers this
  /// one with `mapping(newError, i)` (with i itself when there is no mapping),
  /// and the new error's attempt ends when this one's does. The new error's
  /// user info holds only this error and the three texts: `userInfo` is
  /// ignored on purpose.
  Ref<Error> overrideWithErrorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo_recoveryAttemptBlock(
      std::string_view domain, std::int64_t code, std::optional<std::string_view> description,
      std::optional<std::string_view> recoverySuggestion, const Ref<Array>& recoveryOptions,
      const Ref<Dictionary>& userInfo, RecoveryOptionMapping mapping) const;
  /// This error's domain, code and user info with a new attempt for `block`
  /// (replacing any earlier attempt).
  Ref<Error> errorWithRecoveryAttemptBlock(RecoveryAttemptBlock block) const;
  /// Recovers with the option at `optionIndex`; the follow-up error, or
  /// nullptr (always without an attempt).
  Ref<Error> recoverWithIndexOfOption(std::uint64_t optionIndex) const;
  /// Ends the attempt, dismissing a running presentation (see
  /// OVErrorRecoveryAttemptInfo::noNeedForRecoveryOfError).
  void noNeedForRecovery() const;
  /// Runs `block` on the main queue when the attempt ends (nothing without an attempt).
  void notifyRecoveryCompletionWithBlock(std::function<void(bool finishedWithoutDismissal)> block) const;
  /// The attempt's launched and cancelled flags (false without an attempt);
  /// observable as "presentationLaunched" and "presentationCancelled".
  bool isPresentationLaunched() const;
  bool isPresentationCancelled() const;
  /// {"recoveryAttemptInfo.launched"} and {"recoveryAttemptInfo.cancelled"}.
  static Ref<Set> keyPathsForValuesAffectingPresentationLaunched();
  static Ref<Set> keyPathsForValuesAffectingPresentationCancelled();

  bool isEqual(const Object* other) const override;
  std::size_t hash() const override;
  /// "Error Domain=<domain> Code=<code> "<description>" UserInfo={...}".
  std::string description() const override;
  Id copy() const override;
  void encodeWithCoder(Coder& coder) const override;
  void initWithCoder(Coder& coder) override;

 protected:
  Error();
  Error(std::string domain, std::int64_t code, Ref<Dictionary> userInfo);

 private:
  std::string stringForKey(const char* key) const;

  std::string domain_;
  std::int64_t code_ = 0;
  Ref<Dictionary> userInfo_;
};

}  // namespace fennick
