#include <fennick/Fennick.h>

#include <cstdio>
#include <string_view>

int main(int argc, char** argv) {
  const std::string_view command = argc > 1 ? argv[1] : "help";
  if (command == "demo") {
    std::printf("Fennick %s\n", fennick::versionString());
    return 0;
  }
  std::printf("usage: fennick demo\n");
  return command == "help" ? 0 : 2;
}
