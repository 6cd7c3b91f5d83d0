// The fennick command-line tool: one subcommand per capability of the
// framework. Commands register themselves (see Command.h); this file is the
// front door that lists them, shows their usage and dispatches.
#include <fennick/Version.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "Command.h"

namespace {

using namespace fennick::tool;

void printCommands(std::FILE* out) {
  std::fprintf(out, "usage: fennick COMMAND [OPTIONS] [ARGUMENTS]\n\ncommands:\n");
  std::size_t width = 4;
  for (const auto& [name, command] : commands()) width = std::max(width, name.size());
  for (const auto& [name, command] : commands())
    std::fprintf(out, "  %-*.*s  %.*s\n", static_cast<int>(width), static_cast<int>(name.size()), name.data(),
                 static_cast<int>(command.summary.size()), command.summary.data());
  std::fprintf(out,
               "\n'fennick help COMMAND' or 'fennick COMMAND --help' shows a command's usage;\n"
               "'fennick --version' prints the library version.\n");
}

void printUsage(const Command& command, std::FILE* out) {
  std::fprintf(out, "%.*s", static_cast<int>(command.usage.size()), command.usage.data());
}

int unknownCommand(std::string_view word) {
  std::fprintf(stderr, "fennick: unknown %s '%.*s'\n", word.starts_with("-") ? "option" : "command",
               static_cast<int>(word.size()), word.data());
  printCommands(stderr);
  return kExitUsage;
}

const Command* find(std::string_view name) {
  auto found = commands().find(name);
  return found == commands().end() ? nullptr : &found->second;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view first = argc > 1 ? argv[1] : "";
  if (argc < 2 || first == "--help" || first == "-h" || (first == "help" && argc == 2)) {
    printCommands(stdout);
    return kExitOK;
  }
  if (first == "--version") {
    std::printf("fennick %s\n", fennick::versionString());
    return kExitOK;
  }
  if (first == "help") {
    if (argc > 3) return unknownCommand(argv[3]);
    const Command* command = find(argv[2]);
    if (!command) return unknownCommand(argv[2]);
    printUsage(*command, stdout);
    return kExitOK;
  }
  const Command* command = find(first);
  if (!command) return unknownCommand(first);
  bool wantsHelp = false;
  auto arguments = ArgumentParser::parse(*command, argc - 2, argv + 2, &wantsHelp);
  if (wantsHelp) {
    printUsage(*command, stdout);
    return kExitOK;
  }
  if (!arguments) return kExitUsage;
  return command->run(*arguments);
}
