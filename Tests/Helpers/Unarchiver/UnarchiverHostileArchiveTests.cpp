// Hostile ZIP archives and disk images, unpacked as root and again by an
// unprivileged user: each is refused with a clear error (or, for modes and
// special files that a format cannot really carry, made harmless), and none
// writes outside its folder, leaves a special or privileged item behind, or
// costs the destination what it held.
#include "Support/ChildTestRun.h"
#include "Helpers/Unarchiver/UnarchiverTestSandbox.h"

using namespace fennick;
using namespace fennick::unarchivertest;

namespace {

enum class Expect { ToolFailure, UnknownType, UnsafeContent, TooLarge, AnyError, Unpacks };

struct HostileCase {
  const char* archive;
  Expect expect;
  bool dependsOnPrivilege = false;  // run again as nobody
};

void sh(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }
std::string quoted(const fs::path& path) { return "'" + path.string() + "'"; }

// Every hostile archive of the table, built once by the outer test (as root:
// device nodes in images need it) and read by both runs.
void buildFixtures(const fs::path& folder, const fs::path& outside) {
  sh("umask 022 && python3 '" FENNICK_TEST_SOURCE_DIR "/Helpers/Unarchiver/archive_fixtures.py' hostile-set " +
     quoted(folder) + " " + quoted(outside));
}

const HostileCase kHostileCases[] = {
    // Entries that aim outside: bsdtar refuses them and fails.
    {"dotdot.zip", Expect::ToolFailure, true},
    {"absolute.zip", Expect::ToolFailure, true},
    {"link-through.zip", Expect::ToolFailure, true},
    {"relative-link-through.zip", Expect::ToolFailure, true},
    {"declared-size.zip", Expect::ToolFailure},
    // What bsdtar makes but must not leave the private folder.
    {"escaping-link.zip", Expect::UnsafeContent, true},
    {"link-after-name.zip", Expect::UnsafeContent, true},
    {"device.zip", Expect::AnyError, true},  // root gets a node to refuse; others cannot make one
    {"duplicate.zip", Expect::UnsafeContent},
    {"duplicate-spelling.zip", Expect::UnsafeContent},  // "./twice.txt" and "twice.txt"
    {"case.zip", Expect::UnsafeContent},
    {"deep.zip", Expect::UnsafeContent},
    {"bomb.zip", Expect::TooLarge},
    {"bomb-many.zip", Expect::TooLarge},
    // Not ZIP archives, whatever their names say.
    {"tar.zip", Expect::UnknownType, true},
    {"polyglot-tar.zip", Expect::UnknownType, true},
    {"cpio.zip", Expect::UnknownType, true},
    {"mtree.zip", Expect::UnknownType, true},
    {"polyglot-iso.zip", Expect::UnknownType, true},
    // Cut short: in an entry, the tool notices; after the last one, only the
    // missing end record tells.
    {"truncated-header.zip", Expect::ToolFailure},
    {"truncated-data.zip", Expect::ToolFailure},
    {"truncated-second-entry.zip", Expect::ToolFailure},
    {"truncated-central-directory.zip", Expect::UnsafeContent},
    {"truncated-end-record.zip", Expect::UnsafeContent},
    // Central directories, which bsdtar reading a stream never sees: honest
    // ones (plain, ZIP64, with data descriptors) unpack; one of each kind of
    // lie fails the job (the reader's own tests go through them all).
    {"valid.zip", Expect::Unpacks},
    {"zip64-end.zip", Expect::Unpacks},
    {"descriptors.zip", Expect::Unpacks},
    {"end-in-comment.zip", Expect::UnsafeContent},
    {"count-beyond-directory.zip", Expect::UnsafeContent},
    {"zip64-huge-offset.zip", Expect::UnsafeContent},
    {"zip64-extra-offset.zip", Expect::UnsafeContent},
    {"overlapping.zip", Expect::UnsafeContent},
    {"hidden-entry.zip", Expect::UnsafeContent},  // bsdtar would unpack an entry the directory leaves out
    {"name-mismatch.zip", Expect::UnsafeContent},
    {"nul-name.zip", Expect::UnsafeContent},  // bsdtar would cut the name at the NUL
    {"long-name.zip", Expect::UnsafeContent},
    // Archives that are not regular files are never opened for reading.
    {"pipe.zip", Expect::AnyError, true},
    {"pipe.dmg", Expect::AnyError, true},
    {"pipe.bin", Expect::UnknownType},
    // Disk images.
    {"image-escaping-link.dmg", Expect::ToolFailure, true},
    {"image-case.dmg", Expect::UnsafeContent},
    {"image-truncated.dmg", Expect::ToolFailure},
    // Modes that are taken away and special files that 7-Zip makes plain.
    {"modes.zip", Expect::Unpacks, true},
    {"fifo.zip", Expect::Unpacks, true},  // a streamed ZIP's FIFO comes out as an empty file
    {"image-modes.dmg", Expect::Unpacks, true},
};

void expectOutcome(const Outcome& outcome, Expect expect) {
  ASSERT_TRUE(outcome.completed) << "the job never completed";
  if (expect == Expect::Unpacks) {
    EXPECT_FALSE(outcome.error) << outcome.error->description();
    EXPECT_TRUE(outcome.folder);
    return;
  }
  ASSERT_TRUE(outcome.error);
  EXPECT_FALSE(outcome.folder);
  EXPECT_FALSE(outcome.error->localizedDescription().empty());
  const auto expectCode = [&](std::int64_t code) {
    EXPECT_EQ(outcome.error->domain(), OVUnarchiverErrorDomain);
    EXPECT_EQ(outcome.error->code(), code);
  };
  switch (expect) {
    case Expect::ToolFailure:
      EXPECT_EQ(outcome.error->domain(), NSOSStatusErrorDomain);
      break;
    case Expect::UnknownType:
      expectCode(OVUnarchiverErrorUnknownArchiveType);
      break;
    case Expect::UnsafeContent:
      expectCode(OVUnarchiverErrorUnsafeContent);
      break;
    case Expect::TooLarge:
      expectCode(OVUnarchiverErrorExpansionLimitExceeded);
      break;
    case Expect::AnyError:
    case Expect::Unpacks:
      break;
  }
}

// Permissions beyond the umask never come from an archive; with a umask of
// 0 the tools would keep 0777 and 0666, so the check is what must clear them.
void runHostileTable(const fs::path& fixtures, const fs::path& aimedAt, bool onlyWhereThePrivilegeCounts) {
  Sandbox sandbox("fennick-hostile");
  ScopedUmask open(0);
  for (const HostileCase& item : kHostileCases) {
    if (onlyWhereThePrivilegeCounts && !item.dependsOnPrivilege) continue;
    SCOPED_TRACE(item.archive);
    const Outcome outcome = unpack(fixtures / item.archive, sandbox.destination());
    expectOutcome(outcome, item.expect);
    sandbox.expectNothingEscaped();
    EXPECT_TRUE(namesIn(aimedAt).empty());
    sandbox.expectDestinationIntact();
    sandbox.expectOnlySafeItems();
    // A refused archive leaves no folder behind; one that unpacked leaves its
    // (emptied) extraction folder, which the next case must not see.
    if (item.expect != Expect::Unpacks) {
      EXPECT_TRUE(namesIn(sandbox.tmp()).empty());
    }
    for (const auto& name : namesIn(sandbox.tmp())) fs::remove_all(sandbox.tmp() / name);
  }
}

TEST(UnarchiverHostileArchives, RefusedOrMadeHarmlessAsRootAndAsAnUnprivilegedUser) {
  const fs::path base = sandboxBase();
  Sandbox fixtureSandbox("fennick-hostile-fixtures");
  const fs::path fixtures = fixtureSandbox.root() / "set";
  ASSERT_NO_FATAL_FAILURE(buildFixtures(fixtures, fixtureSandbox.outside()));
  {
    SCOPED_TRACE(::geteuid() == 0 ? "as root" : "as the caller");
    runHostileTable(fixtures, fixtureSandbox.outside(), false);
  }
  if (::geteuid() != 0) GTEST_SKIP() << "only root can run the table again as another user";
  FENNICK_RUN_IN_CHILD("UnarchiverHostileArchives.InsideAsNobody",
                       {.unprivileged = true,
                        .environment = {"FENNICK_HOSTILE_FIXTURES=" + fixtures.string(),
                                        "FENNICK_HOSTILE_OUTSIDE=" + fixtureSandbox.outside().string(),
                                        "FENNICK_SANDBOX_BASE=" + base.string()}});
}

TEST(UnarchiverHostileArchives, InsideAsNobody) {
  FENNICK_ONLY_IN_CHILD();
  runHostileTable(std::getenv("FENNICK_HOSTILE_FIXTURES"), std::getenv("FENNICK_HOSTILE_OUTSIDE"), true);
}

// A volume's links come out as the image records them: an absolute target
// stays absolute (not rewritten into the job's folder, which is deleted and
// whose name would be published), a relative one stays relative.
TEST(UnarchiverDiskImages, LinksKeepTheTargetsTheImageRecords) {
  Sandbox sandbox("fennick-image-links");
  const fs::path volume = sandbox.root() / "volume";
  writeFile(volume / "Demo.app" / "Versions" / "A" / "Demo", "binary");
  fs::create_symlink("A", volume / "Demo.app" / "Versions" / "Current");
  fs::create_symlink("Versions/Current/Demo", volume / "Demo.app" / "Demo");
  fs::create_symlink("/Applications", volume / "Applications");
  sh("python3 '" FENNICK_TEST_SOURCE_DIR "/Helpers/Unarchiver/archive_fixtures.py' volume-image " + quoted(volume) + " " +
     quoted(sandbox.root() / "links.dmg"));

  const Outcome outcome = unpack(sandbox.root() / "links.dmg", sandbox.destination());
  ASSERT_TRUE(outcome.completed);
  ASSERT_FALSE(outcome.error) << outcome.error->description();
  const fs::path destination = sandbox.destination();
  EXPECT_EQ(fs::read_symlink(destination / "Applications"), "/Applications");
  EXPECT_EQ(fs::read_symlink(destination / "Demo.app" / "Versions" / "Current"), "A");
  EXPECT_EQ(readFile(destination / "Demo.app" / "Demo"), "binary");
  sandbox.expectDestinationIntact();
}

}  // namespace
