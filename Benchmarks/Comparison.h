#pragma once
// A comparison measures one Fennick operation and the same work done by a
// peer in the same run. Each side runs several times, alternating with the
// other, and the driver prints
//     ratio <name> <median peer time / median Fennick time>  (goal; both medians)
//     range <name> <lowest> <highest per-repetition ratio>
// so a value above 1 means Fennick is faster. A side that cannot run here (a
// missing namespace, tool or daemon) calls state.SkipWithError("why"); the
// driver then prints "skip <name>: why" instead of a ratio.
#include <benchmark/benchmark.h>

namespace fennick::bench {

using Body = void (*)(benchmark::State&);

struct ComparisonOptions {
  double goal = 0;        // the ratio to reach; 0 when the line only records a cost
  int iterations = 0;     // fixed iterations per repetition; 0 lets the library choose
  double minTime = 0.2;   // seconds per repetition when iterations is 0
  // Runs in a private user and network namespace: the driver starts itself
  // again under `unshare -rn` for these comparisons.
  bool networkNamespace = false;
};

struct ComparisonRegistrar {
  ComparisonRegistrar(const char* name, Body fennick, Body peer, ComparisonOptions options);
};

}  // namespace fennick::bench

// FENNICK_COMPARISON(name, fennickBody, peerBody, .goal = 1.5, .iterations = 3)
// Bodies must do the same work per iteration; wall time is compared, so
// multi-threaded work counts fully.
#define FENNICK_COMPARISON(name, fennickBody, peerBody, ...)                                         \
  static ::fennick::bench::ComparisonRegistrar name##_registrar(#name, fennickBody, peerBody, \
                                                                ::fennick::bench::ComparisonOptions{__VA_ARGS__})
