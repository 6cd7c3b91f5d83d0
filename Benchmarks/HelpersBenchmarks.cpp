// The coordination helpers against what a C++ programmer would otherwise use:
// GLib signals for fan-out, a futures-based coalescer, a hand-written switch
// for the action life cycle, and GCancellable for cancellation.
#include "Comparison.h"
#include "SharedSides.h"

#include "fennick/Helpers/Coordination/OVCancellation.h"
#include "fennick/Helpers/Proactor/OVProactor.h"
#include "fennick/Helpers/Receptionist/OVReceptionist.h"
#include "fennick/Helpers/Coordination/OVStateMachine.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Number.h"

#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <gio/gio.h>
#include <glib-object.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace fennick::bench {
namespace {

// -- Fan-out: one change, 100 subscribers ----------------------------------------------

class Meter : public Object {
  FENNICK_DECLARE_CLASS(Meter, Object)
 public:
  static Ref<Meter> meter() { return make<Meter>(); }
  std::int64_t value() const { return value_; }
  void setValue(std::int64_t value) { value_ = value; }

 protected:
  Meter() = default;

 private:
  std::int64_t value_ = 0;
};
FENNICK_DEFINE_CLASS(Meter) { builder.observableProperty("value", &Meter::value, &Meter::setValue); }

constexpr int kSubscribers = 100;

void receptionistFanout(benchmark::State& state) {
  auto meter = Meter::meter();
  auto receptionist = OVReceptionist::init();
  std::int64_t calls = 0;
  for (int i = 0; i < kSubscribers; ++i)
    receptionist->startObservationOfObject_forKeyPath_changeBlock(
        meter, "value", [&calls](const Id&, const std::string&, const Id&, const Id&) { ++calls; });
  std::int64_t n = 0;
  for (auto _ : state) meter->setValueForKey(Number::of(++n), "value");
  if (calls != n * kSubscribers) state.SkipWithError("lost deliveries");
}

struct Emitter {
  GObject parent;
};
struct EmitterClass {
  GObjectClass parent;
};
G_DEFINE_TYPE(Emitter, bench_emitter, G_TYPE_OBJECT)
guint changedSignal;
void bench_emitter_class_init(EmitterClass* cls) {
  changedSignal = g_signal_new("changed", G_TYPE_FROM_CLASS(cls), G_SIGNAL_RUN_LAST, 0, nullptr,
                               nullptr, nullptr, G_TYPE_NONE, 1, G_TYPE_INT64);
}
void bench_emitter_init(Emitter*) {}
void onChanged(gpointer, gint64, gpointer calls) { ++*static_cast<std::int64_t*>(calls); }

void glibSignalFanout(benchmark::State& state) {
  auto* emitter = g_object_new(bench_emitter_get_type(), nullptr);
  std::int64_t calls = 0, n = 0;
  for (int i = 0; i < kSubscribers; ++i) g_signal_connect(emitter, "changed", G_CALLBACK(onChanged), &calls);
  for (auto _ : state) g_signal_emit(emitter, changedSignal, 0, static_cast<gint64>(++n));
  g_object_unref(emitter);
  if (calls != n * kSubscribers) state.SkipWithError("lost deliveries");
}

// -- Coalescing: 100,000 requests over 1,000 arguments --------------------------------

constexpr int kRequests = 100'000;
constexpr int kArguments = 1'000;

class Countdown {
 public:
  explicit Countdown(int count) : left_(count) {}
  void hit() {
    if (left_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      std::lock_guard lock(mutex_);
      done_.notify_all();
    }
  }
  void wait() {
    std::unique_lock lock(mutex_);
    done_.wait(lock, [&] { return left_.load() <= 0; });
  }

 private:
  std::atomic<int> left_;
  std::mutex mutex_;
  std::condition_variable done_;
};

void proactorCoalescing(benchmark::State& state) {
  std::vector<Id> arguments;
  for (int i = 0; i < kArguments; ++i) arguments.push_back(Number::of(i));
  for (auto _ : state) {
    auto proactor = OVProactor::init();
    auto group = proactor->addGroupWithID_startsActionAutomatically_handlerBlock(
        "work"_s, true, [](const Ref<OVProactorAction>& action) {
          action->setObject_forKey(action->argument(), "value"_s);
          action->complete();
        });
    Countdown left(kRequests);
    for (int i = 0; i < kRequests; ++i)
      group->actionForArgument(arguments[static_cast<std::size_t>(i % kArguments)])
          ->addCompletionHandler([&left](const Ref<OVProactorResult>&) { left.hit(); });
    left.wait();
  }
}

// A coalescer as one would write it with futures on a thread pool.
class FutureCoalescer {
 public:
  explicit FutureCoalescer(asio::thread_pool& pool) : pool_(pool) {}
  void request(int argument, std::function<void(int)> handler) {
    std::shared_future<int> future;
    {
      std::lock_guard lock(mutex_);
      auto [it, inserted] = futures_.try_emplace(argument);
      if (inserted) {
        auto promise = std::make_shared<std::promise<int>>();
        it->second = promise->get_future().share();
        asio::post(pool_, [promise, argument] { promise->set_value(argument); });
      }
      future = it->second;
    }
    asio::post(pool_, [future, handler = std::move(handler)] { handler(future.get()); });
  }

 private:
  asio::thread_pool& pool_;
  std::mutex mutex_;
  std::unordered_map<int, std::shared_future<int>> futures_;
};

void futuresCoalescing(benchmark::State& state) {
  asio::thread_pool pool(std::thread::hardware_concurrency());
  for (auto _ : state) {
    FutureCoalescer coalescer(pool);
    Countdown left(kRequests);
    for (int i = 0; i < kRequests; ++i) coalescer.request(i % kArguments, [&left](int) { left.hit(); });
    left.wait();
  }
  pool.join();
}

// -- One action through the twelve-rule table -----------------------------------------

Ref<OVStateMachine> lifeCycleMachine(std::int64_t& effects) {
  auto machine = OVStateMachine::initWithTarget_initialState(nullptr, Number::of(0));
  auto count = [&effects](const Ref<OVStateMachineTransitionInfo>&) { ++effects; };
  auto n = [](std::int64_t v) -> Id { return Number::of(v); };
  machine->addTransitionOnAction_fromState_toState_handler(n(0), n(0), n(1), count);
  machine->addTransitionOnAction_fromState_toState_handler(n(1), n(0), n(1), count);
  machine->addTransitionOnAction_fromState_toState_handler(n(1), n(3), n(1), count);
  machine->addTransitionOnAction_fromStates_toState_handler(n(2), Array::arrayWithObjects({n(1), n(2)}), n(2), count);
  machine->addTransitionOnAction_fromState_toState_handler(n(3), n(2), n(3), count);
  machine->addTransitionOnAction_fromState_toState_handler(n(4), n(0), nullptr, count);
  machine->addTransitionOnAction_fromStates_toState_handler(n(4), Array::arrayWithObjects({n(1), n(2)}), nullptr, count);
  machine->addTransitionOnAction_fromState_toState_handler(n(4), n(3), nullptr, count);
  machine->addTransitionOnAction_fromState_toState_handler(n(5), nullptr, nullptr, count);
  machine->addTransitionOnAction_fromState_toState_handler(n(6), n(3), n(0), count);
  return machine;
}

// Start, complete, finish, reset: a whole life cycle is four actions; the
// benchmark counts one action per iteration.
constexpr std::int64_t kCycle[] = {0, 2, 3, 6};

}  // namespace

void stateMachineLifeCycle(benchmark::State& state) {
  std::int64_t effects = 0;
  auto machine = lifeCycleMachine(effects);
  Id actions[4];
  for (int i = 0; i < 4; ++i) actions[i] = Number::of(kCycle[i]);
  std::size_t step = 0;
  for (auto _ : state) machine->performAction_userInfo(actions[step++ & 3], nullptr);
  if (effects != static_cast<std::int64_t>(step)) state.SkipWithError("rules did not fire");
}

namespace {

void switchAction(benchmark::State& state) {
  volatile std::int64_t stateValue = 0;
  std::int64_t effects = 0;
  std::size_t step = 0;
  for (auto _ : state) {
    const std::int64_t action = kCycle[step++ & 3];
    const std::int64_t from = stateValue;
    switch (action) {
      case 0: if (from == 0) { stateValue = 1; ++effects; } break;
      case 1: if (from == 0 || from == 3) { stateValue = 1; ++effects; } break;
      case 2: if (from == 1 || from == 2) { stateValue = 2; ++effects; } break;
      case 3: if (from == 2) { stateValue = 3; ++effects; } break;
      case 4: ++effects; break;
      case 5: ++effects; break;
      case 6: if (from == 3) { stateValue = 0; ++effects; } break;
    }
    benchmark::DoNotOptimize(effects);
  }
  if (effects != static_cast<std::int64_t>(step)) state.SkipWithError("cases did not fire");
}

// -- Cancellation: make, add a handler, cancel, wait for the handler --------------------

void waitUntil(const std::atomic<bool>& flag) {
  while (!flag.load(std::memory_order_acquire)) std::this_thread::yield();
}

void tokenCancellation(benchmark::State& state) {
  for (auto _ : state) {
    auto token = OVCancellationToken::init();
    std::atomic<bool> ran{false};
    token->addCancellationHandler([&ran] { ran.store(true, std::memory_order_release); });
    token->cancel();
    waitUntil(ran);
  }
}

void onCancelled(GCancellable*, gpointer ran) {
  static_cast<std::atomic<bool>*>(ran)->store(true, std::memory_order_release);
}

void gcancellableCancellation(benchmark::State& state) {
  for (auto _ : state) {
    GCancellable* cancellable = g_cancellable_new();
    std::atomic<bool> ran{false};
    g_cancellable_connect(cancellable, G_CALLBACK(onCancelled), &ran, nullptr);
    g_cancellable_cancel(cancellable);
    waitUntil(ran);
    g_object_unref(cancellable);
  }
}

}  // namespace

FENNICK_COMPARISON(receptionist_fanout_vs_glib_signal, receptionistFanout, glibSignalFanout, .goal = 0.5);
FENNICK_COMPARISON(proactor_coalescing_vs_futures, proactorCoalescing, futuresCoalescing, .goal = 0.5);
FENNICK_COMPARISON(state_machine_vs_switch, stateMachineLifeCycle, switchAction, .goal = 0.1);
FENNICK_COMPARISON(cancellation_token_vs_gcancellable, tokenCancellation, gcancellableCancellation, .goal = 1);

}  // namespace fennick::bench
