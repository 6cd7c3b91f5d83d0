#include "fennick/Helpers/Receptionist/Internal/DeferredReceptionistCalls.h"

#include <utility>

namespace fennick::detail {

namespace {
thread_local DeferredReceptionistCalls* activeCollector = nullptr;
}  // namespace

DeferredReceptionistCalls::DeferredReceptionistCalls() : outer_(activeCollector) { activeCollector = this; }

DeferredReceptionistCalls::~DeferredReceptionistCalls() { activeCollector = outer_; }

void DeferredReceptionistCalls::run() {
  activeCollector = outer_;  // calls made by the calls themselves run directly
  for (auto& call : std::exchange(calls_, {})) call();
  activeCollector = this;
}

void DeferredReceptionistCalls::call(std::function<void()> call) {
  if (activeCollector) activeCollector->calls_.push_back(std::move(call));
  else call();
}

}  // namespace fennick::detail
