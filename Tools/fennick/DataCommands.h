#pragma once
// Small pieces shared by the data commands (version, json, sqlite, bundle).
#include <fennick/Fennick.h>

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "Command.h"

namespace fennick::tool {

/// Prints "fennick NAME: MESSAGE" and the command's usage to standard error;
/// answers kExitUsage.
int usageError(std::string_view name, std::string_view message);

/// The bytes of a file, or of standard input for "-"; nullopt with a message
/// in `problem` when it cannot be read.
std::optional<std::string> readInput(const std::string& path, std::string& problem);

/// A value as one line of JSON text: strings quoted, byte buffers as base64
/// strings, dates as seconds since 1970, infinities as null; `pretty` spreads
/// containers over indented lines.
std::string jsonText(const Id& value, bool pretty = false);

}  // namespace fennick::tool
