// The state machine and key-value observation against Qt 5 Core, which a C++
// programmer would reach for first: QStateMachine with signal transitions, and
// a Q_PROPERTY whose NOTIFY signal is connected to a slot.
#include "Comparison.h"
#include "SharedSides.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Number.h"

#include <QCoreApplication>
#include <QSignalTransition>
#include <QState>
#include <QStateMachine>

#include <array>

namespace fennick::bench {
namespace {

// QStateMachine enters its initial state from the event loop, which needs an
// application object; it lives until the process ends.
void ensureApplication() {
  static int argc = 1;
  static char name[] = "fennick_bench";
  static char* argv[] = {name, nullptr};
  static QCoreApplication* application = new QCoreApplication(argc, argv);
  (void)application;
}

// -- The action life cycle ------------------------------------------------------------

// One signal per action of the proactor's table.
class LifeCycleEvents : public QObject {
  Q_OBJECT

 signals:
  void start();
  void restart();
  void complete();
  void finish();
  void addCompletionHandler();
  void addCompletionHook();
  void reset();
};

// The proactor's twelve rules as QStateMachine transitions, each counting its
// effect as the Fennick rules' handlers do.
class LifeCycleMachine {
 public:
  LifeCycleMachine() {
    for (auto*& state : states_) state = new QState(&machine_);
    auto [idle, running, completing, completed] = states_;
    rule(idle, &LifeCycleEvents::start, running);
    rule(idle, &LifeCycleEvents::restart, running);
    rule(completed, &LifeCycleEvents::restart, running);
    rule(running, &LifeCycleEvents::complete, completing);
    rule(completing, &LifeCycleEvents::complete, completing);
    rule(completing, &LifeCycleEvents::finish, completed);
    for (QState* state : states_) rule(state, &LifeCycleEvents::addCompletionHandler, nullptr);
    rule(&machine_, &LifeCycleEvents::addCompletionHook, nullptr);  // in any state
    rule(completed, &LifeCycleEvents::reset, idle);
    machine_.setInitialState(idle);
    machine_.start();
    while (!machine_.configuration().contains(idle)) QCoreApplication::processEvents();
  }
  LifeCycleEvents& events() { return events_; }
  std::int64_t effects() const { return effects_; }
  bool isIdle() const { return machine_.configuration().contains(states_[0]); }

 private:
  void rule(QState* from, void (LifeCycleEvents::*signal)(), QAbstractState* to) {
    QSignalTransition* transition = from->addTransition(&events_, signal, to);
    QObject::connect(transition, &QAbstractTransition::triggered, [this] { ++effects_; });
  }

  LifeCycleEvents events_;
  QStateMachine machine_;
  std::array<QState*, 4> states_{};
  std::int64_t effects_ = 0;
};

void qStateMachineLifeCycle(benchmark::State& state) {
  ensureApplication();
  LifeCycleMachine machine;
  auto& events = machine.events();
  const std::array<void (LifeCycleEvents::*)(), 4> cycle = {&LifeCycleEvents::start, &LifeCycleEvents::complete,
                                                            &LifeCycleEvents::finish, &LifeCycleEvents::reset};
  std::int64_t step = 0;
  for (auto _ : state) {
    (events.*cycle[static_cast<std::size_t>(step++ & 3)])();
    // Signal transitions run when the machine processes its event queue; a
    // whole cycle must have run before it counts.
    if ((step & 3) == 0) QCoreApplication::processEvents();
  }
  QCoreApplication::processEvents();
  if (machine.effects() != step) state.SkipWithError("transitions did not fire");
}

// -- One property change, one observer -----------------------------------------------

class QtCounter : public QObject {
  Q_OBJECT
  Q_PROPERTY(qint64 value READ value WRITE setValue NOTIFY valueChanged)

 public:
  qint64 value() const { return value_; }
  void setValue(qint64 value) {
    if (value == value_) return;
    value_ = value;
    emit valueChanged(value);
  }

 signals:
  void valueChanged(qint64 value);

 private:
  qint64 value_ = 0;
};

class QtObserver : public QObject {
  Q_OBJECT

 public:
  qint64 calls = 0;

 public slots:
  void valueChanged(qint64) { ++calls; }
};

void qtPropertyNotify(benchmark::State& state) {
  ensureApplication();
  QtCounter counter;
  QtObserver observer;
  QObject::connect(&counter, &QtCounter::valueChanged, &observer, &QtObserver::valueChanged);
  qint64 n = 0;
  for (auto _ : state) counter.setProperty("value", QVariant::fromValue(++n));
  if (observer.calls != n) state.SkipWithError("lost notifications");
}

}  // namespace

FENNICK_COMPARISON(state_machine_vs_qstatemachine, stateMachineLifeCycle, qStateMachineLifeCycle, .goal = 3);
FENNICK_COMPARISON(kvo_notify_vs_qt_property, kvoNotifyOneObserver, qtPropertyNotify, .goal = 1.5);

}  // namespace fennick::bench

#include "QtBenchmarks.moc"
