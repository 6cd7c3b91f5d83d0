#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "Comparison.h"

namespace fennick::bench {
namespace {

struct Comparison {
  std::string name;
  Body fennick;
  Body peer;
  ComparisonOptions options;
};

struct Times {
  std::vector<double> fennick;
  std::vector<double> peer;
  std::string skipped;
};

std::vector<Comparison>& comparisons() {
  static std::vector<Comparison> all;
  return all;
}

std::map<std::string, Times>& results() {
  static std::map<std::string, Times> table;
  return table;
}

// Collects per-repetition times by comparison and side while the console
// reporter prints the usual table. Names are "<comparison>/<side>/<repetition>".
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  // Plain text, so that the "ratio" lines start their lines.
  RatioReporter() : ConsoleReporter(OO_Tabular) {}
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      const std::string name = run.benchmark_name();
      const auto slash = name.find('/');
      if (slash == std::string::npos) continue;
      const std::string side = name.substr(slash + 1, name.find('/', slash + 1) - slash - 1);
      Times& times = results()[name.substr(0, slash)];
      if (run.error_occurred) {
        if (times.skipped.empty()) times.skipped = side + ": " + run.error_message;
        continue;
      }
      if (run.run_type != Run::RT_Iteration) continue;
      (side == "fennick" ? times.fennick : times.peer).push_back(run.GetAdjustedRealTime());
    }
  }
};

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

constexpr const char* kInNamespace = "FENNICK_BENCH_IN_NETNS";

bool insideNamespace() { return std::getenv(kInNamespace) != nullptr; }

// This process runs the comparisons that fit where it is: inside the private
// namespace only those that need it, outside only the others.
bool runsHere(const Comparison& comparison, const std::regex& filter) {
  return std::regex_search(comparison.name, filter) && comparison.options.networkNamespace == insideNamespace();
}

void registerInterleaved(const std::regex& filter, int repetitions) {
  for (const Comparison& comparison : comparisons()) {
    if (!runsHere(comparison, filter)) continue;
    for (int r = 0; r < repetitions; ++r) {
      for (bool ours : {true, false}) {
        const std::string name = comparison.name + (ours ? "/fennick/" : "/peer/") + std::to_string(r);
        auto* bench = benchmark::RegisterBenchmark(name.c_str(), ours ? comparison.fennick : comparison.peer);
        bench->UseRealTime();
        if (comparison.options.iterations > 0) bench->Iterations(comparison.options.iterations);
        else bench->MinTime(comparison.options.minTime);
      }
    }
  }
}

void printRatios() {
  std::printf("\n");
  for (const Comparison& comparison : comparisons()) {
    auto found = results().find(comparison.name);
    if (found == results().end()) continue;
    const Times& times = found->second;
    if (!times.skipped.empty()) {
      std::printf("skip %s: %s\n", comparison.name.c_str(), times.skipped.c_str());
      continue;
    }
    const std::size_t n = std::min(times.fennick.size(), times.peer.size());
    if (n == 0) continue;
    std::vector<double> ratios;
    for (std::size_t i = 0; i < n; ++i) ratios.push_back(times.peer[i] / times.fennick[i]);
    const double ratio = median(times.peer) / median(times.fennick);
    const double goal = comparison.options.goal;
    if (goal > 0)
      std::printf("ratio %s %.2f  (goal >= %g: %s)\n", comparison.name.c_str(), ratio, goal,
                  ratio >= goal ? "met" : "missed");
    else
      std::printf("ratio %s %.2f  (recorded, no goal)\n", comparison.name.c_str(), ratio);
    std::printf("range %s %.2f %.2f\n", comparison.name.c_str(),
                *std::min_element(ratios.begin(), ratios.end()), *std::max_element(ratios.begin(), ratios.end()));
  }
}

std::string quoted(const std::string& text) {
  std::string result = "'";
  for (char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return result + "'";
}

// Starts this program again in a new user and network namespace for the
// comparisons that need one; their lines follow this process's own.
int runNamespaceComparisons(const std::regex& filter, int repetitions, const std::vector<char*>& rest) {
  std::string names;
  std::vector<std::string> selected;
  for (const Comparison& comparison : comparisons()) {
    if (!comparison.options.networkNamespace || !std::regex_search(comparison.name, filter)) continue;
    names += (names.empty() ? "" : "|") + comparison.name;
    selected.push_back(comparison.name);
  }
  if (selected.empty()) return 0;
  std::fflush(stdout);
  if (std::system("unshare -rn true >/dev/null 2>&1") != 0) {
    for (const auto& name : selected)
      std::printf("skip %s: network namespaces are unavailable here (unshare -rn failed)\n", name.c_str());
    return 0;
  }
  std::string command = std::string(kInNamespace) + "=1 unshare -rn " +
                        quoted(std::filesystem::read_symlink("/proc/self/exe"));
  command += " " + quoted("--filter=^(" + names + ")$") + " --repetitions=" + std::to_string(repetitions);
  for (std::size_t i = 1; i < rest.size(); ++i) command += " " + quoted(rest[i]);
  return std::system(command.c_str()) == 0 ? 0 : 1;
}

}  // namespace

ComparisonRegistrar::ComparisonRegistrar(const char* name, Body fennick, Body peer, ComparisonOptions options) {
  comparisons().push_back({name, fennick, peer, options});
}

}  // namespace fennick::bench

// Options of our own, before Google Benchmark's:
//   --filter=REGEX       only comparisons whose name matches
//   --repetitions=N      interleaved repetitions per side (default 5)
int main(int argc, char** argv) {
  std::string filterText;
  int repetitions = 5;
  std::vector<char*> rest;
  for (int i = 0; i < argc; ++i) {
    if (std::strncmp(argv[i], "--filter=", 9) == 0) filterText = argv[i] + 9;
    else if (std::strncmp(argv[i], "--repetitions=", 14) == 0) repetitions = std::max(1, std::atoi(argv[i] + 14));
    else rest.push_back(argv[i]);
  }
  int restCount = static_cast<int>(rest.size());
  benchmark::Initialize(&restCount, rest.data());
  std::regex filter(filterText.empty() ? "." : filterText);
  fennick::bench::registerInterleaved(filter, repetitions);
  fennick::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  fennick::bench::printRatios();
  if (fennick::bench::insideNamespace()) return 0;
  return fennick::bench::runNamespaceComparisons(filter, repetitions, rest);
}
