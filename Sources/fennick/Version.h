#pragma once
// The library's own version, as built.
namespace fennick {

/// "major.minor.patch" of the linked library, e.g. "0.1.0".
const char* versionString() noexcept;

}  // namespace fennick
