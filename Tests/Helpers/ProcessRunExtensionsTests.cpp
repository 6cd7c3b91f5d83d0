#include "fennick/Helpers/Process+OVRunExtensions.h"

#include <gtest/gtest.h>

using namespace fennick;

namespace {

TEST(ProcessRunExtensionsTest, LaunchFailuresAnswerNilOrFalseInsteadOfRaising) {
  EXPECT_FALSE(safelyLaunchedTaskWithLaunchPath_arguments("/nonexistent/tool", {}));
  EXPECT_FALSE(safelyLaunchedTaskWithLaunchPath_arguments("/tmp", {}));
  auto process = Process::init();
  process->setLaunchPath("/bin/sh");
  process->setArguments({"-c", "exit 7"});
  ASSERT_TRUE(safeLaunchWaitingUntilExit(process, true));
  EXPECT_EQ(process->terminationStatus(), 7);
  // Launching twice raises inside; the runner turns that into false.
  EXPECT_FALSE(safeLaunch(process));
  EXPECT_TRUE(safeWaitUntilExit(process));

  auto launched = safelyLaunchedTaskWithLaunchPath_arguments("/bin/true", {});
  ASSERT_TRUE(launched);
  ASSERT_TRUE(safeWaitUntilExit(launched));
  EXPECT_EQ(launched->terminationStatus(), 0);
}

}  // namespace
