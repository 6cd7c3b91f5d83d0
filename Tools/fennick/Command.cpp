#include "Command.h"

#include <cstdlib>

namespace fennick::tool {

namespace {

std::map<std::string_view, Command>& registry() {
  static std::map<std::string_view, Command> table;
  return table;
}

int usageError(const Command& command, const std::string& message) {
  std::fprintf(stderr, "fennick %.*s: %s\n", static_cast<int>(command.name.size()), command.name.data(),
               message.c_str());
  std::fprintf(stderr, "%.*s", static_cast<int>(command.usage.size()), command.usage.data());
  return kExitUsage;
}

const OptionSpec* findLong(const Command& command, std::string_view name) {
  for (const OptionSpec& option : command.options)
    if (option.longName == name) return &option;
  return nullptr;
}

const OptionSpec* findShort(const Command& command, char name) {
  for (const OptionSpec& option : command.options)
    if (option.shortName != 0 && option.shortName == name) return &option;
  return nullptr;
}

}  // namespace

std::optional<std::string> Arguments::value(std::string_view longName) const {
  auto found = values_.find(std::string(longName));
  if (found == values_.end()) return std::nullopt;
  return found->second;
}

CommandRegistrar::CommandRegistrar(Command command) {
  auto [it, inserted] = registry().emplace(command.name, std::move(command));
  if (!inserted) {
    std::fprintf(stderr, "fennick: command %.*s registered twice\n", static_cast<int>(it->first.size()),
                 it->first.data());
    std::abort();
  }
}

const std::map<std::string_view, Command>& commands() { return registry(); }

int fail(std::string_view command, std::string_view message) {
  std::fprintf(stderr, "fennick %.*s: %.*s\n", static_cast<int>(command.size()), command.data(),
               static_cast<int>(message.size()), message.data());
  return kExitFailure;
}

std::optional<Arguments> ArgumentParser::parse(const Command& command, int argc, char** argv,
                                               bool* wantsHelp) {
  Arguments arguments;
  *wantsHelp = false;
  bool optionsEnded = false;
  for (int i = 0; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (optionsEnded || word.size() < 2 || word[0] != '-') {
      arguments.positional_.emplace_back(word);
      continue;
    }
    if (word == "--") {
      optionsEnded = true;
      continue;
    }
    if (word == "--help" || word == "-h") {
      // -h is help unless the command gives it another meaning.
      if (word == "--help" || !findShort(command, 'h')) {
        *wantsHelp = true;
        return arguments;
      }
    }
    const OptionSpec* option = nullptr;
    std::optional<std::string> inlineValue;
    if (word.starts_with("--")) {
      std::string_view name = word.substr(2);
      if (auto equals = name.find('='); equals != std::string_view::npos) {
        inlineValue = std::string(name.substr(equals + 1));
        name = name.substr(0, equals);
      }
      option = findLong(command, name);
    } else if (word.size() == 2) {
      option = findShort(command, word[1]);
    }
    if (!option) {
      usageError(command, "unknown option '" + std::string(word) + "'");
      return std::nullopt;
    }
    std::string value;
    if (option->takesValue) {
      if (inlineValue) value = *inlineValue;
      else if (i + 1 < argc) value = argv[++i];
      else {
        usageError(command, "option '" + std::string(word) + "' needs a value");
        return std::nullopt;
      }
    } else if (inlineValue) {
      usageError(command, "option '--" + std::string(option->longName) + "' takes no value");
      return std::nullopt;
    }
    arguments.values_[std::string(option->longName)] = value;
  }
  const int count = static_cast<int>(arguments.positional_.size());
  if (count < command.minArguments) {
    usageError(command, "missing argument");
    return std::nullopt;
  }
  if (command.maxArguments >= 0 && count > command.maxArguments) {
    usageError(command, "too many arguments");
    return std::nullopt;
  }
  return arguments;
}

}  // namespace fennick::tool
