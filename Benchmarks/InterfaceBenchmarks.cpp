// The main queue under GLib's main loop against GLib's own hand-over, and the
// cost of the error presentation layer over a direct recovery call.
#include <glib.h>

#include <atomic>
#include <thread>

#include "Comparison.h"
#include "fennick/AppKitExtensions/HeadlessBackend.h"
#include "fennick/AppKitExtensions/OVErrorPresentationController.h"
#include "fennick/Dispatch/GLibMainContext.h"
#include "fennick/Dispatch/Main.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace {

using namespace fennick;

constexpr int kRoundTrips = 2'000;

// main_queue_wakeup_vs_g_idle_add: another thread hands a callback to the
// thread in g_main_loop_run and waits until it ran, kRoundTrips times. Each
// round trip is one wake-up of a sleeping loop.

struct RoundTrips {
  std::atomic<int> ran{0};
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  ~RoundTrips() { g_main_loop_unref(loop); }

  void markRan() {
    ran.fetch_add(1, std::memory_order_release);
    ran.notify_one();
  }
  // Sleeps, so that the waiting thread leaves the core to the loop.
  void waitFor(int count) const {
    for (int seen = ran.load(std::memory_order_acquire); seen < count; seen = ran.load(std::memory_order_acquire)) {
      ran.wait(seen, std::memory_order_acquire);
    }
  }
  // Runs the loop on this (the main) thread while `submit` hands over each callback.
  template <class Submit>
  void run(Submit submit) {
    std::thread submitter([&] {
      for (int i = 1; i <= kRoundTrips; ++i) {
        submit();
        waitFor(i);
      }
      g_main_loop_quit(loop);
    });
    g_main_loop_run(loop);
    submitter.join();
  }
};

void mainQueueWakeupFennick(benchmark::State& state) {
  if (!dispatch::isMainThread()) return state.SkipWithError("benchmarks must run on the main thread");
  dispatch::attachMainQueueToGLibMainContext();
  for (auto _ : state) {
    RoundTrips trips;
    trips.run([&] { dispatch::mainQueue()->async([&] { trips.markRan(); }); });
  }
}

void mainQueueWakeupPeer(benchmark::State& state) {
  if (!dispatch::isMainThread()) return state.SkipWithError("benchmarks must run on the main thread");
  for (auto _ : state) {
    RoundTrips trips;
    trips.run([&] {
      g_main_context_invoke(nullptr, [](gpointer data) {
        static_cast<RoundTrips*>(data)->markRan();
        return G_SOURCE_REMOVE;
      }, &trips);
    });
  }
}

FENNICK_COMPARISON(main_queue_wakeup_vs_g_idle_add, mainQueueWakeupFennick, mainQueueWakeupPeer, .goal = 0.8);

// headless_presentation_vs_direct_calls: an error with three options passes
// two validators, is shown modally by the headless backend, answered with the
// second option and recovered; the peer calls the same recovery block.

class PassValidator : public Object {
  FENNICK_DECLARE_CLASS(PassValidator, Object)

 public:
  Ref<Error> validate(const Ref<Error>& error) { return error; }

 protected:
  PassValidator() = default;
};

FENNICK_DEFINE_CLASS(PassValidator) { builder.method("validate:", &PassValidator::validate); }

struct Recovery {
  std::uint64_t recovered = 0;
  Error::RecoveryAttemptBlock block = [this](const Ref<Error>&, std::uint64_t option) -> Ref<Error> {
    recovered += option;
    return nullptr;
  };
  Ref<Error> error = Error::errorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo_recoveryAttemptBlock(
      "bench", 1, "Failed", "Try again",
      Array::arrayWithObjects({String::string("Retry"), String::string("Skip"), String::string("Cancel")}), nullptr,
      block);
};

void headlessPresentationFennick(benchmark::State& state) {
  if (!dispatch::isMainThread()) return state.SkipWithError("benchmarks must run on the main thread");
  auto backend = HeadlessBackend::create();
  backend->setResponder([](const Ref<HeadlessPresentation>& shown) { shown->pressButton(1); });
  setInterfaceBackend(backend);
  auto controller = OVErrorPresentationController::init();
  controller->setArraysOfValidatorInfosByErrorDomain(Dictionary::dictionary());
  auto validator = make<PassValidator>();
  for (int i = 0; i < 2; ++i) controller->addValidator_selector_forErrorDomain(validator, Selector::named("validate:"), "bench");
  Recovery recovery;
  std::int64_t responses = 0;
  for (auto _ : state) {
    controller->presentError_atWindow_completion(recovery.error, nullptr, [&](std::int64_t response) { responses += response; });
    backend->removeAllPresentations();
  }
  benchmark::DoNotOptimize(responses);
  setInterfaceBackend(nullptr);
}

void headlessPresentationPeer(benchmark::State& state) {
  Recovery recovery;
  for (auto _ : state) benchmark::DoNotOptimize(recovery.block(recovery.error, 1));
  benchmark::DoNotOptimize(recovery.recovered);
}

FENNICK_COMPARISON(headless_presentation_vs_direct_calls, headlessPresentationFennick, headlessPresentationPeer);

}  // namespace
