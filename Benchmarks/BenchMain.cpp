#include "Comparison.h"

#include <cstdio>
#include <map>
#include <string>

namespace fennick::bench {
namespace {

struct Times {
  double fennick = 0;
  double peer = 0;
};

std::map<std::string, Times>& results() {
  static std::map<std::string, Times> table;
  return table;
}

// Collects per-iteration times by comparison and side while the console
// reporter prints the usual table.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  // Plain text, so that the "ratio" lines start their lines.
  RatioReporter() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      const std::string name = run.benchmark_name();
      const auto slash = name.find('/');
      if (slash == std::string::npos) continue;
      const std::string side = name.substr(slash + 1, name.find('/', slash + 1) - slash - 1);
      const double perIteration = run.GetAdjustedRealTime();
      Times& times = results()[name.substr(0, slash)];
      (side == "fennick" ? times.fennick : times.peer) = perIteration;
    }
  }
};

}  // namespace

ComparisonRegistrar::ComparisonRegistrar(const char* name, Body fennick, Body peer,
                                         bool realTime) {
  auto* ours = benchmark::RegisterBenchmark((std::string(name) + "/fennick").c_str(), fennick);
  auto* theirs = benchmark::RegisterBenchmark((std::string(name) + "/peer").c_str(), peer);
  if (realTime) {
    ours->UseRealTime();
    theirs->UseRealTime();
  }
}

}  // namespace fennick::bench

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  fennick::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  for (const auto& [name, times] : fennick::bench::results()) {
    if (times.fennick > 0 && times.peer > 0)
      std::printf("ratio %s %.2f\n", name.c_str(), times.peer / times.fennick);
  }
  return 0;
}
