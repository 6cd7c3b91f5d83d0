#include "fennick/Helpers/System/OVSystemInfo.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/String.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sys/utsname.h>

using namespace fennick;

namespace {

TEST(OVSystemInfoTest, PreferredLocalesAreCutToTheCountAsked) {
  setenv("LANGUAGE", "nl_BE:nl:en_US", 1);
  EXPECT_EQ(OVSystemInfo::preferredLocales(0)->count(), 0u);
  auto two = OVSystemInfo::preferredLocales(2);
  ASSERT_EQ(two->count(), 2u);
  EXPECT_EQ(String::castObject(two->objectAtIndex(1))->description(), "nl");
  EXPECT_GE(OVSystemInfo::preferredLocales(100)->count(), 3u);
}

TEST(OVSystemInfoTest, ProcessorNameIsTheBrandOnX86AndTheUnknownTextElsewhere) {
  utsname names{};
  ASSERT_EQ(uname(&names), 0);
  const std::string name = OVSystemInfo::CPUFullBrandName();
  const std::string machine = names.machine;
  if (machine == "x86_64") {
    EXPECT_EQ(name.rfind("Unknown (", 0), std::string::npos) << name;
  } else if (machine == "aarch64") {
    EXPECT_EQ(name, "Unknown (type = 16777228, subtype = 0)");
  }
  EXPECT_FALSE(name.empty());
  EXPECT_EQ(&OVSystemInfo::CPUFullBrandName(), &OVSystemInfo::CPUFullBrandName()) << "read once and cached";
}

TEST(OVSystemInfoTest, SysctlReaderAndUptimes) {
  EXPECT_EQ(_OVGetSystemSysctlValue("kernel.ostype", 3)->description(), "Linux");
  EXPECT_FALSE(_OVGetSystemSysctlValue("kernel.no_such_value", 2));
  const double uptime = OVSystemStartupInfo::currentBootUptime();
  EXPECT_GT(uptime, 0);
  // Without any login record the login time counts as -1: the result is now + 1.
  EXPECT_GT(OVSystemStartupInfo::currentUserLoginUptime(), 0);
}

}  // namespace
