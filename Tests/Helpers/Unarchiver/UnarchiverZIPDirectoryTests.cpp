// The central-directory reader over archives whose directories lie: each is
// refused for what it does, the reader never asks for a byte outside the
// archive, and honest directories (plain and ZIP64) are read entry by entry.
#include "Helpers/Unarchiver/UnarchiverTestSandbox.h"

#include "fennick/Helpers/Unarchiver/Internal/ZIPCentralDirectory.h"

#include <cstring>

using namespace fennick;
using namespace fennick::detail;
using namespace fennick::unarchivertest;

namespace {

struct ReadResult {
  ZIPDirectoryProblem problem;
  std::vector<std::string> names;
  std::vector<std::uint32_t> modes;
  bool readOutside = false;
};

ReadResult readDirectory(const std::string& archive) {
  ReadResult result{};
  const ZIPCentralDirectory directory(
      [&](std::uint64_t offset, std::span<char> into) {
        if (offset > archive.size() || into.size() > archive.size() - offset) {
          result.readOutside = true;
          return false;
        }
        std::memcpy(into.data(), archive.data() + offset, into.size());
        return true;
      },
      archive.size());
  result.problem = directory.problem();
  for (const ZIPDirectoryEntry& entry : directory.entries()) {
    result.names.emplace_back(entry.name);
    result.modes.push_back(entry.unixMode());
  }
  return result;
}

class ZIPDirectoryFixtures : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    sandbox_ = new Sandbox("fennick-zip-directories");
    const std::string command = "python3 '" FENNICK_TEST_SOURCE_DIR "/Helpers/Unarchiver/archive_fixtures.py' directory-set '" +
                                (sandbox_->root() / "set").string() + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }
  static void TearDownTestSuite() {
    delete sandbox_;
    sandbox_ = nullptr;
  }
  static std::string archive(const char* name) { return readFile(sandbox_->root() / "set" / name); }
  static Sandbox* sandbox_;
};

Sandbox* ZIPDirectoryFixtures::sandbox_ = nullptr;

TEST_F(ZIPDirectoryFixtures, HonestDirectoriesListEveryEntryWithItsMode) {
  for (const char* name : {"valid.zip", "zip64-end.zip", "descriptors.zip"}) {
    SCOPED_TRACE(name);
    const ReadResult result = readDirectory(archive(name));
    ASSERT_EQ(result.problem, ZIPDirectoryProblem::None);
    EXPECT_FALSE(result.readOutside);
    EXPECT_EQ(result.names, (std::vector<std::string>{"a.txt", "b/", "b/c"}));
    EXPECT_EQ(result.modes, (std::vector<std::uint32_t>{0100644, 040755, 0120777}));
  }
  // An archive with no entry at all is only its end record.
  const ReadResult empty = readDirectory(std::string("PK\x05\x06", 4) + std::string(18, '\0'));
  EXPECT_EQ(empty.problem, ZIPDirectoryProblem::None);
  EXPECT_TRUE(empty.names.empty());
}

struct LyingDirectory {
  const char* archive;
  ZIPDirectoryProblem problem;
};

const LyingDirectory kLyingDirectories[] = {
    // End records: missing, followed by bytes, hidden in a comment, or
    // ZIP64 records that disagree with the plain one.
    {"no-end-record.zip", ZIPDirectoryProblem::NoEndRecord},
    {"bytes-after-end.zip", ZIPDirectoryProblem::NoEndRecord},
    {"end-in-comment.zip", ZIPDirectoryProblem::AmbiguousEndRecord},
    {"zip64-disagrees.zip", ZIPDirectoryProblem::AmbiguousEndRecord},
    // Counts, sizes and offsets beyond what the file holds, plain and ZIP64.
    {"directory-shifted.zip", ZIPDirectoryProblem::OutOfRange},
    {"count-beyond-directory.zip", ZIPDirectoryProblem::OutOfRange},
    {"offset-past-end.zip", ZIPDirectoryProblem::OutOfRange},
    {"size-past-end.zip", ZIPDirectoryProblem::OutOfRange},
    {"zip64-huge-count.zip", ZIPDirectoryProblem::OutOfRange},
    {"zip64-huge-offset.zip", ZIPDirectoryProblem::OutOfRange},
    {"zip64-huge-size.zip", ZIPDirectoryProblem::OutOfRange},
    {"zip64-extra-offset.zip", ZIPDirectoryProblem::OutOfRange},
    {"local-offset-past-directory.zip", ZIPDirectoryProblem::OutOfRange},
    // Records that do not match their entries, share bytes with another, or
    // leave an entry out.
    {"count-too-small.zip", ZIPDirectoryProblem::Malformed},
    {"name-mismatch.zip", ZIPDirectoryProblem::Malformed},
    {"nul-name.zip", ZIPDirectoryProblem::Malformed},
    {"overlapping.zip", ZIPDirectoryProblem::Overlapping},
    {"hidden-entry.zip", ZIPDirectoryProblem::UnlistedBytes},
    {"long-name.zip", ZIPDirectoryProblem::TooLarge},
};

TEST_F(ZIPDirectoryFixtures, LyingDirectoriesAreRefusedWithoutReadingOutsideTheArchive) {
  for (const LyingDirectory& item : kLyingDirectories) {
    SCOPED_TRACE(item.archive);
    const std::string bytes = archive(item.archive);
    ASSERT_FALSE(bytes.empty());
    const ReadResult result = readDirectory(bytes);
    EXPECT_EQ(result.problem, item.problem);
    EXPECT_TRUE(result.names.empty());
    EXPECT_FALSE(result.readOutside);
    EXPECT_NE(std::string(describeZIPDirectoryProblem(result.problem)), "");
  }
}

// Every cut of an honest archive is refused (none can still be whole), and
// a reader that fails is reported as such.
TEST_F(ZIPDirectoryFixtures, TruncationsAndFailingReadsAreRefused) {
  const std::string whole = archive("zip64-end.zip");
  for (std::size_t length = 0; length < whole.size(); ++length) {
    const ReadResult result = readDirectory(whole.substr(0, length));
    EXPECT_NE(result.problem, ZIPDirectoryProblem::None) << length;
    EXPECT_FALSE(result.readOutside) << length;
  }
  const ZIPCentralDirectory failing([](std::uint64_t, std::span<char>) { return false; }, whole.size());
  EXPECT_EQ(failing.problem(), ZIPDirectoryProblem::Unreadable);
}

}  // namespace
