#include "fennick/Helpers/System/OVCodeSignatureChecker.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"

#include "Support/ChildTestRun.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace fennick;
namespace fs = std::filesystem;

namespace {

std::string md5(std::string_view text) {
  gchar* digest = g_compute_checksum_for_data(G_CHECKSUM_MD5, reinterpret_cast<const guchar*>(text.data()), text.size());
  std::string result(digest);
  g_free(digest);
  return result;
}

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
  if (!fs::exists("/var/lib/dpkg/info/coreutils.md5sums")) GTEST_SKIP() << "not a Debian system with coreutils";
  EXPECT_EQ(failureCode("/usr/bin/true", "anchor apple generic"), OVCodeSignatureStatusRequirementInvalid);
  EXPECT_EQ(failureCode("/usr/bin/true", "entitlement[\"com.apple.security.app-sandbox\""),
            OVCodeSignatureStatusRequirementInvalid);
  Ref<Error> error;
  EXPECT_FALSE(OVCodeSignatureChecker::codeSignatureAtURL_satisfiesCodeRequirements_error(
      url("/usr/bin/true"), OVSandboxRequirement, &error));
  EXPECT_EQ(error->code(), OVCodeSignatureStatusRequirementFailed);
  EXPECT_EQ(error->localizedDescription().find("/usr/bin"), std::string::npos) << "no path in the description";
  // A path cut at a NUL byte would name /usr/bin/true, which is valid.
  EXPECT_EQ(failureCode(std::string("/usr/bin/true\0/forged", 21)), OVCodeSignatureStatusNotFound);
}

// Trees that look like Flatpak or Snap applications and whose files a
// package lists (so they are valid): anyone can build them, so none is
// sandboxed. When the tests run as root they belong to nobody, as a user's
// forgery would.
TEST_F(CodeSignatureTest, LookAlikeSandboxesAreNotSandboxed) {
  const std::string commit(64, 'c');
  const struct {
    const char* tree;
    std::vector<std::pair<const char*, const char*>> files;
  } cases[] = {
      {"Flat.app", {{"metadata", "[Application]\nname=org.example.Flat\n"}, {"files/bin/flat", "x"}}},
      {"Snap.app", {{"meta/snap.yaml", "name: snappy\n"}, {"bin/snappy", "x"}}},
      {"flatpak/app/org.example.App/x86_64/stable/CCC",
       {{"deploy", "record"}, {"metadata", "[Application]\nname=org.example.App\n"}, {"files/bin/app", "x"}}},
      {"snap/hello/1", {{"meta/snap.yaml", "name: hello\n"}, {"bin/hello", "x"}}},
  };
  for (const auto& test : cases) {
    std::string tree = test.tree;
    if (const auto at = tree.find("CCC"); at != std::string::npos) tree.replace(at, 3, commit);
    const fs::path folder = root_ / "forged" / tree;
    std::ofstream sums(root_ / "db" / "info" / "forged.md5sums");
    for (const auto& [name, contents] : test.files) {
      fs::create_directories((folder / name).parent_path());
      std::ofstream(folder / name) << contents;
      sums << md5(contents) << "  " << (folder / name).string().substr(1) << "\n";
    }
    sums.close();
    if (geteuid() == 0) {
      for (const auto& entry : fs::recursive_directory_iterator(root_ / "forged"))
        ASSERT_EQ(lchown(entry.path().c_str(), 65534, 65534), 0);
    }
    EXPECT_EQ(failureCode(folder), 0) << test.tree << " is valid";
    EXPECT_EQ(failureCode(folder, OVSandboxRequirement), OVCodeSignatureStatusRequirementFailed) << test.tree;
    EXPECT_FALSE(OVCodeSignatureChecker::isApplicationSandboxedAtURL(url(folder))) << test.tree;
    // Unsigned: no package lists it, so it satisfies no requirement.
    fs::remove(root_ / "db" / "info" / "forged.md5sums");
    EXPECT_EQ(failureCode(folder, OVSandboxRequirement), OVCodeSignatureStatusUnsigned) << test.tree;
    fs::remove_all(root_ / "forged");
  }
}

// A Flatpak application deployed in the system installation, in a private
// mount namespace whose tmpfs over /var/lib stands for the real one.
TEST(CodeSignatureNamespaceTest, SystemFlatpakDeploymentIsSandboxedWhenValid) {
  if (geteuid() != 0) GTEST_SKIP() << "the host's root folders read as root only to a child of root";
  FENNICK_RUN_IN_CHILD("CodeSignatureNamespaceTest.InsideSystemFlatpakInstallation", {.privateNamespace = true});
}

TEST(CodeSignatureNamespaceTest, InsideSystemFlatpakInstallation) {
  FENNICK_ONLY_IN_CHILD();
  if (mount("tmpfs", "/var/lib", "tmpfs", 0, "mode=0755") != 0) std::exit(fennick::filetest::kChildCannotSetUp);
  umask(022);
  const std::string commit(64, '0');
  const fs::path deployment = fs::path("/var/lib/flatpak/app/org.example.App/x86_64/stable") / commit;
  const fs::path program = deployment / "files/bin/app";
  fs::create_directories(program.parent_path());
  std::ofstream(program) << "#!/bin/sh\n";
  std::ofstream(deployment / "deploy") << "record";
  std::ofstream(deployment / "metadata") << "[Application]\nname=org.example.App\n";
  fs::create_directories("/var/lib/db/info");
  {
    std::ofstream sums("/var/lib/db/info/app.md5sums");
    for (const char* name : {"files/bin/app", "deploy"})
      sums << md5(name == std::string("deploy") ? "record" : "#!/bin/sh\n") << "  "
           << (deployment / name).string().substr(1) << "\n";
    sums << md5("[Application]\nname=org.example.App\n") << "  " << (deployment / "metadata").string().substr(1)
         << "\n";
  }
  auto check = [&](const fs::path& item) {
    Ref<Error> error;
    const bool sandboxed = OVCodeSignatureChecker::codeSignatureAtURL_satisfiesCodeRequirements_error(
        URL::fileURLWithPath(item.string()), OVSandboxRequirement, &error, "/var/lib/db");
    return sandboxed ? 0 : error->code();
  };
  EXPECT_EQ(check(deployment), 0);
  EXPECT_EQ(check(program), 0);
  // The host's package database is hidden here: nothing lists the files.
  EXPECT_FALSE(OVCodeSignatureChecker::isApplicationSandboxedAtURL(URL::fileURLWithPath(deployment.string())));
  std::ofstream(program, std::ios::app) << "changed\n";
  EXPECT_EQ(check(deployment), OVCodeSignatureStatusSignatureFailed);
  std::ofstream(program) << "#!/bin/sh\n";
  fs::rename(deployment / "deploy", "/var/lib/deploy");
  EXPECT_EQ(check(program), OVCodeSignatureStatusRequirementFailed);
}

}  // namespace
