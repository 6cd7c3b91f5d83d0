// fennick hash and fennick encode, checked against coreutils.
#include <gtest/gtest.h>

#include "Tools/ToolRunner.h"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>

using fennick::tooltest::runTool;

namespace {

std::string shell(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char buffer[256];
  for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
  pclose(pipe);
  return out;
}

class ToolDataCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    char folder[] = "/tmp/fennick-hash-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    folder_ = folder;
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  std::string randomFile(std::size_t size) {
    std::mt19937 random(static_cast<unsigned>(size));
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    const std::string path = (folder_ / ("file-" + std::to_string(size))).string();
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }

  std::filesystem::path folder_;
};

TEST_F(ToolDataCommands, HashPrintsWhatMd5sumAndSha1sumPrintAroundBlockBoundaries) {
  std::vector<std::string> files;
  for (std::size_t size : {0, 1, 55, 56, 63, 64, 65, 1000, (1 << 20) + 3}) files.push_back(randomFile(size));
  std::string list;
  for (const std::string& file : files) list += " " + file;

  for (const auto& [option, peer] : {std::pair{"--md5", "md5sum"}, std::pair{"--sha1", "sha1sum"}}) {
    std::vector<std::string> arguments{"hash", option};
    arguments.insert(arguments.end(), files.begin(), files.end());
    const auto result = runTool(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, shell(std::string(peer) + list));
  }
  EXPECT_EQ(runTool({"hash"}, "abc").out, "900150983cd24fb0d6963f7d28e17f72  -\n");
}

TEST_F(ToolDataCommands, HashStreamsAGibibyteAndReportsMissingFiles) {
  const std::string large = (folder_ / "sparse").string();
  std::ofstream{large}.close();
  std::filesystem::resize_file(large, 1ull << 30);  // sparse: no disk space needed
  const auto result = runTool({"hash", "--sha1", large, (folder_ / "missing").string()});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, shell("sha1sum " + large));
  EXPECT_NE(result.err.find("missing: No such file or directory"), std::string::npos) << result.err;
  EXPECT_EQ(runTool({"hash", "--md5", "--sha1"}).status, 1);
}

TEST_F(ToolDataCommands, EncodeTranscodesStandardInput) {
  EXPECT_EQ(runTool({"encode", "--to", "base64"}, "hello").out, "aGVsbG8=\n");
  EXPECT_EQ(runTool({"encode", "--to", "base32"}, "hello").out, "NBSWY3DP\n");
  EXPECT_EQ(runTool({"encode", "--from", "base64", "--to", "hex"}, "aGVsbG8=\n").out, "68656c6c6f\n");
  EXPECT_EQ(runTool({"encode", "--from", "base32", "--to", "raw"}, "NBSWY3DP\r\n").out, "hello");
  const std::string binary("\x00\xff\x10\n", 4);
  EXPECT_EQ(runTool({"encode", "--from", "hex", "--to", "raw"}, "00ff100a").out, binary);
}

TEST_F(ToolDataCommands, EncodeRefusesMalformedTextAndBadUsage) {
  for (const auto& [from, text] : {std::pair{"base64", "aGVsbG8"}, std::pair{"base32", "NBSWY3D="},
                                   std::pair{"hex", "0aFz"}, std::pair{"hex", "abc"}}) {
    const auto result = runTool({"encode", "--from", from, "--to", "raw"}, text);
    EXPECT_EQ(result.status, 1) << from << " " << text;
    EXPECT_TRUE(result.out.empty());
    EXPECT_EQ(result.err.rfind("fennick encode: standard input is not", 0), 0u) << result.err;
  }
  EXPECT_EQ(runTool({"encode"}, "x").status, 2);
  EXPECT_EQ(runTool({"encode", "--to", "rot13"}, "x").status, 2);
}

}  // namespace
