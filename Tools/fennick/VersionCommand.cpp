// fennick version compare A B | fennick version sort [--reverse]
#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "DataCommands.h"

namespace fennick::tool {

namespace {

int compareCommand(const std::vector<std::string>& words) {
  if (words.size() != 3) return usageError("version", "compare takes two versions");
  std::printf("%d\n", VersionOrder::compareVersions(words[1], words[2]));
  return kExitOK;
}

int sortCommand(const std::vector<std::string>& words, bool reverse) {
  if (words.size() != 1) return usageError("version", "sort reads the versions from standard input");
  std::vector<std::string> lines;
  for (std::string line; std::getline(std::cin, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(std::move(line));
  }
  // Stable, so that versions the order counts as the same keep their input order.
  std::stable_sort(lines.begin(), lines.end(), [reverse](const std::string& a, const std::string& b) {
    return VersionOrder::compareVersions(a, b) == (reverse ? 1 : -1);
  });
  for (const std::string& line : lines) std::printf("%s\n", line.c_str());
  return kExitOK;
}

int runVersion(const Arguments& arguments) {
  const auto& words = arguments.positional();
  if (words[0] == "compare") return compareCommand(words);
  if (words[0] == "sort") return sortCommand(words, arguments.has("reverse"));
  return usageError("version", "unknown subcommand '" + words[0] + "'");
}

}  // namespace

FENNICK_TOOL_COMMAND({.name = "version",
                      .summary = "compare and sort version strings",
                      .usage = "usage: fennick version compare VERSION1 VERSION2\n"
                               "       fennick version sort [--reverse] < LINES\n\n"
                               "compare prints -1, 0 or 1 as VERSION1 is lower than, the same as or\n"
                               "higher than VERSION2. sort prints the lines of standard input ordered\n"
                               "by version, lowest first (--reverse: highest first).\n\n"
                               "Versions are read as a person reads them: numbers by value (1.10 > 1.9),\n"
                               "words alphabetically (1.0b2 < 1.0rc1), a missing part as .0 (1.0 = 1),\n"
                               "a pre-release word below a release (1.0b1 < 1.0) and * above all (2.* > 2.99).\n"
                               "'fennick --version' prints the library's own version.\n",
                      .options = {{.longName = "reverse", .shortName = 'r'}},
                      .minArguments = 1,
                      .maxArguments = 3,
                      .run = runVersion});

}  // namespace fennick::tool
