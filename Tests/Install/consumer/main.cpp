// A program outside the Fennick tree, built against an installed copy.
#include <fennick/Fennick.h>

#include <cstdio>
#include <cstring>

int main() {
  const bool ok = std::strlen(fennick::versionString()) > 0;
  std::puts(ok ? "consumer: ok" : "consumer: failed");
  return ok ? 0 : 1;
}
