// `fennick reach` in a network namespace of its own: the status now, then a
// line per change, until interrupted.
#include <gtest/gtest.h>

#include "Tools/ToolRunner.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

using fennick::tooltest::runTool;

namespace {

TEST(ReachToolTest, PrintsTheStatusThenEachChangeUntilInterrupted) {
  if (std::system("unshare -rn true 2>/dev/null") != 0)
    GTEST_SKIP() << "network namespaces are unavailable here (unshare -rn failed)";
  // Each step waits (at most 10 s) until the line the previous change must
  // print has appeared the given number of times.
  const std::string script = std::string(
      "set -e\n"
      "out=$(mktemp)\n"
      "'" FENNICK_TOOL_PATH "' reach >$out &\n"
      "tool=$!\n"
      "await() { for i in $(seq 200); do [ \"$(grep -cx \"$1\" $out)\" -ge $2 ] && return 0; sleep 0.05; done;"
      " cat $out; exit 1; }\n"
      "await 'internet: not reachable' 1\n"
      "ip link add fnk0 type veth peer name fnk1; ip link set fnk1 up; ip link set fnk0 up\n"
      "ip addr add 10.9.0.2/24 dev fnk0; ip route add default via 10.9.0.1\n"
      "await 'internet: reachable' 1\n"
      "ip route del default\n"
      "await 'internet: not reachable' 2\n"
      "kill -INT $tool; wait $tool\n"
      "cat $out; rm $out\n");
  char path[] = "/tmp/fennick-reach-XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, script.data(), script.size()), static_cast<ssize_t>(script.size()));
  close(fd);
  FILE* shell = popen(("unshare -rn sh " + std::string(path)).c_str(), "r");
  ASSERT_TRUE(shell);
  std::string output;
  char buffer[256];
  while (std::fgets(buffer, sizeof buffer, shell)) output += buffer;
  EXPECT_EQ(pclose(shell), 0) << output;
  unlink(path);
  EXPECT_EQ(output.rfind("internet: not reachable\n", 0), 0u) << output;
  EXPECT_NE(output.find("\ninternet: reachable\n"), std::string::npos) << output;
  const auto last = output.rfind("internet: not reachable\n");
  EXPECT_EQ(last + std::string("internet: not reachable\n").size(), output.size()) << output;
}

TEST(ReachToolTest, RejectsWhatIsNeitherAHostNorAnAddress) {
  auto result = runTool({"reach", "not a host"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("is not a host name or an address"), std::string::npos) << result.err;
}

}  // namespace
