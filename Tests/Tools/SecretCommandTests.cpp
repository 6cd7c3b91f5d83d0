// fennick secret against a private keyring daemon.
#include <gtest/gtest.h>

#include "Support/TestKeyring.h"
#include "Tools/ToolRunner.h"

using fennick::tooltest::runTool;

namespace {

TEST(ToolSecretCommand, SetGetAndDeleteBytes) {
  try {
    fennick::testing::TestKeyring::shared();
  } catch (const std::exception& error) {
    GTEST_SKIP() << "no private keyring daemon: " << error.what();
  }
  const std::string value("line one\n\0binary\xff", 18);
  EXPECT_EQ(runTool({"secret", "set", "com.example.tool", "token"}, value).status, 0);
  const auto read = runTool({"secret", "get", "com.example.tool", "token"});
  EXPECT_EQ(read.status, 0) << read.err;
  EXPECT_EQ(read.out, value);

  EXPECT_EQ(runTool({"secret", "delete", "com.example.tool", "token"}).status, 0);
  const auto absent = runTool({"secret", "get", "com.example.tool", "token"});
  EXPECT_EQ(absent.status, 1);
  EXPECT_EQ(absent.err, "fennick secret: no secret 'token' in 'com.example.tool'\n");
  EXPECT_EQ(runTool({"secret", "delete", "com.example.tool", "token"}).status, 0);
  EXPECT_EQ(runTool({"secret", "list", "com.example.tool", "token"}).status, 2);
}

TEST(ToolSecretCommand, WithoutAReachableServiceFails) {
  // A bus address nobody listens on stands for a session without a bus.
  const char* previous = getenv("DBUS_SESSION_BUS_ADDRESS");
  const std::string saved = previous ? previous : "";
  setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/fennick-bus", 1);
  const auto set = runTool({"secret", "set", "com.example.tool", "token"}, "value");
  const auto get = runTool({"secret", "get", "com.example.tool", "token"});
  if (previous)
    setenv("DBUS_SESSION_BUS_ADDRESS", saved.c_str(), 1);
  else
    unsetenv("DBUS_SESSION_BUS_ADDRESS");

  EXPECT_EQ(set.status, 1);
  EXPECT_NE(set.err.find("Could not add keychain item"), std::string::npos) << set.err;
  EXPECT_EQ(get.status, 1);
  EXPECT_EQ(get.err, "fennick secret: no secret 'token' in 'com.example.tool'\n");
}

}  // namespace
