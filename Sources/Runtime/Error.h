#pragma once
// Error records: a domain, a signed code and a dictionary of user information
// (localized description, recovery suggestion and options, underlying error).
// Every failure that crosses the library's boundary is reported as one.
#include "fennick/Runtime/Object.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace fennick {

class Array;
class Dictionary;

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
