#include "fennick/Dispatch/OVDispatchQueue.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fennick/Dispatch/Main.h"

namespace fennick {

using dispatch::Queue;

Ref<Queue> OVBuildDispatchQueue(std::string_view name, qos_class_t qos, Ref<Queue> target,
                                bool concurrent) {
  // Our queues carry a quality-of-service class of their own, so the class is
  // always attached and the target left as the caller gave it.
  std::string label = "com.orvane.";
  label.append(name);
  return concurrent ? Queue::createConcurrent(std::move(label), qos, std::move(target))
                    : Queue::createSerial(std::move(label), qos, std::move(target));
}

Ref<Queue> OVBuildInternalDispatchQueue(std::string_view name) {
  std::string internalName(name);
  internalName += ".internal-queue";
  return OVBuildDispatchQueue(internalName, QOS_CLASS_UTILITY, nullptr, false);
}

void OVInteractWithUI(std::function<void()> callback) {
  if (!callback) return;
  if (dispatch::isMainThread()) {
    callback();
  } else {
    dispatch::mainQueue()->async(std::move(callback));
  }
}

namespace {
std::atomic<UnimplementedAlertPresenter> unimplementedAlertPresenter{nullptr};
}  // namespace

void setUnimplementedAlertPresenter(UnimplementedAlertPresenter presenter) {
  unimplementedAlertPresenter.store(presenter, std::memory_order_release);
}

void OVAssertUnimplemented() {
  // The informative text is quoted exactly as users know it.
  constexpr const char* kMessage = "Under construction";
  constexpr const char* kInformative = "This part of application in not ready for regular use";
  if (auto presenter = unimplementedAlertPresenter.load(std::memory_order_acquire)) {
    presenter(kMessage, kInformative, "Quit");
  } else {
    // No interface toolkit to show the alert with: the texts go to standard error.
    std::fprintf(stderr, "%s\n%s\n[Quit]\n", kMessage, kInformative);
    std::fflush(stderr);
  }
  std::abort();
}

void OVAssertUnreachable() { std::abort(); }

void OVAssertAbstract() { std::abort(); }

void OVAssertOnQueue(const Ref<Queue>&) {}
void OVAssertOnMainQueue() {}
void OVAssertOnBackgroundQueue() {}

// The checked variants, compiled into the library for code built with
// FENNICK_CHECK_QUEUES.
inline namespace queue_checks {
namespace {

std::string currentLabel() {
  const Ref<Queue> current = Queue::current();
  return current ? "\"" + current->label() + "\"" : std::string("no queue");
}

[[noreturn]] void failCheck(const char* check, const std::string& expected) {
  std::fprintf(stderr, "%s failed: expected %s, running on %s\n", check, expected.c_str(),
               currentLabel().c_str());
  std::fflush(stderr);
  std::abort();
}

}  // namespace

void OVAssertOnQueue(const Ref<Queue>& queue) {
  if (!queue) failCheck("OVAssertOnQueue", "a queue (none was given)");
  if (!queue->isCurrent()) failCheck("OVAssertOnQueue", "queue \"" + queue->label() + "\"");
}

void OVAssertOnMainQueue() {
  const Ref<Queue> main = dispatch::mainQueue();
  if (!main->isCurrent()) failCheck("OVAssertOnMainQueue", "queue \"" + main->label() + "\"");
}

void OVAssertOnBackgroundQueue() {
  if (dispatch::mainQueue()->isCurrent()) {
    failCheck("OVAssertOnBackgroundQueue", "a queue other than the main queue");
  }
}

}  // namespace queue_checks

}  // namespace fennick
