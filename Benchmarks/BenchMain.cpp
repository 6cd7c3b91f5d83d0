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

// Two decimals, or two significant digits for ratios far below one.
std::string figure(double ratio) {
  char text[32];
  std::snprintf(text, sizeof text, ratio >= 0.1 ? "%.2f" : "%.2g", ratio);
  return text;
}

// A per-iteration time (nanoseconds) in a readable unit.
std::string duration(double nanoseconds) {
  char text[32];
  if (nanoseconds < 1e3) std::snprintf(text, sizeof text, "%.3g ns", nanoseconds);
  else if (nanoseconds < 1e6) std::snprintf(text, sizeof text, "%.3g us", nanoseconds / 1e3);
  else if (nanoseconds < 1e9) std::snprintf(text, sizeof text, "%.3g ms", nanoseconds / 1e6);
  else std::snprintf(text, sizeof text, "%.3g s", nanoseconds / 1e9);
  return text;
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
    const double ours = median(times.fennick), theirs = median(times.peer);
    const double ratio = theirs / ours;
    const std::string costs = duration(ours) + " against " + duration(theirs);
    const double goal = comparison.options.goal;
    if (goal > 0)
      std::printf("ratio %s %s  (goal >= %g: %s; %s)\n", comparison.name.c_str(), figure(ratio).c_str(), goal,
                  ratio >= goal ? "met" : "missed", costs.c_str());
    else
      std::printf("ratio %s %s  (recorded, no goal; %s)\n", comparison.name.c_str(), figure(ratio).c_str(),
                  costs.c_str());
    std::printf("range %s %s %s\n", comparison.name.c_str(), figure(*std::min_element(ratios.begin(), ratios.end())).c_str(),
                figure(*std::max_element(ratios.begin(), ratios.end())).c_str());
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
