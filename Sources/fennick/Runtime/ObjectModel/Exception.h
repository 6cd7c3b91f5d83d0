#pragma once
// The runtime's programming-error exception: bad indexes, nil where nil is not
// allowed, unknown keys, mutation during enumeration, refused archives. It is
// the one exception type that OVSafeRunner catches; everything else propagates.
#include "fennick/Runtime/ObjectModel/Ref.h"

#include <exception>
#include <string>

namespace fennick {

class Dictionary;

/// Names used by the runtime, with the platform's string values.
inline constexpr const char* NSInvalidArgumentException = "NSInvalidArgumentException";
inline constexpr const char* NSRangeException = "NSRangeException";
inline constexpr const char* NSGenericException = "NSGenericException";
inline constexpr const char* NSUndefinedKeyException = "NSUnknownKeyException";
inline constexpr const char* NSInternalInconsistencyException = "NSInternalInconsistencyException";
inline constexpr const char* NSInvalidUnarchiveOperationException =
    "NSInvalidUnarchiveOperationException";
inline constexpr const char* NSInvalidArchiveOperationException =
    "NSInvalidArchiveOperationException";

class Exception : public std::exception {
 public:
  Exception(std::string name, std::string reason, Ref<Dictionary> userInfo = nullptr);

  const std::string& name() const noexcept { return name_; }
  const std::string& reason() const noexcept { return reason_; }
  const Ref<Dictionary>& userInfo() const noexcept { return userInfo_; }
  /// "<name>: <reason>".
  const char* what() const noexcept override { return what_.c_str(); }

  [[noreturn]] static void raise(std::string name, std::string reason);

 private:
  std::string name_;
  std::string reason_;
  Ref<Dictionary> userInfo_;
  std::string what_;
};

}  // namespace fennick
