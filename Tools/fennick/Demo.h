#pragma once
// `fennick demo`: a short tour of the framework on embedded sample data.
#include <cstdio>

namespace fennick::tool {

/// Prints the tour to `out`; returns the process exit status.
int runDemo(std::FILE* out);

}  // namespace fennick::tool
