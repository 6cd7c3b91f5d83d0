#include "fennick/Platform/System/SystemFacts.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <unistd.h>
#include <sys/stat.h>
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

namespace {

// Each hostile value, put where each parser looks for its fact, reads as
// unavailable: an empty text, 0.0.0 or nothing.
TEST(SystemFactsTest, HostileTextsReadAsUnavailable) {
  const std::string huge(5000, '7');
  const struct {
    const char* family;
    std::string value;
  } values[] = {
      {"embedded NUL", std::string("12\0.3", 5)},
      {"invalid UTF-8", "12\xff\xfe"},
      {"overlong UTF-8", "1\xc0\xaf" "2"},
      {"an encoded surrogate", "1\xed\xa0\x80"},
      {"control characters", "12\x1b[2J"},
      {"a huge line", huge},
      {"binary garbage", std::string("\x00\x01\xff\x80\x7f\n\x00", 7)},
  };
  for (const auto& [family, value] : values) {
    const auto version = osVersionFromOSRelease("VERSION_ID=" + value + "\n");
    EXPECT_EQ(version.major + version.minor + version.patch, 0) << family;
    EXPECT_EQ(assignedValue("BUILD_ID=\"" + value + "\"\n", "BUILD_ID"), "") << family;
    EXPECT_EQ(processorBrandFromCPUInfo("model name\t: " + value + "\n"), "") << family;
    EXPECT_EQ(uuidFromMachineID(value), "") << family;
    EXPECT_EQ(languageTagFromLocale("de_DE" + value), "") << family;
    EXPECT_EQ(bootTimeFromStat("cpu 1 2\nbtime " + value + "\n"), std::nullopt) << family;
  }

  // Lines cut short, and numbers that are not the system's.
  EXPECT_EQ(assignedValue("BUILD_ID", "BUILD_ID"), "");
  EXPECT_EQ(processorBrandFromCPUInfo("model name"), "");
  EXPECT_EQ(uuidFromMachineID("0123456789abcdef0123456789abcde"), "");
  EXPECT_EQ(osVersionFromOSRelease("VERSION_ID=-5.2").major, 0);
  EXPECT_EQ(osVersionFromOSRelease("VERSION_ID=99999999999999999999999").major, 0);
  EXPECT_EQ(osVersionFromOSRelease("VERSION_ID=12.x.3").patch, 3);
  EXPECT_EQ(bootTimeFromStat("btime"), std::nullopt);
  EXPECT_EQ(bootTimeFromStat("btime -5\n"), std::nullopt);
  EXPECT_EQ(bootTimeFromStat("btime 0\n"), std::nullopt);
  EXPECT_EQ(bootTimeFromStat("btime 1700000000\n"), 1700000000);
  EXPECT_EQ(bootTimeFromStat(""), std::nullopt);

  // A NUL byte would cut the /proc/sys path short and read another value.
  for (const std::string& name : {std::string("kernel.ostype\0.x", 16), std::string("kernel/ostype"),
                                  std::string("kernel..ostype"), std::string(".kernel.ostype"), std::string(300, 'k'),
                                  std::string("kernel.ostype\n")})
    EXPECT_EQ(sysctlValue(name, 3), std::nullopt) << name;
  EXPECT_EQ(sysctlValue("kernel.printk", 2), std::nullopt) << "several numbers are not one";
}

utmpx loginRecord(const char* user, std::time_t when, short type = USER_PROCESS) {
  utmpx record{};
  record.ut_type = type;
  std::strncpy(record.ut_user, user, sizeof record.ut_user);
  record.ut_tv.tv_sec = static_cast<decltype(record.ut_tv.tv_sec)>(when);
  return record;
}

// Login histories and session records that are cut short, garbage, huge, or
// not files at all: skipped, never waited on.
TEST(SystemFactsTest, HostileLoginRecordsAreSkipped) {
  const fs::path directory = scratch("hostile");
  fs::create_directories(directory);
  auto history = [&](const char* name, const std::string& bytes) {
    std::ofstream(directory / name, std::ios::binary) << bytes;
    return (directory / name).string();
  };
  auto bytesOf = [](const std::vector<utmpx>& records) {
    return std::string(reinterpret_cast<const char*>(records.data()), records.size() * sizeof(utmpx));
  };
  utmpx unterminated = loginRecord("", 9000);
  std::memset(unterminated.ut_user, 'a', sizeof unterminated.ut_user);
  std::vector<utmpx> many(20000, loginRecord("bob", 100));
  many[3] = loginRecord("alice", 500);
  many[19990] = loginRecord("alice", 700);
  const std::string whole = bytesOf({loginRecord("alice", 1000)});
  const struct {
    const char* name;
    std::string path;
    std::optional<std::time_t> expected;
  } histories[] = {
      {"empty", history("empty", ""), std::nullopt},
      {"a record cut short at the end", history("cut", whole + whole.substr(0, 100)), 1000},
      {"garbage", history("garbage", std::string(1000, '\xff')), std::nullopt},
      {"a user name filling its field", history("unterminated", bytesOf({unterminated})), std::nullopt},
      {"the newest of many", history("many", bytesOf(many)), 700},
      {"a folder", directory.string(), std::nullopt},
  };
  for (const auto& test : histories)
    EXPECT_EQ(lastLoginFromHistory(test.path.c_str(), "alice"), test.expected) << test.name;

  const fs::path run = directory / "run";
  fs::create_directories(run / "sessions" / "folder");
  const struct {
    const char* name;
    std::string text;
  } sessions[] = {
      {"huge", "UID=1000\nREALTIME=1900000000000000\n" + std::string(100 * 1024, '#')},
      {"nul", std::string("UID=1000\nREALTIME=19\0" "00000000000000\n", 33)},
      {"negative", "UID=1000\nREALTIME=-1900000000000000\n"},
      {"overflow", "UID=1000\nREALTIME=99999999999999999999999999\n"},
      {"words", "UID=1000\nREALTIME=soon\n"},
      {"cut", "UID=1000\nREALTIME"},
      {"good", "UID=1000\nREALTIME=1700000000000000\n"},
  };
  for (const auto& session : sessions) std::ofstream(run / "sessions" / session.name, std::ios::binary) << session.text;
  EXPECT_EQ(logindSessionStart(1000, run.c_str()), 1700000000);

  // A pipe in place of a file is never opened for a blocking read.
  ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo((run / "sessions" / "fifo").c_str(), 0600), 0);
  EXPECT_EXIT(
      {
        alarm(20);
        const bool skipped = !lastLoginFromHistory((directory / "fifo").c_str(), "alice") &&
                             logindSessionStart(1000, run.c_str()) == 1700000000;
        std::_Exit(skipped ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  fs::remove_all(directory.parent_path());
}

}  // namespace
