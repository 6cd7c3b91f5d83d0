// Launch configurations whose texts would not reach the child whole: the
// launch path, arguments, folder and environment travel as C strings, which
// end at a NUL, and "NAME=value" entries split at the first "=". Each must
// fail with EINVAL before anything runs, never run something cut short.
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/ObjectModel/Exception.h"
#include "fennick/Runtime/Processes/Process.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <unistd.h>

using namespace fennick;
using namespace std::string_literals;

namespace {

// A child that would leave a trace if it ran.
Ref<Process> touching(const std::string& marker) {
  auto process = Process::init();
  process->setLaunchPath("/bin/sh");
  process->setArguments({"-c", "touch '" + marker + "'"});
  return process;
}

TEST(HostileProcess, TextsThatWouldBeCutShortAreRefusedBeforeTheLaunch) {
  const std::string marker =
      (std::filesystem::temp_directory_path() / ("fennick-hostile-process-" + std::to_string(::getpid()))).string();
  struct Case {
    const char* name;
    std::function<void(Process&)> spoil;
  };
  const Case cases[] = {
      {"launch path", [](Process& p) { p.setLaunchPath("/bin/sh\0-evil"s); }},
      {"argument", [&](Process& p) { p.setArguments({"-c", "touch '" + marker + "'\0; exit 1"s}); }},
      {"extra argument", [](Process& p) { auto a = p.arguments(); a.push_back("x\0y"s); p.setArguments(a); }},
      {"current directory", [](Process& p) { p.setCurrentDirectoryPath("/\0/nonexistent"s); }},
      {"environment value", [](Process& p) { p.setEnvironment(Process::Environment{{"A", "b\0c"s}}); }},
      {"environment name with NUL", [](Process& p) { p.setEnvironment(Process::Environment{{"A\0B"s, "c"}}); }},
      {"environment name with =", [](Process& p) { p.setEnvironment(Process::Environment{{"PATH=/evil:", "x"}}); }},
      {"empty environment name", [](Process& p) { p.setEnvironment(Process::Environment{{"", "x"}}); }},
  };
  for (const Case& c : cases) {
    auto process = touching(marker);
    c.spoil(*process);
    Ref<Error> error;
    EXPECT_FALSE(process->launchAndReturnError(&error)) << c.name;
    ASSERT_TRUE(error) << c.name;
    EXPECT_EQ(error->domain(), NSPOSIXErrorDomain) << c.name;
    EXPECT_EQ(error->code(), EINVAL) << c.name;
    EXPECT_EQ(process->processIdentifier(), 0) << c.name;
    EXPECT_FALSE(process->isRunning()) << c.name;

    auto raising = touching(marker);
    c.spoil(*raising);
    EXPECT_THROW(raising->launch(), Exception) << c.name;
    EXPECT_FALSE(std::filesystem::exists(marker)) << c.name << ": a child ran";
  }

  // An "=" inside a value is the value's own, and the launch goes through.
  auto process = Process::init();
  process->setLaunchPath("/bin/sh");
  process->setArguments({"-c", "test \"$A\" = 'b=c' && touch '" + marker + "'"});
  process->setEnvironment(Process::Environment{{"A", "b=c"}});
  ASSERT_TRUE(process->launchAndReturnError(nullptr));
  process->waitUntilExit();
  EXPECT_EQ(process->terminationStatus(), 0);
  EXPECT_TRUE(std::filesystem::remove(marker));
}

}  // namespace
