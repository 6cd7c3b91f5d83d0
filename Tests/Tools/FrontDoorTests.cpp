// The tool's front door: listing, per-command usage and errors, shared by all
// commands.
#include <gtest/gtest.h>

#include "Tools/ToolRunner.h"

using fennick::tooltest::runTool;

TEST(ToolFrontDoor, ListsCommandsAndExitsZero) {
  for (const auto& arguments : std::vector<std::vector<std::string>>{{}, {"--help"}, {"help"}}) {
    auto result = runTool(arguments);
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.out.find("usage: fennick COMMAND"), std::string::npos);
    EXPECT_NE(result.out.find("\n  demo "), std::string::npos) << result.out;
    EXPECT_TRUE(result.err.empty());
  }
}

TEST(ToolFrontDoor, CommandUsageThroughHelpOrOption) {
  auto viaHelp = runTool({"help", "demo"});
  auto viaOption = runTool({"demo", "--help"});
  EXPECT_EQ(viaHelp.status, 0);
  EXPECT_EQ(viaOption.status, 0);
  EXPECT_EQ(viaHelp.out, viaOption.out);
  EXPECT_EQ(viaHelp.out.rfind("usage: fennick demo", 0), 0u);
}

TEST(ToolFrontDoor, UnknownCommandOrOptionIsAUsageError) {
  auto command = runTool({"no-such-command"});
  EXPECT_EQ(command.status, 2);
  EXPECT_TRUE(command.out.empty());
  EXPECT_EQ(command.err.rfind("fennick: unknown command 'no-such-command'\n", 0), 0u) << command.err;
  EXPECT_NE(command.err.find("usage: fennick COMMAND"), std::string::npos);

  auto option = runTool({"demo", "--no-such-option"});
  EXPECT_EQ(option.status, 2);
  EXPECT_EQ(option.err.rfind("fennick demo: unknown option '--no-such-option'\nusage: fennick demo", 0), 0u)
      << option.err;

  auto helpForUnknown = runTool({"help", "nothing"});
  EXPECT_EQ(helpForUnknown.status, 2);
  auto extra = runTool({"demo", "surplus"});
  EXPECT_EQ(extra.status, 2);
  EXPECT_NE(extra.err.find("too many arguments"), std::string::npos);
}

TEST(ToolFrontDoor, VersionOption) {
  auto result = runTool({"--version"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out.rfind("fennick ", 0), 0u);
}
