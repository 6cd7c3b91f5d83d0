// The fennick command-line tool.
#include "Demo.h"

#include <fennick/Fennick.h>

#include <cstdio>
#include <string_view>

namespace {

void printUsage(std::FILE* out) {
  std::fprintf(out,
               "usage: fennick <command>\n\n"
               "commands:\n"
               "  demo      a tour of the framework on sample data\n"
               "  version   print the library version\n");
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view command = argc > 1 ? argv[1] : "";
  if (command == "demo") return fennick::tool::runDemo(stdout);
  if (command == "version") {
    std::printf("%s\n", fennick::versionString());
    return 0;
  }
  printUsage(command.empty() || command == "help" ? stdout : stderr);
  return command.empty() || command == "help" ? 0 : 2;
}
