// `fennick sysinfo`: every fact once, in plain text and in JSON, and the MAC
// address chosen in private network namespaces set up by the test.
#include <gtest/gtest.h>

#include "Tools/ToolRunner.h"

#include <nlohmann/json.hpp>

#include <cctype>
#include <cstdio>

using fennick::tooltest::runTool;

namespace {

const char* const kFacts[] = {"hardwareUUID", "MACAddress", "OSVersion", "OSBuild", "machineModel",
                              "CPUFullBrandName", "preferredLocales", "currentBootUptime", "currentUserLoginUptime"};

// Runs a shell script in a new user and network namespace and answers its output.
std::string inNetworkNamespace(const std::string& script) {
  const std::string command = "unshare -rn sh -ec '" + script + "' 2>&1";
  std::string output;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, pipe)) output += buffer;
    if (pclose(pipe) != 0) output = "failed: " + output;
  }
  return output;
}

// The value of the "NAME: value" line in the tool's text output.
std::string lineValue(const std::string& text, const std::string& name) {
  const std::string key = "\n" + name + ": ";
  const std::string padded = "\n" + text;
  const auto start = padded.find(key);
  if (start == std::string::npos) return "<missing>";
  const auto valueStart = start + key.size();
  return padded.substr(valueStart, padded.find('\n', valueStart) - valueStart);
}

// Three dot-separated runs of decimal digits, as "12.4.0".
bool isDottedTriple(const std::string& value) {
  int parts = 1;
  bool digitSeen = false;
  for (char c : value) {
    if (c == '.') {
      if (!digitSeen) return false;
      ++parts;
      digitSeen = false;
    } else if (std::isdigit(static_cast<unsigned char>(c))) {
      digitSeen = true;
    } else {
      return false;
    }
  }
  return parts == 3 && digitSeen;
}

// 8-4-4-4-12 upper-case hexadecimal digits.
bool isUpperCaseUUID(const std::string& value) {
  if (value.size() != 36) return false;
  for (std::size_t i = 0; i < value.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    const char c = value[i];
    if (dash ? c != '-' : !(std::isdigit(static_cast<unsigned char>(c)) || (c >= 'A' && c <= 'F'))) return false;
  }
  return true;
}

TEST(SysinfoToolTest, PrintsEveryFactAsTextAndAsJSON) {
  auto text = runTool({"sysinfo"});
  ASSERT_EQ(text.status, 0) << text.err;
  for (const char* fact : kFacts)
    EXPECT_NE(("\n" + text.out).find(std::string("\n") + fact + ": "), std::string::npos) << fact;
  EXPECT_TRUE(isDottedTriple(lineValue(text.out, "OSVersion"))) << lineValue(text.out, "OSVersion");
  const std::string uuid = lineValue(text.out, "hardwareUUID");
  EXPECT_TRUE(uuid.empty() || isUpperCaseUUID(uuid)) << uuid;

  auto json = runTool({"sysinfo", "--json"}, {}, {"LANGUAGE=de_CH:fr", "LC_MESSAGES=en_GB.UTF-8"});
  ASSERT_EQ(json.status, 0) << json.err;
  const auto object = nlohmann::json::parse(json.out);
  for (const char* fact : kFacts) EXPECT_TRUE(object.contains(fact)) << fact;
  // LANGUAGE comes first; the locale variables of the caller's environment follow.
  const auto locales = object["preferredLocales"].get<std::vector<std::string>>();
  ASSERT_GE(locales.size(), 3u);
  EXPECT_EQ(locales[0], "de-CH");
  EXPECT_EQ(locales[1], "fr");
  EXPECT_NE(std::find(locales.begin(), locales.end(), "en-GB"), locales.end());
  EXPECT_FALSE(object["CPUFullBrandName"].get<std::string>().empty());
  EXPECT_GE(object["currentBootUptime"].get<double>(), 0);
}

TEST(SysinfoToolTest, MACAddressFollowsTheDefaultRouteThenFallsBackToAnInterfaceName) {
  if (inNetworkNamespace("true") != "") GTEST_SKIP() << "network namespaces are unavailable (unshare -rn failed)";
  const std::string tool = "'" FENNICK_TOOL_PATH "' sysinfo | grep MACAddress";
  EXPECT_EQ(inNetworkNamespace("ip link add fnk0 type veth peer name fnkpeer; ip link set fnk0 address 02:aa:bb:cc:dd:01;"
                               "ip link set fnk0 up; ip addr add 10.9.0.2/24 dev fnk0;"
                               "ip route add default via 10.9.0.1 dev fnk0 onlink;" + tool),
            "MACAddress: 02:aa:bb:cc:dd:01\n");
  // No Ethernet-class link: the smallest up IPv4 interface by name, numbers compared as numbers.
  EXPECT_EQ(inNetworkNamespace("for t in fnk10 fnk2; do ip tuntap add $t mode tun; ip link set $t up; done;"
                               "ip addr add 10.9.0.2/24 dev fnk10; ip addr add 10.9.1.2/24 dev fnk2; ip link set lo up;" +
                               tool),
            "MACAddress: fnk2\n");
  EXPECT_EQ(inNetworkNamespace(tool), "MACAddress: \n");
}

}  // namespace
