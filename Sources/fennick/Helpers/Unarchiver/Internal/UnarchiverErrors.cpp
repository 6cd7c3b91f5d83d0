#include "fennick/Helpers/Unarchiver/Internal/UnarchiverErrors.h"

#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/String.h"

namespace fennick::detail {

void setError(Ref<Error>* out, Ref<Error> error) {
  if (out) *out = std::move(error);
}

void setPOSIXError(Ref<Error>* out, int code) {
  if (out) *out = Error::posixError(code);
}

void setError(Ref<Error>* out, const std::error_code& code) { setPOSIXError(out, code.value()); }

Ref<Error> unarchiverError(OVUnarchiverError code, const char* description) {
  if (!description) return Error::errorWithDomain_code_userInfo(OVUnarchiverErrorDomain, code);
  return Error::errorWithDomain_code_description(OVUnarchiverErrorDomain, code, description);
}

Ref<Error> toolFailure(const Ref<Process>& tool, const std::string& errorOutput) {
  const auto code = static_cast<std::int64_t>(static_cast<std::int32_t>(tool->terminationStatus()));
  Ref<Dictionary> userInfo;
  if (!errorOutput.empty() && String::isValidUTF8(errorOutput))
    userInfo = Dictionary::dictionaryWithStringKeys({{NSLocalizedDescriptionKey, String::string(errorOutput)}});
  return Error::errorWithDomain_code_userInfo(NSOSStatusErrorDomain, code, userInfo);
}

bool exitedCleanly(const Ref<Process>& tool) {
  return tool->terminationReason() == Process::NSTaskTerminationReasonExit && tool->terminationStatus() == 0;
}

Ref<Error> watchdogError(ToolWatchdog::Verdict verdict, OVUnarchiverError stalledCode) {
  if (verdict == ToolWatchdog::Verdict::WroteTooMuch)
    return unarchiverError(OVUnarchiverErrorExpansionLimitExceeded, "The archive unpacks to more than is allowed.");
  return unarchiverError(stalledCode, "The unpacking tool stopped making progress and was ended.");
}

// The watchdog may miss a tool that writes past the limit between two looks
// and exits; counting what it left catches that.
Ref<Error> treeError(TreeProblem problem) {
  const auto code =
      problem == TreeProblem::TooLarge ? OVUnarchiverErrorExpansionLimitExceeded : OVUnarchiverErrorUnsafeContent;
  return unarchiverError(code, describeTreeProblem(problem));
}

}  // namespace fennick::detail
