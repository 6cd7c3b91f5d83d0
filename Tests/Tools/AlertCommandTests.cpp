#include <gtest/gtest.h>

#include "Tools/ToolRunner.h"

using fennick::tooltest::runTool;

TEST(AlertCommand, ScriptedAnswersReportResponseOptionAndCheckBox) {
  auto result = runTool({"alert", "--answer", "1", "--suppression", "Don't ask again", "--message", "Disk full",
                         "Retry", "Skip", "Cancel"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "response 1001\noption 1 Skip\nsuppression off\n");

  result = runTool({"alert", "--answer", "0", "--sheet"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "response 1000\n");
}

TEST(AlertCommand, BadValuesAreUsageErrors) {
  auto result = runTool({"alert", "--answer", "2", "A", "B"});
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("0 to 1"), std::string::npos) << result.err;
  result = runTool({"alert", "--answer", "-1"});
  EXPECT_EQ(result.status, 2);
  result = runTool({"alert", "--style", "loud", "--answer", "0"});
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("--style"), std::string::npos);
}

TEST(AlertCommand, WithoutADisplayItSaysHowToAnswer) {
  auto result = runTool({"alert", "Retry"}, {}, {"DISPLAY=", "WAYLAND_DISPLAY="});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("--answer"), std::string::npos) << result.err;
}
