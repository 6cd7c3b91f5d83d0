// Install roots that root alone can write, against look-alikes anyone can
// build. The trees are made in a private mount namespace of a root child
// (`unshare -m`): a tmpfs over /var/lib holds them, so that files can be given
// to "nobody" and a real squashfs image can be loop-mounted as snapd does,
// without touching the host.
#include "fennick/Platform/Files/Internal/RootOwnedPath.h"
#include "fennick/Platform/System/SandboxInstallation.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace fennick::platform;
namespace fs = std::filesystem;

namespace {

constexpr const char* kInNamespace = "FENNICK_SANDBOX_ROOTS_IN_MOUNT_NS";
constexpr int kCannotSetUp = 77;
constexpr uid_t kNobody = 65534;
const std::string kCommit(64, 'c');

void write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path) << text;
}

void giveToNobody(const fs::path& path) { ASSERT_EQ(::lchown(path.c_str(), kNobody, kNobody), 0) << path; }

void run(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

// Inside the namespace: a tmpfs over /var/lib, owned by root, mode 0755.
void mountPrivateVarLib() {
  if (::mount("tmpfs", "/var/lib", "tmpfs", 0, "mode=0755") != 0) std::exit(kCannotSetUp);
  ::umask(022);
}

// A Flatpak application deployed in the system installation, as Flatpak lays
// it out; answers the deployment folder.
fs::path deployFlatpak(const fs::path& installation, const std::string& id = "org.example.App") {
  const fs::path application = installation / "app" / id;
  const fs::path deployment = application / "x86_64" / "stable" / kCommit;
  write(deployment / "files/bin/app", "#!/bin/sh\n");
  write(deployment / "deploy", "deploy record");
  write(deployment / "metadata", "[Application]\nname=" + id + "\nruntime=org.example.Platform/x86_64/1\n");
  fs::create_directory_symlink(kCommit, application / "x86_64" / "stable" / "active");
  fs::create_directory_symlink("x86_64/stable", application / "current");
  return deployment;
}

TEST(SandboxInstallationTest, PlainHostPaths) {
  const auto canonicalTrue = fs::canonical("/usr/bin/true").string();
  EXPECT_EQ(rootOwnedPath("/usr/bin/true"), canonicalTrue);
  EXPECT_EQ(rootOwnedPath("/usr/../usr/bin/./true"), canonicalTrue);
  EXPECT_EQ(rootOwnedPath("/"), "/");
  const std::string withNul("/usr/bin/true\0/x", 16);
  for (const std::string& refused : {std::string(), std::string("usr/bin/true"), withNul, std::string("/tmp"),
                                     std::string("/dev/null"), std::string("/usr/bin/true/x"),
                                     "/" + std::string(PATH_MAX, 'a')})
    EXPECT_EQ(rootOwnedPath(refused), std::nullopt) << refused.substr(0, 40);
  // Nothing on this host is installed by Flatpak or Snap, whatever its path says.
  EXPECT_EQ(sandboxPackagingOfPath("/usr/bin/true"), SandboxPackaging::None);
  EXPECT_EQ(sandboxPackagingOfPath("/tmp/flatpak/app/org.example.App/x86_64/stable/" + kCommit + "/files"),
            SandboxPackaging::None);
}

// Runs the Inside… tests below as root in a private mount namespace.
TEST(SandboxInstallationTest, InstallRootsInAPrivateMountNamespace) {
  if (std::getenv(kInNamespace)) GTEST_SKIP() << "already inside the namespace";
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to give files away and mount a squashfs image";
  if (std::system("unshare -m --propagation private true 2>/dev/null") != 0)
    GTEST_SKIP() << "mount namespaces are unavailable here (unshare -m failed)";
  if (std::system("command -v mksquashfs >/dev/null") != 0) GTEST_SKIP() << "mksquashfs (squashfs-tools) is missing";
  const std::string self = fs::read_symlink("/proc/self/exe");
  const int status = std::system((std::string(kInNamespace) + "=1 unshare -m --propagation private '" + self +
                                  "' --gtest_filter='SandboxInstallationTest.Inside*' --gtest_brief=1")
                                     .c_str());
  if (WIFEXITED(status) && WEXITSTATUS(status) == kCannotSetUp) GTEST_SKIP() << "cannot mount a tmpfs or loop device";
  EXPECT_EQ(status, 0);
}

TEST(SandboxInstallationTest, InsideRootOwnedPathFollowsOnlyRootsLinks) {
  if (!std::getenv(kInNamespace)) GTEST_SKIP() << "runs only inside its own mount namespace";
  mountPrivateVarLib();
  const fs::path tree = "/var/lib/trees";
  write(tree / "root/file", "x");
  fs::create_symlink("root/file", tree / "root-link");
  fs::create_symlink("root/file", tree / "nobody-link");
  giveToNobody(tree / "nobody-link");
  write(tree / "nobody/file", "x");
  giveToNobody(tree / "nobody");
  write(tree / "nobody-file", "x");
  giveToNobody(tree / "nobody-file");
  write(tree / "group-writable/file", "x");
  fs::permissions(tree / "group-writable", fs::perms::group_write, fs::perm_options::add);
  write(tree / "world-writable-file", "x");
  fs::permissions(tree / "world-writable-file", fs::perms::others_write, fs::perm_options::add);
  fs::create_symlink("loop-b", tree / "loop-a");
  fs::create_symlink("loop-a", tree / "loop-b");
  fs::create_symlink("/tmp", tree / "to-tmp");
  fs::create_symlink("/usr/bin/true", tree / "to-true");
  ASSERT_EQ(::mkfifo((tree / "fifo").c_str(), 0600), 0);

  const std::string file = (tree / "root/file").string();
  const struct {
    const char* path;
    std::optional<std::string> expected;
  } cases[] = {
      {"root/file", file},
      {"root-link", file},
      {"root/../root-link", file},
      {"to-true", fs::canonical("/usr/bin/true").string()},
      {"nobody-link", std::nullopt},
      {"nobody/file", std::nullopt},
      {"nobody-file", std::nullopt},
      {"group-writable/file", std::nullopt},
      {"world-writable-file", std::nullopt},
      {"loop-a", std::nullopt},
      {"to-tmp", std::nullopt},
      {"fifo", std::nullopt},
      {"missing", std::nullopt},
  };
  for (const auto& test : cases) EXPECT_EQ(rootOwnedPath((tree / test.path).string()), test.expected) << test.path;
}

TEST(SandboxInstallationTest, InsideFlatpakDeploymentsCountOnlyWhenRootsAndRecorded) {
  if (!std::getenv(kInNamespace)) GTEST_SKIP() << "runs only inside its own mount namespace";
  mountPrivateVarLib();
  const fs::path installation = "/var/lib/flatpak";
  const fs::path app = installation / "app/org.example.App";
  const struct {
    const char* change;
    std::function<void(const fs::path& deployment)> apply;
    const char* item;  // below the application folder
    SandboxPackaging expected;
  } cases[] = {
      {"none", [](const fs::path&) {}, "x86_64/stable/CCC/files/bin/app", SandboxPackaging::Flatpak},
      {"none, through the current and active links", [](const fs::path&) {}, "current/active/files",
       SandboxPackaging::Flatpak},
      {"the deploy record is missing", [](const fs::path& d) { fs::remove(d / "deploy"); }, "current/active",
       SandboxPackaging::None},
      {"the metadata names another application",
       [](const fs::path& d) { write(d / "metadata", "[Application]\nname=org.example.Other\n"); }, "current/active",
       SandboxPackaging::None},
      {"the metadata is a runtime's",
       [](const fs::path& d) { write(d / "metadata", "[Runtime]\nname=org.example.App\n"); }, "current/active",
       SandboxPackaging::None},
      {"the program belongs to nobody", [](const fs::path& d) { giveToNobody(d / "files/bin/app"); },
       "current/active/files/bin/app", SandboxPackaging::None},
      {"the files folder is group-writable",
       [](const fs::path& d) { fs::permissions(d / "files", fs::perms::group_write, fs::perm_options::add); },
       "current/active/files/bin/app", SandboxPackaging::None},
      {"the application folder belongs to nobody", [&](const fs::path&) { giveToNobody(app); }, "current/active",
       SandboxPackaging::None},
      {"the active link was planted by nobody",
       [](const fs::path& d) { giveToNobody(d.parent_path() / "active"); }, "current/active",
       SandboxPackaging::None},
      {"the installation belongs to nobody", [&](const fs::path&) { giveToNobody(installation); }, "current/active",
       SandboxPackaging::None},
      {"the deploy record is a link", [](const fs::path& d) {
         fs::rename(d / "deploy", d / "record");
         fs::create_symlink("record", d / "deploy");
       },
       "current/active", SandboxPackaging::None},
  };
  for (const auto& test : cases) {
    fs::remove_all(installation);
    const fs::path deployment = deployFlatpak(installation);
    test.apply(deployment);
    std::string item = (app / test.item).string();
    if (const auto commit = item.find("CCC"); commit != std::string::npos) item.replace(commit, 3, kCommit);
    EXPECT_EQ(sandboxPackagingOfPath(item), test.expected) << "change: " << test.change;
  }

  // A per-user installation, or any tree outside the configured roots, is the user's.
  fs::remove_all(installation);
  const fs::path user = "/var/lib/home/.local/share/flatpak";
  const std::string userDeployment = deployFlatpak(user).string();
  EXPECT_EQ(sandboxPackagingOfPath(userDeployment), SandboxPackaging::None);
  EXPECT_EQ(sandboxPackagingOfPath(userDeployment, {.flatpakInstallations = {user.string()}}),
            SandboxPackaging::Flatpak);
}

TEST(SandboxInstallationTest, InsideSnapRevisionsAreReadOnlySquashfsMountsOfTheirImage) {
  if (!std::getenv(kInNamespace)) GTEST_SKIP() << "runs only inside its own mount namespace";
  mountPrivateVarLib();
  const SandboxInstallRoots roots{.flatpakInstallations = {}, .snapMountDirectory = "/var/lib/snap",
                                  .snapdDirectory = "/var/lib/snapd"};
  const fs::path snaps = "/var/lib/snapd/snaps";
  write("/var/lib/image/bin/hello", "#!/bin/sh\necho hello\n");
  write("/var/lib/image/meta/snap.yaml", "name: hello\nversion: 1\n");
  fs::create_directories(snaps);
  run("mksquashfs /var/lib/image " + (snaps / "hello_1.snap").string() + " -all-root -quiet -no-progress >/dev/null");
  fs::copy_file(snaps / "hello_1.snap", snaps / "hello_3.snap");
  for (const char* revision : {"hello/1", "hello/2", "hello/3", "Hello/1"})
    fs::create_directories(fs::path("/var/lib/snap") / revision);
  // The genuine revision, as snapd mounts it; a look-alike read-only tmpfs;
  // an image mounted at a revision whose own image is another file.
  for (const auto& [image, revision] :
       {std::pair{"hello_1.snap", "hello/1"}, std::pair{"hello_1.snap", "hello/3"}, std::pair{"hello_1.snap", "Hello/1"}})
    if (std::system(("mount -t squashfs -o ro,loop " + (snaps / image).string() + " /var/lib/snap/" + revision +
                     " 2>/dev/null")
                        .c_str()) != 0)
      std::exit(kCannotSetUp);
  fs::copy_file(snaps / "hello_1.snap", snaps / "hello_2.snap");
  run("mount -t tmpfs -o mode=0755 tmpfs /var/lib/snap/hello/2");
  write("/var/lib/snap/hello/2/bin/hello", "#!/bin/sh\n");
  run("mount -o remount,ro /var/lib/snap/hello/2");

  const struct {
    const char* item;
    SandboxPackaging expected;
  } cases[] = {
      {"/var/lib/snap/hello/1", SandboxPackaging::Snap},
      {"/var/lib/snap/hello/1/bin/hello", SandboxPackaging::Snap},
      {"/var/lib/snap/hello/2/bin/hello", SandboxPackaging::None},  // not squashfs
      {"/var/lib/snap/hello/3/bin/hello", SandboxPackaging::None},  // backed by another revision's image
      {"/var/lib/snap/Hello/1/bin/hello", SandboxPackaging::None},  // not a snap name
      {"/var/lib/snap/hello", SandboxPackaging::None},
  };
  for (const auto& test : cases) EXPECT_EQ(sandboxPackagingOfPath(test.item, roots), test.expected) << test.item;

  giveToNobody(snaps / "hello_1.snap");
  EXPECT_EQ(sandboxPackagingOfPath("/var/lib/snap/hello/1/bin/hello", roots), SandboxPackaging::None)
      << "an image that is not root's";
}

}  // namespace
