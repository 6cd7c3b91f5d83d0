#pragma once
// Fennick sides that comparisons in several files share, so that each peer is
// measured against exactly the same work.
#include <benchmark/benchmark.h>

namespace fennick::bench {

/// One action per iteration through the proactor's twelve-rule table, cycling
/// through a whole life cycle: start, complete, finish, reset.
void stateMachineLifeCycle(benchmark::State& state);

/// One change of an observable property, set through key-value coding, with
/// one observer.
void kvoNotifyOneObserver(benchmark::State& state);

}  // namespace fennick::bench
