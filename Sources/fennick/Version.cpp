#include "fennick/Version.h"

namespace fennick {

const char* versionString() noexcept { return "0.1.0"; }

}  // namespace fennick
