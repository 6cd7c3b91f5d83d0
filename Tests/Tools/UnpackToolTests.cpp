// `fennick unpack` as a user meets it: the folder on success, the error's
// description and a non-zero exit on failure, including a full disk and a
// destination it may not write to.
#include <gtest/gtest.h>

#include "Tools/ToolRunner.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

using fennick::tooltest::runTool;
namespace fs = std::filesystem;

namespace {

class UnpackToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fs::path("/tmp") / ("fennick-unpack-tool-" + std::to_string(getpid()));
    fs::remove_all(root_);
    fs::create_directories(root_ / "content" / "Tool.app");
    std::ofstream(root_ / "content" / "Tool.app" / "run") << "#!/bin/sh\n";
    // Random bytes do not compress, so the archive is as large as its content.
    run("head -c 600000 /dev/urandom > '" + (root_ / "content" / "data.bin").string() + "'");
    run("bsdtar --format zip -cf '" + archive().string() + "' -C '" + (root_ / "content").string() + "' .");
  }
  void TearDown() override { fs::remove_all(root_); }

  static int run(const std::string& command) { return std::system(command.c_str()); }
  fs::path archive() const { return root_ / "bundle.zip"; }

  fs::path root_;
};

TEST_F(UnpackToolTest, UnpacksIntoTheDestinationAndPrintsIt) {
  const fs::path destination = root_ / "new" / "place";
  auto result = runTool({"unpack", archive().string(), destination.string()});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, destination.string() + "\n");
  EXPECT_TRUE(fs::exists(destination / "Tool.app" / "run"));
  EXPECT_EQ(fs::file_size(destination / "data.bin"), 600000u);
  // Not a terminal: plain percentages, ending at 100%.
  EXPECT_NE(result.err.find("unpacking bundle.zip 10%"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("unpacking bundle.zip 100%"), std::string::npos) << result.err;
}

TEST_F(UnpackToolTest, FailuresPrintTheErrorAndExitNonZero) {
  std::ofstream(root_ / "notes.txt") << "plain";
  auto unknown = runTool({"unpack", (root_ / "notes.txt").string(), (root_ / "out").string()});
  EXPECT_EQ(unknown.status, 1);
  EXPECT_NE(unknown.err.find("Unknown archive type."), std::string::npos) << unknown.err;
  EXPECT_TRUE(unknown.out.empty());

  auto missing = runTool({"unpack", (root_ / "missing.zip").string()});
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find("No such file or directory"), std::string::npos) << missing.err;

  EXPECT_EQ(runTool({"unpack"}).status, 2);
}

TEST_F(UnpackToolTest, AFullDiskFailsWithTheToolsMessageAndNothingOutside) {
  fs::create_directories(root_ / "small");
  // A 256 KiB tmpfs in the test's own mount namespace; the host's mounts are untouched.
  const std::string script = "mount -t tmpfs -o size=256k tmpfs '" + (root_ / "small").string() + "' && TMPDIR='" +
                             (root_ / "small").string() + "' '" FENNICK_TOOL_PATH "' unpack '" + archive().string() +
                             "' '" + (root_ / "small" / "dest").string() + "' 2>'" + (root_ / "err").string() + "'";
  const int status = run("unshare -rm sh -c \"exit 0\" 2>/dev/null");
  if (status != 0) GTEST_SKIP() << "mount namespaces are unavailable here (unshare -rm failed)";
  EXPECT_NE(run("unshare -rm sh -c \"" + script + "\""), 0);
  std::ifstream errors(root_ / "err");
  const std::string text{std::istreambuf_iterator<char>(errors), std::istreambuf_iterator<char>()};
  EXPECT_NE(text.find("No space left on device"), std::string::npos) << text;
  EXPECT_TRUE(fs::is_empty(root_ / "small"));  // the tmpfs went away with its namespace
}

TEST_F(UnpackToolTest, ADestinationWithoutWritePermissionFails) {
  if (geteuid() != 0 || run("command -v setpriv >/dev/null") != 0)
    GTEST_SKIP() << "needs root and setpriv to run the tool as another user";
  fs::create_directories(root_ / "locked");
  fs::permissions(root_, fs::perms::others_read | fs::perms::others_exec, fs::perm_options::add);
  fs::permissions(archive(), fs::perms::others_read, fs::perm_options::add);
  const int status = run("setpriv --reuid=65534 --regid=65534 --clear-groups '" FENNICK_TOOL_PATH "' unpack '" +
                         archive().string() + "' '" + (root_ / "locked" / "dest").string() + "' 2>'" +
                         (root_ / "err").string() + "'");
  EXPECT_NE(status, 0);
  std::ifstream errors(root_ / "err");
  const std::string text{std::istreambuf_iterator<char>(errors), std::istreambuf_iterator<char>()};
  EXPECT_NE(text.find("Permission denied"), std::string::npos) << text;
  EXPECT_TRUE(fs::is_empty(root_ / "locked"));
}

}  // namespace
