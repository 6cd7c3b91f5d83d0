#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <string_view>
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
constexpr const char* kInChild = "FENNICK_BENCH_CHILD";

bool insideNamespace() { return std::getenv(kInNamespace) != nullptr; }
bool insideChild() { return std::getenv(kInChild) != nullptr; }

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

bool namespacesAvailable() {
  static const bool available = std::system("unshare -rn true >/dev/null 2>&1") == 0;
  return available;
}

// Runs one comparison in a process of its own (in a new user and network
// namespace when it needs one), so that what an earlier comparison left in
// the heap (a million rows, buffers of hundreds of megabytes) does not weigh
// on a later one. Its output passes through; its summary lines are kept.
bool runInChild(const Comparison& comparison, int repetitions, const std::vector<char*>& rest,
                std::vector<std::string>& summary) {
  if (comparison.options.networkNamespace && !namespacesAvailable()) {
    summary.push_back("skip " + comparison.name + ": network namespaces are unavailable here (unshare -rn failed)");
    std::printf("%s\n", summary.back().c_str());
    return true;
  }
  std::string command = std::string(kInChild) + "=1 ";
  if (comparison.options.networkNamespace) command += std::string(kInNamespace) + "=1 unshare -rn ";
  command += quoted(std::filesystem::read_symlink("/proc/self/exe"));
  command += " " + quoted("--filter=^" + comparison.name + "$") + " --repetitions=" + std::to_string(repetitions);
  for (std::size_t i = 1; i < rest.size(); ++i) command += " " + quoted(rest[i]);
  std::fflush(stdout);
  FILE* output = ::popen(command.c_str(), "r");
  if (!output) return false;
  char line[4096];
  while (std::fgets(line, sizeof line, output)) {
    std::fputs(line, stdout);
    const std::string_view text(line);
    if (text.starts_with("ratio ") || text.starts_with("range ") || text.starts_with("skip "))
      summary.emplace_back(text.substr(0, text.find('\n')));
  }
  std::fflush(stdout);
  return ::pclose(output) == 0;
}

int runEachInItsOwnProcess(const std::regex& filter, int repetitions, const std::vector<char*>& rest) {
  std::vector<std::string> summary;
  bool allRan = true;
  for (const Comparison& comparison : comparisons()) {
    if (!std::regex_search(comparison.name, filter)) continue;
    allRan = runInChild(comparison, repetitions, rest, summary) && allRan;
  }
  std::printf("\n");
  for (const std::string& line : summary) std::printf("%s\n", line.c_str());
  return allRan ? 0 : 1;
}

}  // namespace

ComparisonRegistrar::ComparisonRegistrar(const char* name, Body fennick, Body peer, ComparisonOptions options) {
  comparisons().push_back({name, fennick, peer, options});
}

}  // namespace fennick::bench

// Each selected comparison runs in a child process of this program, its two
// sides interleaved; the summary lines of all of them follow at the end.
// Options of our own, before Google Benchmark's (which pass to the children):
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
  std::regex filter(filterText.empty() ? "." : filterText);
  if (!fennick::bench::insideChild()) return fennick::bench::runEachInItsOwnProcess(filter, repetitions, rest);
  int restCount = static_cast<int>(rest.size());
  benchmark::Initialize(&restCount, rest.data());
  fennick::bench::registerInterleaved(filter, repetitions);
  fennick::bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  fennick::bench::printRatios();
  return 0;
}
