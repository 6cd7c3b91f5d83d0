#include "fennick/AppKitExtensions/OVErrorValidatorInfo.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVErrorValidatorInfo) {
  builder.property("validator", &OVErrorValidatorInfo::validator);
  builder.property("errorDomain", &OVErrorValidatorInfo::errorDomain);
}

Ref<OVErrorValidatorInfo> OVErrorValidatorInfo::validatorInfoWithValidator_selector_errorDomain(
    const Id& validator, Selector selector, std::string_view errorDomain) {
  return make<OVErrorValidatorInfo>(validator, selector, errorDomain);
}

Ref<Error> OVErrorValidatorInfo::validateError(const Ref<Error>& error) const {
  const Id validator = validator_.lock();
  if (!validator) return error;
  return Error::dynamicCastObject(validator->performSelector(selector_, error));
}

}  // namespace fennick
