#include "fennick/Helpers/System/Process+OVRunExtensions.h"

#include "fennick/Helpers/Coordination/OVSafeRunner.h"

namespace fennick {

bool safeLaunchWaitingUntilExit(const Ref<Process>& process, bool waitUntilExit) {
  return OVSafeRunner::taskRunner()->safelyExecute([&] {
    process->launch();
    if (waitUntilExit) process->waitUntilExit();
  });
}

bool safeWaitUntilExit(const Ref<Process>& process) {
  return OVSafeRunner::taskRunner()->safelyExecute([&] { process->waitUntilExit(); });
}

Ref<Process> safelyLaunchedTaskWithLaunchPath_arguments(std::string launchPath,
                                                         std::vector<std::string> arguments) {
  auto process = Process::init();
  process->setLaunchPath(std::move(launchPath));
  process->setArguments(std::move(arguments));
  return safeLaunch(process) ? process : nullptr;
}

}  // namespace fennick
