// One property change delivered to one observer: key-value observation
// against GObject's property notification.
#include "Comparison.h"
#include "SharedSides.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <glib-object.h>

namespace fennick::bench {
namespace {

class Counter : public Object {
  FENNICK_DECLARE_CLASS(Counter, Object)

 public:
  static Ref<Counter> counter() { return make<Counter>(); }
  std::int64_t value() const { return value_; }
  void setValue(std::int64_t value) { value_ = value; }

 protected:
  Counter() = default;

 private:
  std::int64_t value_ = 0;
};

class CallCounter : public Object {
  FENNICK_DECLARE_CLASS(CallCounter, Object)

 public:
  static Ref<CallCounter> make_() { return make<CallCounter>(); }
  void observeValueForKeyPath_ofObject_change_context(const std::string&, const Id&,
                                                      const Ref<Dictionary>&, void*) override {
    ++calls;
  }
  std::int64_t calls = 0;

 protected:
  CallCounter() = default;
};

FENNICK_DEFINE_CLASS(Counter) { builder.observableProperty("value", &Counter::value, &Counter::setValue); }
FENNICK_DEFINE_CLASS(CallCounter) {}

}  // namespace

void kvoNotifyOneObserver(benchmark::State& state) {
  auto counter = Counter::counter();
  auto observer = CallCounter::make_();
  counter->addObserver_forKeyPath_options_context(observer, "value", NSKeyValueObservingOptionNew, nullptr);
  std::int64_t n = 0;
  for (auto _ : state) counter->setValueForKey(Number::of(++n), "value");
  counter->removeObserver_forKeyPath(observer.get(), "value");
  if (observer->calls != n) state.SkipWithError("lost notifications");
}

namespace {

// A GObject with one integer property.
struct BenchCounter {
  GObject parent;
  gint64 value;
};
struct BenchCounterClass {
  GObjectClass parent;
};
G_DEFINE_TYPE(BenchCounter, bench_counter, G_TYPE_OBJECT)

void benchCounterSetProperty(GObject* object, guint, const GValue* value, GParamSpec*) {
  reinterpret_cast<BenchCounter*>(object)->value = g_value_get_int64(value);
}
void benchCounterGetProperty(GObject* object, guint, GValue* value, GParamSpec*) {
  g_value_set_int64(value, reinterpret_cast<BenchCounter*>(object)->value);
}
void bench_counter_class_init(BenchCounterClass* cls) {
  auto* objectClass = G_OBJECT_CLASS(cls);
  objectClass->set_property = benchCounterSetProperty;
  objectClass->get_property = benchCounterGetProperty;
  g_object_class_install_property(
      objectClass, 1,
      g_param_spec_int64("value", "value", "value", G_MININT64, G_MAXINT64, 0, G_PARAM_READWRITE));
}
void bench_counter_init(BenchCounter*) {}

void onNotify(GObject*, GParamSpec*, gpointer calls) { ++*static_cast<std::int64_t*>(calls); }

void glibNotify(benchmark::State& state) {
  auto* counter = g_object_new(bench_counter_get_type(), nullptr);
  std::int64_t calls = 0, n = 0;
  g_signal_connect(counter, "notify::value", G_CALLBACK(onNotify), &calls);
  for (auto _ : state) g_object_set(counter, "value", static_cast<gint64>(++n), nullptr);
  g_object_unref(counter);
  if (calls != n) state.SkipWithError("lost notifications");
}

}  // namespace

FENNICK_COMPARISON(kvo_notify_vs_glib, kvoNotifyOneObserver, glibNotify, .goal = 1.5);

}  // namespace fennick::bench
