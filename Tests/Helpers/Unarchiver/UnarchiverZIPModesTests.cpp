// ZIP archives whose modes and links only their central directories record,
// as Python's zipfile and Info-ZIP write them. bsdtar reads them from a pipe
// and sees none of it; the job must still give executables their execute
// bit and make links links again, taking away what is unsafe, as root and
// as an unprivileged user. A link that would point outside fails the job.
#include "Support/ChildTestRun.h"
#include "Helpers/Unarchiver/UnarchiverTestSandbox.h"

#include <span>

using namespace fennick;
using namespace fennick::unarchivertest;

namespace {

constexpr const char* kEscapingLink = "The archive holds a symbolic link that points outside of it.";
constexpr const char* kInvalidLink = "The archive holds a symbolic link whose target is not a usable path.";
constexpr const char* kInfoZIP = "/usr/bin/zip";

void sh(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }
std::string quoted(const fs::path& path) { return "'" + path.string() + "'"; }

// An application folder as an updater ships it, zipped by Info-ZIP with its
// links kept as links (-y).
void buildInfoZIPArchive(const fs::path& folder) {
  const fs::path app = folder / "infozip-content" / "App";
  writeFile(app / "bin" / "run", "#!/bin/sh\n");
  writeFile(app / "doc.txt", "doc");
  writeFile(app / "Versions" / "A" / "lib.so", "lib");
  fs::create_symlink("A", app / "Versions" / "Current");
  fs::create_symlink("bin/run", app / "run-link");
  fs::permissions(app / "bin" / "run", fs::perms(0755));
  fs::permissions(app / "doc.txt", fs::perms(0644));
  fs::permissions(app / "Versions" / "A" / "lib.so", fs::perms(0644));
  fs::permissions(app / "bin", fs::perms(0700));
  sh("umask 022 && cd " + quoted(app.parent_path()) + " && zip -qry " + quoted(folder / "infozip.zip") + " App");
  fs::remove_all(app.parent_path());
}

void buildFixtures(const fs::path& folder, const fs::path& outside) {
  sh("umask 022 && python3 '" FENNICK_TEST_SOURCE_DIR "/Helpers/Unarchiver/archive_fixtures.py' mode-set " + quoted(folder) +
     " " + quoted(outside));
  if (fs::exists(kInfoZIP)) buildInfoZIPArchive(folder);
}

struct ExpectedItem {
  const char* path;
  mode_t permissions;              // for files and folders
  const char* linkTarget = nullptr;  // for links
};

const ExpectedItem kPythonItems[] = {
    {"bin", 0700},
    {"bin/run", 0755},
    {"bin/link", 0, "run"},
    {"doc.txt", 0644},
    {"private.txt", 0600},
    {"setuid", 0755},  // 04755
    {"open", 0755},    // 0777
    {"shared", 0755},  // a folder of 01777
    {"bare", 0755},    // 0755 without a type
    {"lib/up", 0, "../doc.txt"},
    {"dot/tool", 0755},  // stored as "./dot/tool"
    {"bad-\xff\xfe\xfd\xfc", 0700},
};

// Entries made on another system keep what bsdtar gives them (under a umask
// of 022); their modes are not Unix modes.
const ExpectedItem kNotUnixItems[] = {{"run", 0644}, {"link", 0644}};

const ExpectedItem kInfoZIPItems[] = {
    {"App/bin", 0700},
    {"App/bin/run", 0755},
    {"App/doc.txt", 0644},
    {"App/Versions/A/lib.so", 0644},
    {"App/Versions/Current", 0, "A"},
    {"App/run-link", 0, "bin/run"},
};

struct KeptCase {
  const char* archive;
  std::span<const ExpectedItem> items;
};

const KeptCase kKeptCases[] = {
    {"modes.zip", kPythonItems},
    {"modes-zip64.zip", kPythonItems},
    {"not-unix.zip", kNotUnixItems},
    {"infozip.zip", kInfoZIPItems},
};

struct RefusedCase {
  const char* archive;
  const char* description;
};

const RefusedCase kRefusedCases[] = {
    {"link-up.zip", kEscapingLink},           // "../outside"
    {"link-absolute.zip", kEscapingLink},     // the outside folder's absolute path
    {"link-after-name.zip", kEscapingLink},   // "up/..", where "up" is itself a link to ".."
    {"link-nul.zip", kInvalidLink},           // "a\0b"
    {"link-long.zip", kInvalidLink},          // 5000 bytes
    {"link-empty.zip", kInvalidLink},
};

void expectItems(const fs::path& folder, std::span<const ExpectedItem> items) {
  for (const ExpectedItem& item : items) {
    SCOPED_TRACE(item.path);
    struct stat status {};
    ASSERT_EQ(::lstat((folder / item.path).c_str(), &status), 0);
    if (item.linkTarget) {
      ASSERT_TRUE(S_ISLNK(status.st_mode));
      EXPECT_EQ(fs::read_symlink(folder / item.path).string(), item.linkTarget);
    } else {
      ASSERT_TRUE(S_ISREG(status.st_mode) || S_ISDIR(status.st_mode));
      EXPECT_EQ(status.st_mode & 07777, item.permissions) << std::oct << (status.st_mode & 07777);
    }
  }
}

void runModeTable(const fs::path& fixtures, const fs::path& aimedAt) {
  Sandbox sandbox("fennick-zip-modes");
  ScopedUmask typical(022);
  for (const KeptCase& item : kKeptCases) {
    SCOPED_TRACE(item.archive);
    if (!fs::exists(fixtures / item.archive)) continue;  // Info-ZIP is not installed: the outer test says so
    const fs::path destination = sandbox.root() / (std::string(item.archive) + "-out");
    const Outcome outcome = unpack(fixtures / item.archive, destination);
    ASSERT_TRUE(outcome.completed) << "the job never completed";
    ASSERT_FALSE(outcome.error) << outcome.error->description();
    expectItems(destination, item.items);
  }
  // Jobs that unpacked leave their (emptied) extraction folders.
  for (const auto& name : namesIn(sandbox.tmp())) fs::remove_all(sandbox.tmp() / name);
  for (const RefusedCase& item : kRefusedCases) {
    SCOPED_TRACE(item.archive);
    const Outcome outcome = unpack(fixtures / item.archive, sandbox.destination());
    ASSERT_TRUE(outcome.completed) << "the job never completed";
    ASSERT_TRUE(outcome.error);
    EXPECT_FALSE(outcome.folder);
    EXPECT_EQ(outcome.error->domain(), OVUnarchiverErrorDomain);
    EXPECT_EQ(outcome.error->code(), OVUnarchiverErrorUnsafeContent);
    EXPECT_EQ(outcome.error->localizedDescription(), item.description);
    sandbox.expectDestinationIntact();
    sandbox.expectNothingEscaped();
    EXPECT_TRUE(namesIn(aimedAt).empty());
    EXPECT_TRUE(namesIn(sandbox.tmp()).empty());
  }
}

TEST(UnarchiverZIPModes, KeptAndMadeSafeAsRootAndAsAnUnprivilegedUser) {
  const fs::path base = sandboxBase();
  Sandbox fixtureSandbox("fennick-zip-mode-fixtures");
  const fs::path fixtures = fixtureSandbox.root() / "set";
  ASSERT_NO_FATAL_FAILURE(buildFixtures(fixtures, fixtureSandbox.outside()));
  {
    SCOPED_TRACE(::geteuid() == 0 ? "as root" : "as the caller");
    runModeTable(fixtures, fixtureSandbox.outside());
  }
  if (::geteuid() == 0) {
    FENNICK_RUN_IN_CHILD("UnarchiverZIPModes.InsideAsNobody",
                         {.unprivileged = true,
                          .environment = {"FENNICK_MODE_FIXTURES=" + fixtures.string(),
                                          "FENNICK_MODE_OUTSIDE=" + fixtureSandbox.outside().string(),
                                          "FENNICK_SANDBOX_BASE=" + base.string()}});
  }
  if (!fs::exists(kInfoZIP)) GTEST_SKIP() << "Info-ZIP archives were not checked: " << kInfoZIP << " is missing";
  if (::geteuid() != 0) GTEST_SKIP() << "only root can run the table again as another user";
}

TEST(UnarchiverZIPModes, InsideAsNobody) {
  FENNICK_ONLY_IN_CHILD();
  runModeTable(std::getenv("FENNICK_MODE_FIXTURES"), std::getenv("FENNICK_MODE_OUTSIDE"));
}

}  // namespace
