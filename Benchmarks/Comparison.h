#pragma once
// A comparison measures one Fennick operation and the same work done by a
// peer library in the same run. The driver prints
//     ratio <name> <peer time / Fennick time>
// so a value above 1 means Fennick is faster.
#include <benchmark/benchmark.h>

#include <string>

namespace fennick::bench {

using Body = void (*)(benchmark::State&);

struct ComparisonRegistrar {
  ComparisonRegistrar(const char* name, Body fennick, Body peer, bool realTime);
};

}  // namespace fennick::bench

// Registers "<name>/fennick" and "<name>/peer". Bodies must do the same work per
// iteration. Real (wall) time is compared, so multi-threaded work counts fully.
#define FENNICK_COMPARISON(name, fennickBody, peerBody) \
  static ::fennick::bench::ComparisonRegistrar name##_registrar(#name, fennickBody, peerBody, true)
