#pragma once
// Launching and waiting for child processes without letting an exception
// escape: every operation runs through the shared task runner
// (OVSafeRunner::taskRunner()), which catches what Process::launch() and
// Process::waitUntilExit() raise and answers false (or nil) instead.
//
// The functions block the calling thread only for as long as the wrapped
// Process operation does; they may be called from any thread. A launch
// returns as soon as the child has started; a wait has no time limit and
// lasts as long as the child runs (terminate() the child to end it), after
// which the child has been reaped.
#include "fennick/Runtime/Processes/Process.h"

#include <string>
#include <vector>

namespace fennick {

/// Launches the process and, when `waitUntilExit` is true, waits for it;
/// false when either raised.
bool safeLaunchWaitingUntilExit(const Ref<Process>& process, bool waitUntilExit);
/// Launches the process without waiting; false when the launch raised.
inline bool safeLaunch(const Ref<Process>& process) { return safeLaunchWaitingUntilExit(process, false); }
/// Waits for the process; false when the wait raised.
bool safeWaitUntilExit(const Ref<Process>& process);
/// A process with that path and arguments, already launched; nil when the
/// launch raised (a missing file, a directory, no execute permission ...).
Ref<Process> safelyLaunchedTaskWithLaunchPath_arguments(std::string launchPath,
                                                         std::vector<std::string> arguments);

}  // namespace fennick
