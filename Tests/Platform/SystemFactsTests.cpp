#include "fennick/Platform/SystemFacts.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <unistd.h>
#include <utmpx.h>

using namespace fennick::platform;
namespace fs = std::filesystem;

namespace {

fs::path scratch(const std::string& name) {
  const fs::path path = fs::path("/tmp") / ("fennick-facts-" + std::to_string(getpid())) / name;
  fs::create_directories(path.parent_path());
  return path;
}

TEST(SystemFactsTest, ParsersKeepTheResultFormats) {
  EXPECT_EQ(uuidFromMachineID("0123456789abcdef0123456789abcdef\n"), "01234567-89AB-CDEF-0123-456789ABCDEF");
  EXPECT_EQ(uuidFromMachineID("short"), "");
  EXPECT_EQ(uuidFromMachineID("0123456789abcdef0123456789abcdeg"), "");

  auto version = [](const char* text) {
    const auto v = osVersionFromOSRelease(text);
    return std::to_string(v.major) + "." + std::to_string(v.minor) + "." + std::to_string(v.patch);
  };
  EXPECT_EQ(version("NAME=\"Debian\"\nVERSION_ID=\"12\"\n"), "12.0.0");
  EXPECT_EQ(version("VERSION_ID=22.04\n"), "22.4.0");
  EXPECT_EQ(version("VERSION_ID='11.2.3'\n"), "11.2.3");
  EXPECT_EQ(version("ID=arch\n"), "0.0.0");
  EXPECT_EQ(assignedValue("BUILD_ID=rolling\nBUILD=x\n", "BUILD"), "x");

  EXPECT_EQ(processorBrandFromCPUInfo("processor\t: 0\nmodel name\t: Intel(R) Xeon(R) CPU\nflags: x\n"),
            "Intel(R) Xeon(R) CPU");
  EXPECT_EQ(processorBrandFromCPUInfo("processor : 0\n"), "");

  EXPECT_EQ(languageTagFromLocale("de_AT.UTF-8@euro"), "de-AT");
  EXPECT_EQ(languageTagFromLocale("sr_RS@latin"), "sr-Latn-RS");
  EXPECT_EQ(languageTagFromLocale("fr"), "fr");
  EXPECT_EQ(languageTagFromLocale("C.UTF-8"), "");
  EXPECT_EQ(languageTagFromLocale("POSIX"), "");
}

TEST(SystemFactsTest, InterfaceNamesCompareNumericallyWithoutCase) {
  EXPECT_LT(compareNumerically("en2", "en10"), 0);
  EXPECT_GT(compareNumerically("en10", "en2"), 0);
  EXPECT_EQ(compareNumerically("EN0", "en0"), 0);
  EXPECT_LT(compareNumerically("en0", "eth0"), 0);
  EXPECT_LT(compareNumerically("en", "en0"), 0);
  EXPECT_EQ(compareNumerically("wlan007", "wlan7"), 0);
}

TEST(SystemFactsTest, PreferredLanguagesFollowTheLocaleVariablesInOrder) {
  setenv("LANGUAGE", "pt_BR:pt:en", 1);
  setenv("LC_ALL", "", 1);
  setenv("LC_MESSAGES", "de_DE.UTF-8", 1);
  setenv("LANG", "pt_BR.UTF-8", 1);
  EXPECT_EQ(preferredLanguages(), (std::vector<std::string>{"pt-BR", "pt", "en", "de-DE"}));
  for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES"}) unsetenv(name);
  setenv("LANG", "C", 1);
  EXPECT_TRUE(preferredLanguages().empty());
}

TEST(SystemFactsTest, SysctlValuesAreReadFromProcSysByKind) {
  std::ifstream pidMax("/proc/sys/kernel/pid_max");
  long long expected = 0;
  ASSERT_TRUE(pidMax >> expected);
  EXPECT_EQ(sysctlValue("kernel.pid_max", 2), std::to_string(expected));
  EXPECT_EQ(sysctlValue("kernel.pid_max", 4), std::to_string(expected));
  EXPECT_EQ(sysctlValue("kernel.ostype", 3), "Linux");
  EXPECT_EQ(sysctlValue("kernel.ostype", 2), std::nullopt);  // not a number
  EXPECT_EQ(sysctlValue("kernel.no_such_value", 3), std::nullopt);
  EXPECT_EQ(sysctlValue("", 3), std::nullopt);
  EXPECT_EQ(sysctlValue("../../etc/passwd", 3), std::nullopt);
}

TEST(SystemFactsTest, BootTimeAgreesWithTheKernelsUptime) {
  const auto boot = bootTime();
  ASSERT_TRUE(boot);
  std::ifstream uptime("/proc/uptime");
  double seconds = 0;
  ASSERT_TRUE(uptime >> seconds);
  EXPECT_NEAR(static_cast<double>(std::time(nullptr) - *boot), seconds, 2.0);
}

TEST(SystemFactsTest, LoginTimesComeFromTheNewestRecordOfTheUser) {
  const fs::path history = scratch("wtmp");
  std::ofstream{history};  // the history is only appended to, never created
  auto login = [&](const char* user, short type, std::time_t when) {
    utmpx record{};
    record.ut_type = type;
    std::strncpy(record.ut_user, user, sizeof record.ut_user);
    record.ut_tv.tv_sec = static_cast<decltype(record.ut_tv.tv_sec)>(when);
    updwtmpx(history.c_str(), &record);
  };
  login("alice", USER_PROCESS, 1000);
  login("bob", USER_PROCESS, 3000);
  login("alice", DEAD_PROCESS, 4000);
  login("alice", USER_PROCESS, 2000);
  EXPECT_EQ(lastLoginFromHistory(history.c_str(), "alice"), 2000);
  EXPECT_EQ(lastLoginFromHistory(history.c_str(), "carol"), std::nullopt);
  EXPECT_EQ(lastLoginFromHistory("/nonexistent/wtmp", "alice"), std::nullopt);

  const fs::path run = scratch("run");
  fs::create_directories(run / "sessions");
  std::ofstream(run / "sessions" / "1") << "UID=1000\nREALTIME=1700000000000000\n";
  std::ofstream(run / "sessions" / "7") << "UID=1000\nREALTIME=1700000500123456\n";
  std::ofstream(run / "sessions" / "9") << "UID=1001\nREALTIME=1800000000000000\n";
  EXPECT_EQ(logindSessionStart(1000, run.c_str()), 1700000500);
  EXPECT_EQ(logindSessionStart(1002, run.c_str()), std::nullopt);
  fs::remove_all(history.parent_path());
}

}  // namespace
