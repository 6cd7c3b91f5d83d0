#pragma once
// The error records the unpacker's steps hand back.
#include "fennick/Helpers/Unarchiver/Internal/ExtractedTreeCheck.h"
#include "fennick/Helpers/Unarchiver/Internal/ToolWatchdog.h"
#include "fennick/Helpers/Unarchiver/OVUnarchiver.h"

#include <string>
#include <system_error>

namespace fennick::detail {

void setError(Ref<Error>* out, Ref<Error> error);
void setPOSIXError(Ref<Error>* out, int code);
void setError(Ref<Error>* out, const std::error_code& code);

/// An error of OVUnarchiverErrorDomain, with a description when given.
Ref<Error> unarchiverError(OVUnarchiverError code, const char* description = nullptr);
/// A tool's non-zero exit (or ending signal) in NSOSStatusErrorDomain, with
/// its standard error as description when that is UTF-8.
Ref<Error> toolFailure(const Ref<Process>& tool, const std::string& errorOutput);
bool exitedCleanly(const Ref<Process>& tool);
/// Why the watchdog ended a tool; a stall has the step's own code.
Ref<Error> watchdogError(ToolWatchdog::Verdict verdict, OVUnarchiverError stalledCode);
/// What the look over the unpacked tree found.
Ref<Error> treeError(TreeProblem problem);

}  // namespace fennick::detail
