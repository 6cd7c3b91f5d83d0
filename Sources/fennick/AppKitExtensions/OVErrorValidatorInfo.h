#pragma once
// One validator of an error presentation controller: an object and the
// selector it validates errors of one domain with.
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/ObjectModel/Object.h"
#include "fennick/Runtime/ObjectModel/Selector.h"

#include <string>
#include <string_view>

namespace fennick {

class OVErrorValidatorInfo : public Object {
  FENNICK_DECLARE_CLASS(OVErrorValidatorInfo, Object)

 public:
  /// `selector` takes one error and returns an error (the same, a
  /// replacement) or nullptr to suppress it. The validator is not retained.
  static Ref<OVErrorValidatorInfo> validatorInfoWithValidator_selector_errorDomain(const Id& validator,
                                                                                  Selector selector,
                                                                                  std::string_view errorDomain);

  /// The validator, or nullptr once it is gone.
  Id validator() const { return validator_.lock(); }
  Selector selector() const noexcept { return selector_; }
  const std::string& errorDomain() const noexcept { return errorDomain_; }

  /// The validator's answer for `error`: its selector's result, nullptr when
  /// that is not an error. A validator that is gone no longer validates: the
  /// error passes unchanged. An unknown selector throws Exception.
  Ref<Error> validateError(const Ref<Error>& error) const;

 protected:
  OVErrorValidatorInfo(const Id& validator, Selector selector, std::string_view errorDomain)
      : validator_(validator), selector_(selector), errorDomain_(errorDomain) {}

 private:
  const std::weak_ptr<Object> validator_;
  const Selector selector_;
  const std::string errorDomain_;
};

}  // namespace fennick
