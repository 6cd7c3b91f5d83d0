#pragma once
// `fennick demo`: a short tour of the framework on embedded sample data. Each
// subsystem adds its own section from its own file with FENNICK_DEMO_SECTION;
// sections run in the order of their rank.
#include <cstdio>

#include "Command.h"

namespace fennick::tool {

using DemoSection = void (*)(std::FILE* out);

struct DemoSectionRegistrar {
  DemoSectionRegistrar(int rank, DemoSection section);
};

/// Prints the tour to `out`; returns the process exit status.
int runDemo(std::FILE* out);

}  // namespace fennick::tool

/// FENNICK_DEMO_SECTION(40, showFiles): ranks 10-90 are the subsystems in the
/// order the tour presents them (core 10-50, files 60, data 70, system 80, interface 90).
#define FENNICK_DEMO_SECTION(rank, section) \
  static ::fennick::tool::DemoSectionRegistrar FENNICK_TOOL_CONCAT(demoSection_, __LINE__)(rank, section)
