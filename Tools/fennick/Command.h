#pragma once
// The commands of the `fennick` tool. Each command lives in its own file and
// registers itself with FENNICK_TOOL_COMMAND; main() only dispatches, so that
// every command gets the same front door:
//
//   fennick COMMAND --help        usage on standard output, exit 0
//   fennick COMMAND --bogus       one-line error and usage on standard error, exit 2
//   failures of the work itself   a message on standard error, exit 1
#include <cstdio>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fennick::tool {

/// Exit statuses shared by all commands.
inline constexpr int kExitOK = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

/// An option a command accepts: `--long`, optionally `-s`, optionally with a value.
struct OptionSpec {
  std::string_view longName{};  // without the dashes, e.g. "recursive"
  char shortName = 0;          // e.g. 'r', or 0
  bool takesValue = false;
};

/// The parsed command line of one command.
class Arguments {
 public:
  bool has(std::string_view longName) const { return values_.count(std::string(longName)) != 0; }
  std::optional<std::string> value(std::string_view longName) const;
  const std::vector<std::string>& positional() const { return positional_; }

 private:
  friend class ArgumentParser;
  std::map<std::string, std::string> values_;
  std::vector<std::string> positional_;
};

struct Command {
  std::string_view name{};
  std::string_view summary{};  // one line for `fennick help`
  std::string_view usage{};    // full usage text, starting with "usage: fennick NAME ..."
  std::vector<OptionSpec> options{};
  // Positional arguments accepted: at least minArguments, at most maxArguments (-1: any).
  int minArguments = 0;
  int maxArguments = -1;
  int (*run)(const Arguments& arguments) = nullptr;
};

/// Registers a command at start-up; commands are listed by name.
struct CommandRegistrar {
  explicit CommandRegistrar(Command command);
};

/// All registered commands, sorted by name.
const std::map<std::string_view, Command>& commands();

/// Prints "fennick NAME: MESSAGE" to standard error; returns kExitFailure.
int fail(std::string_view command, std::string_view message);

/// Parses argv (after the command name) against a command's options. On a bad
/// command line it prints the error and usage to standard error and answers
/// nullopt; the caller exits with kExitUsage.
class ArgumentParser {
 public:
  static std::optional<Arguments> parse(const Command& command, int argc, char** argv, bool* wantsHelp);
};

}  // namespace fennick::tool

#define FENNICK_TOOL_CONCAT_(a, b) a##b
#define FENNICK_TOOL_CONCAT(a, b) FENNICK_TOOL_CONCAT_(a, b)
/// FENNICK_TOOL_COMMAND({.name = "du", .summary = ..., .usage = ..., .run = runDu});
#define FENNICK_TOOL_COMMAND(...) \
  static ::fennick::tool::CommandRegistrar FENNICK_TOOL_CONCAT(commandRegistrar_, __LINE__)(::fennick::tool::Command __VA_ARGS__)
