#include "fennick/Helpers/OVCodeSignatureChecker.h"
#include "fennick/Runtime/Dictionary.h"
#include "fennick/Runtime/Error.h"
#include "fennick/Runtime/String.h"
#include "fennick/Runtime/URL.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

using namespace fennick;
namespace fs = std::filesystem;

namespace {

class CodeSignatureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::path("/tmp") / ("fennick-signatures-" + std::to_string(getpid()));
    fs::create_directories(root_ / "db" / "info");
  }
  void TearDown() override { fs::remove_all(root_); }

  static Ref<URL> url(const fs::path& path) { return URL::fileURLWithPath(path.string()); }
  std::string info(const char* key, const fs::path& path) {
    auto dictionary = OVCodeSignatureChecker::codeSignatureInfoAtURL(url(path), (root_ / "db").string());
    return dictionary ? dictionary->objectForKey(String::string(key))->description() : "(nil)";
  }
  std::int64_t failureCode(const fs::path& path, std::string_view requirement = {}) {
    Ref<Error> error;
    if (OVCodeSignatureChecker::codeSignatureAtURL_satisfiesCodeRequirements_error(url(path), requirement, &error,
                                                                                    (root_ / "db").string()))
      return 0;
    EXPECT_EQ(error->domain(), NSOSStatusErrorDomain);
    EXPECT_FALSE(error->localizedDescription().empty());
    return error->code();
  }

  fs::path root_;
};

TEST_F(CodeSignatureTest, InstalledPackageFilesAreValid) {
  if (!fs::exists("/var/lib/dpkg/info/coreutils.md5sums")) GTEST_SKIP() << "not a Debian system with coreutils";
  EXPECT_TRUE(OVCodeSignatureChecker::codeSignatureIsValidAtURL(url("/bin/true")));
  auto details = OVCodeSignatureChecker::codeSignatureInfoAtURL(url("/usr/bin/true"));
  ASSERT_TRUE(details);
  EXPECT_EQ(details->objectForKey(String::string("package"))->description(), "coreutils");
  EXPECT_FALSE(details->objectForKey(String::string("version"))->description().empty());
  EXPECT_EQ(details->objectForKey(String::string("checksum"))->description().size(), 32u);

  // A copy belongs to no package.
  fs::copy_file("/bin/true", root_ / "true");
  EXPECT_FALSE(OVCodeSignatureChecker::codeSignatureIsValidAtURL(url(root_ / "true")));
  EXPECT_FALSE(OVCodeSignatureChecker::codeSignatureInfoAtURL(url(root_ / "true")));
}

TEST_F(CodeSignatureTest, DigestsAreCheckedAgainstThePackageRecord) {
  fs::create_directories(root_ / "app");
  std::ofstream(root_ / "app" / "tool") << "packaged bytes";
  std::ofstream(root_ / "app" / "changed") << "changed after install";
  const std::string listed = (root_ / "app").string().substr(1);
  // MD5 of "packaged bytes", and a digest that matches nothing.
  std::ofstream(root_ / "db" / "info" / "demo:amd64.md5sums")
      << "b3c5b2c1cbd1ea1d3bd3d3d3a41c8fd0  " << listed << "/changed\n";
  std::ofstream(root_ / "db" / "status") << "Package: other\nVersion: 9\n\nPackage: demo\nStatus: install ok installed\n"
                                         << "Version: 1.2-3\n";
  std::string digest;
  {
    FILE* md5 = popen(("md5sum '" + (root_ / "app" / "tool").string() + "'").c_str(), "r");
    char buffer[33] = {};
    ASSERT_EQ(fread(buffer, 1, 32, md5), 32u);
    pclose(md5);
    digest = buffer;
  }
  std::ofstream(root_ / "db" / "info" / "demo:amd64.md5sums", std::ios::app) << digest << "  " << listed << "/tool\n";

  EXPECT_EQ(failureCode(root_ / "app" / "tool"), 0);
  EXPECT_EQ(info("package", root_ / "app" / "tool"), "demo");
  EXPECT_EQ(info("version", root_ / "app" / "tool"), "1.2-3");
  EXPECT_EQ(info("checksum", root_ / "app" / "tool"), digest);
  EXPECT_EQ(failureCode(root_ / "app" / "changed"), OVCodeSignatureStatusSignatureFailed);
  EXPECT_EQ(info("package", root_ / "app" / "changed"), "(nil)");
  EXPECT_EQ(failureCode(root_ / "app"), OVCodeSignatureStatusSignatureFailed);  // a folder: every file counts
  EXPECT_EQ(failureCode(root_ / "db" / "status"), OVCodeSignatureStatusUnsigned);
  EXPECT_EQ(failureCode(root_ / "missing"), OVCodeSignatureStatusNotFound);
}

TEST_F(CodeSignatureTest, OnlyTheSandboxRequirementIsUnderstood) {
  fs::create_directories(root_ / "Flat.app" / "files");
  std::ofstream(root_ / "Flat.app" / "metadata") << "[Application]\nname=org.example.Flat\n";
  fs::create_directories(root_ / "Plain.app");
  EXPECT_TRUE(OVCodeSignatureChecker::isApplicationSandboxedAtURL(url(root_ / "Flat.app")));
  EXPECT_FALSE(OVCodeSignatureChecker::isApplicationSandboxedAtURL(url(root_ / "Plain.app")));
  EXPECT_EQ(failureCode(root_ / "Plain.app", OVSandboxRequirement), OVCodeSignatureStatusRequirementFailed);
  EXPECT_EQ(failureCode(root_ / "Flat.app", "anchor apple generic"), OVCodeSignatureStatusRequirementInvalid);
  EXPECT_EQ(failureCode(root_ / "Flat.app", "entitlement[\"com.apple.security.app-sandbox\""),
            OVCodeSignatureStatusRequirementInvalid);
}

}  // namespace
