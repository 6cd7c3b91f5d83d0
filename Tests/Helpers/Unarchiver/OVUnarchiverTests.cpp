#include "Support/HelpersTestSupport.h"

#include "fennick/Helpers/Unarchiver/OVUnarchiver.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Processes/FileHandle.h"
#include "fennick/Runtime/URLs/URL.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

using namespace fennick;
namespace fs = std::filesystem;

namespace {

struct Outcome {
  Ref<URL> folder;
  Ref<Error> error;
  std::vector<double> progress;
};

void writeFile(const fs::path& path, std::string_view bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string randomBytes(std::size_t count) {
  std::mt19937 engine(42);
  std::string bytes(count, '\0');
  for (auto& byte : bytes) byte = static_cast<char>(engine());
  return bytes;
}

std::vector<std::string> names(const fs::path& folder) {
  std::vector<std::string> result;
  for (const auto& entry : fs::directory_iterator(folder)) result.push_back(entry.path().filename().string());
  std::sort(result.begin(), result.end());
  return result;
}

class UnarchiverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* tmpdir = std::getenv("TMPDIR");
    savedTmpdir_ = tmpdir ? tmpdir : "";
    root_ = fs::path(tmpdir && *tmpdir ? tmpdir : "/tmp") / ("fennick-unarchiver-" + std::to_string(getpid()));
    fs::remove_all(root_);
    fs::create_directories(root_ / "tmp");
    // Extraction folders go under the test's own temporary directory, so that
    // the test can look at everything a job left behind.
    setenv("TMPDIR", (root_ / "tmp").c_str(), 1);
  }
  void TearDown() override {
    fs::remove_all(root_);
    if (savedTmpdir_.empty())
      unsetenv("TMPDIR");
    else
      setenv("TMPDIR", savedTmpdir_.c_str(), 1);
  }

  static void sh(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }
  static std::string quoted(const fs::path& path) { return "'" + path.string() + "'"; }

  void fixture(const std::string& arguments) {
    sh("python3 '" FENNICK_TEST_SOURCE_DIR "/Helpers/Unarchiver/archive_fixtures.py' " + arguments);
  }

  // A ZIP made by bsdtar from the folder `content`.
  fs::path zipOf(const fs::path& content, const std::string& name) {
    const fs::path archive = root_ / name;
    sh("bsdtar --format zip -cf " + quoted(archive) + " -C " + quoted(content) + " .");
    return archive;
  }

  // A volume holding .DS_Store, .Trashes, an application and a read-me, as a
  // FAT or ISO 9660 partition in a UDIF image.
  fs::path diskImage(const std::string& fileSystem, const std::string& name) {
    const fs::path volume = root_ / "volume";
    writeFile(volume / ".DS_Store", "finder");
    fs::create_directories(volume / ".Trashes");
    writeFile(volume / "Demo.app" / "Contents" / "Info.plist", "<plist/>");
    writeFile(volume / "ReadMe.txt", "read me");
    const fs::path partition = root_ / (name + ".part");
    if (fileSystem == "fat") {
      sh("mkfs.fat -C " + quoted(partition) + " 2048 >/dev/null");
      sh("cd " + quoted(volume) + " && mcopy -s -i " + quoted(partition) + " .DS_Store .Trashes Demo.app ReadMe.txt ::");
    } else {
      sh("genisoimage -quiet -R -o " + quoted(partition) + " " + quoted(volume));
    }
    const fs::path image = root_ / name;
    fixture("udif " + quoted(partition) + " " + quoted(image));
    return image;
  }

  static Outcome unpack(const fs::path& archive, const fs::path& destination) {
    Outcome outcome;
    OVUnarchiver::unpackArchiveAtURL_toDestinationFolder_async_progressHandler_completionHandler(
        URL::fileURLWithPath(archive.string()), destination.empty() ? nullptr : URL::fileURLWithPath(destination.string()),
        false, [&](double value) { outcome.progress.push_back(value); },
        [&](const Ref<URL>& folder, const Ref<Error>& error) {
          outcome.folder = folder;
          outcome.error = error;
        });
    return outcome;
  }

  fs::path root_;
  std::string savedTmpdir_;
};

void expectProgress(const std::vector<double>& actual, const std::vector<double>& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  for (std::size_t i = 0; i < actual.size(); ++i) EXPECT_NEAR(actual[i], expected[i], 1e-9) << "step " << i;
}

// Special files and anything that escaped the root are what a hostile archive aims for.
void expectOnlyPlainItemsUnder(const fs::path& folder) {
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    const auto type = entry.symlink_status().type();
    EXPECT_TRUE(type == fs::file_type::regular || type == fs::file_type::directory || type == fs::file_type::symlink)
        << entry.path();
  }
}

TEST_F(UnarchiverTest, ArchiveTypesComeFromTheExtensionThenFromTheBytes) {
  auto type = [](const fs::path& path) { return OVUnarchiver::_archiveTypeByExtensionAtURL(URL::fileURLWithPath(path.string())); };
  auto byHeader = [](const fs::path& path) { return OVUnarchiver::_archiveTypeByHeaderAtURL(URL::fileURLWithPath(path.string())); };
  // By extension, without the file existing.
  EXPECT_EQ(type(root_ / "archive.zip"), OVUnarchiverArchiveTypeZIP);
  EXPECT_EQ(type(root_ / "ARCHIVE.Zip"), OVUnarchiverArchiveTypeZIP);
  EXPECT_EQ(type(root_ / "a.dmg"), OVUnarchiverArchiveTypeDMG);
  EXPECT_EQ(type(root_ / "data.bin"), OVUnarchiverArchiveTypeUnknown);

  writeFile(root_ / "data.bin", std::string("PK\x03\x04", 4) + "rest");
  EXPECT_EQ(byHeader(root_ / "data.bin"), OVUnarchiverArchiveTypeZIP);
  writeFile(root_ / "image", std::string(1000, 'x') + "koly" + std::string(508, '\0'));
  EXPECT_EQ(byHeader(root_ / "image"), OVUnarchiverArchiveTypeDMG);
  // Short files: only the probe of bytes 4 to 7 (the read after the ZIP test) can find the trailer.
  writeFile(root_ / "short", "koly" + std::string(100, '\0'));
  EXPECT_EQ(byHeader(root_ / "short"), OVUnarchiverArchiveTypeUnknown);
  writeFile(root_ / "probe", "xxxxkoly");
  EXPECT_EQ(byHeader(root_ / "probe"), OVUnarchiverArchiveTypeDMG);
  EXPECT_EQ(byHeader(root_ / "missing"), OVUnarchiverArchiveTypeUnknown);
  EXPECT_FALSE(OVUnarchiver::_archiveHasZIPHeader(nullptr));
  EXPECT_FALSE(OVUnarchiver::_archiveHasDMGHeader(nullptr));
}

TEST_F(UnarchiverTest, ZIPJobReportsProgressPerChunkAndMovesAllButIgnoredNames) {
  const fs::path content = root_ / "content";
  const std::string big = randomBytes(600'000);  // incompressible: the archive spans three chunks
  writeFile(content / "big.bin", big);
  writeFile(content / ".DS_Store", "finder");
  writeFile(content / "Tool.app" / "run", "#!/bin/sh\n");
  const fs::path archive = zipOf(content, "bundle.zip");
  const fs::path destination = root_ / "deep" / "destination";
  writeFile(destination / "Tool.app" / "stale", "replaced");

  const auto outcome = unpack(archive, destination);
  ASSERT_FALSE(outcome.error) << outcome.error->description();
  ASSERT_TRUE(outcome.folder);
  EXPECT_EQ(fs::path(outcome.folder->path()), destination);
  EXPECT_EQ(names(destination), (std::vector<std::string>{"Tool.app", "big.bin"}));
  EXPECT_EQ(readFile(destination / "big.bin"), big);
  EXPECT_FALSE(fs::exists(destination / "Tool.app" / "stale"));

  const double size = static_cast<double>(fs::file_size(archive));
  std::vector<double> expected{0.1};
  for (double fed = 262'144; fed < size; fed += 262'144) expected.push_back(0.1 + 0.8 * fed / size);
  expected.push_back(0.9);
  expected.push_back(1.0);
  expectProgress(outcome.progress, expected);
}

TEST_F(UnarchiverTest, DiskImagesOfBothFileSystemsCopyTheVolumeWithoutIgnoredNames) {
  for (const std::string fileSystem : {"fat", "iso"}) {
    SCOPED_TRACE(fileSystem);
    const fs::path image = diskImage(fileSystem, "volume-" + fileSystem);  // no extension: typed by its trailer
    const fs::path destination = root_ / ("out-" + fileSystem);
    const auto outcome = unpack(image, destination);
    ASSERT_FALSE(outcome.error) << outcome.error->description();
    EXPECT_EQ(names(destination), (std::vector<std::string>{"Demo.app", "ReadMe.txt"}));
    EXPECT_EQ(readFile(destination / "Demo.app" / "Contents" / "Info.plist"), "<plist/>");
    expectProgress(outcome.progress, {0.1, 0.26, 0.38, 0.50, 0.62, 0.74, 0.9, 1.0});
    // The stand-in mount point is gone; the extraction folder is left in place.
    std::vector<std::string> left = names(root_ / "tmp");
    ASSERT_EQ(left.size(), 1u);
    EXPECT_TRUE(names(root_ / "tmp" / left[0]).empty());
    fs::remove_all(root_ / "tmp" / left[0]);
    fs::remove_all(root_ / "volume");
  }
}

// The folder is the job's own: made afresh, only its owner may enter it.
TEST_F(UnarchiverTest, WithoutDestinationTheExtractionFolderIsTheResult) {
  writeFile(root_ / "content" / "a.txt", "a");
  const fs::path archive = root_ / "a.zip";
  sh("bsdtar --format zip -cf " + quoted(archive) + " -C " + quoted(root_ / "content") + " a.txt");
  const auto outcome = unpack(archive, {});
  ASSERT_TRUE(outcome.folder);
  const fs::path folder = outcome.folder->path();
  EXPECT_EQ(folder.parent_path(), root_ / "tmp");
  EXPECT_EQ(readFile(folder / "a.txt"), "a");
  EXPECT_EQ(fs::status(folder).permissions(), fs::perms::owner_all);
}

TEST_F(UnarchiverTest, FailuresReachTheCompletionWithTheirErrors) {
  // Unknown type: code -1, nothing beyond the destination step.
  writeFile(root_ / "notes.txt", "plain text");
  auto outcome = unpack(root_ / "notes.txt", root_ / "out");
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain(), OVUnarchiverErrorDomain);
  EXPECT_EQ(outcome.error->code(), OVUnarchiverErrorUnknownArchiveType);
  EXPECT_EQ(outcome.error->localizedDescription(), "Unknown archive type.");
  EXPECT_FALSE(outcome.folder);
  expectProgress(outcome.progress, {0.1});

  // A destination that is a regular file fails before any progress.
  writeFile(root_ / "content" / "a.bin", randomBytes(100'000));
  const fs::path archive = zipOf(root_ / "content", "a.zip");
  writeFile(root_ / "file", "x");
  outcome = unpack(archive, root_ / "file");
  ASSERT_TRUE(outcome.error);
  EXPECT_EQ(outcome.error->domain(), NSPOSIXErrorDomain);
  EXPECT_TRUE(outcome.progress.empty());

  // Truncated and corrupt archives: the tool's exit status and its message.
  const std::string whole = readFile(archive);
  writeFile(root_ / "truncated.zip", whole.substr(0, whole.size() / 2));
  writeFile(root_ / "corrupt.zip", std::string("PK\x03\x04", 4) + randomBytes(5000));
  writeFile(root_ / "corrupt.dmg", randomBytes(5000) + "koly" + std::string(508, '\0'));
  for (const char* name : {"truncated.zip", "corrupt.zip", "corrupt.dmg"}) {
    SCOPED_TRACE(name);
    outcome = unpack(root_ / name, root_ / "out");
    ASSERT_TRUE(outcome.error);
    EXPECT_EQ(outcome.error->domain(), NSOSStatusErrorDomain);
    EXPECT_NE(outcome.error->code(), 0);
    EXPECT_FALSE(outcome.error->localizedDescription().empty());
    EXPECT_FALSE(outcome.folder);
    EXPECT_LT(outcome.progress.back(), 1.0);
  }
}

TEST_F(UnarchiverTest, NothingToMoveAnswersNilWithoutError) {
  writeFile(root_ / "content" / ".DS_Store", "finder");
  const auto outcome = unpack(zipOf(root_ / "content", "ignored.zip"), root_ / "out");
  EXPECT_FALSE(outcome.folder);
  EXPECT_FALSE(outcome.error);
  EXPECT_TRUE(names(root_ / "out").empty());
}

TEST_F(UnarchiverTest, HostileArchivesWriteNothingOutsideTheirFolder) {
  const fs::path zip = root_ / "hostile.zip";
  fixture("hostile-zip " + quoted(zip));
  const fs::path volume = root_ / "hostile-volume";
  fs::create_directories(volume);
  fs::create_symlink("/tmp", volume / "link");
  ASSERT_EQ(mkfifo((volume / "fifo").c_str(), 0644), 0);
  writeFile(volume / "bad-\xff\xfe.txt", "kept");
  sh("genisoimage -quiet -R -o " + quoted(root_ / "hostile.iso") + " " + quoted(volume));
  fixture("udif " + quoted(root_ / "hostile.iso") + " " + quoted(root_ / "hostile.dmg"));

  const auto zipOutcome = unpack(zip, root_ / "zip-out");
  // bsdtar extracts what is safe and rejects the rest, failing the job.
  ASSERT_TRUE(zipOutcome.error);
  EXPECT_EQ(zipOutcome.error->domain(), NSOSStatusErrorDomain);
  const auto imageOutcome = unpack(root_ / "hostile.dmg", root_ / "image-out");
  ASSERT_FALSE(imageOutcome.error) << imageOutcome.error->description();
  EXPECT_TRUE(fs::exists(root_ / "image-out" / "bad-\xff\xfe.txt"));

  for (const fs::path& escaped : {fs::path("/tmp/escaped-absolute.txt"), fs::path("/tmp/escaped-link.txt"),
                                 root_ / "tmp" / "escaped-dotdot.txt", root_ / "escaped-dotdot.txt"})
    EXPECT_FALSE(fs::exists(escaped)) << escaped;
  expectOnlyPlainItemsUnder(root_ / "tmp");
  expectOnlyPlainItemsUnder(root_ / "image-out");
}

TEST_F(UnarchiverTest, AsynchronousJobsCompleteOnTheirOwnQueue) {
  writeFile(root_ / "content" / "a.txt", "a");
  const fs::path archive = zipOf(root_ / "content", "a.zip");
  fennick::testing::Latch done;
  std::vector<Ref<URL>> folders(3);
  for (int i = 0; i < 3; ++i)
    OVUnarchiver::unpackArchiveAtURL_toDestinationFolder_async_progressHandler_completionHandler(
        URL::fileURLWithPath(archive.string()), URL::fileURLWithPath((root_ / ("out" + std::to_string(i))).string()),
        true, nullptr, [&, i](const Ref<URL>& folder, const Ref<Error>&) {
          folders[i] = folder;
          done.signal();
        });
  ASSERT_TRUE(done.waitFor(3, std::chrono::seconds(60)));
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(folders[i]);
    EXPECT_EQ(readFile(fs::path(folders[i]->path()) / "a.txt"), "a");
  }
}

}  // namespace
