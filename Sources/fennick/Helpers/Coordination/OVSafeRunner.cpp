#include "fennick/Helpers/Coordination/OVSafeRunner.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(OVSafeRunner) {}

const Ref<OVSafeRunner>& OVSafeRunner::shared() {
  static const Ref<OVSafeRunner>& runner = *new Ref<OVSafeRunner>(init());
  return runner;
}

const Ref<OVSafeRunner>& OVSafeRunner::taskRunner() {
  static const Ref<OVSafeRunner>& runner = *new Ref<OVSafeRunner>(init());
  return runner;
}

Ref<OVSafeRunner> OVSafeRunner::init() { return make<OVSafeRunner>(); }

Ref<OVSafeRunner> OVSafeRunner::initWithExceptionHandler(ExceptionHandler handler) {
  return make<OVSafeRunner>(std::move(handler));
}

Ref<OVSafeRunner> OVSafeRunner::runnerWithExceptionHandler(ExceptionHandler handler) {
  return initWithExceptionHandler(std::move(handler));
}

bool OVSafeRunner::safelyExecute(const std::function<void()>& block) const {
  if (!block) return true;
  try {
    block();
    return true;
  } catch (const Exception& exception) {
    if (exceptionHandler_) exceptionHandler_(exception);
    return false;
  }
}

}  // namespace fennick
