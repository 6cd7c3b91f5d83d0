// fennick hash: MD5 or SHA-1 digests of files, printed as md5sum and sha1sum
// print them. Files are read in pieces, so their size does not matter.
#include "Command.h"
#include "Progress.h"

#include <fennick/Fennick.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace fennick::tool {

namespace {

constexpr std::size_t kChunk = 1 << 20;
// Files smaller than this are done before a progress line would be worth it.
constexpr off_t kProgressThreshold = off_t{64} << 20;

// Feeds the open file to the digest; answers errno on a read error, else 0.
int digestFile(int fd, std::string_view name, Digest& digest) {
  struct stat info {};
  const bool showProgress = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size >= kProgressThreshold;
  std::optional<Progress> progress;
  if (showProgress) progress.emplace();
  std::vector<std::uint8_t> buffer(kChunk);
  off_t done = 0;
  for (;;) {
    const ssize_t n = read(fd, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    if (n == 0) break;
    digest.update({buffer.data(), static_cast<std::size_t>(n)});
    done += n;
    if (progress) progress->fraction(static_cast<double>(done) / static_cast<double>(info.st_size), name);
  }
  if (progress) progress->finish();
  return 0;
}

int runHash(const Arguments& arguments) {
  if (arguments.has("md5") && arguments.has("sha1")) return fail("hash", "choose one of --md5 and --sha1");
  const OVHashKind kind = arguments.has("sha1") ? OVHashKindSHA1 : OVHashKindMD5;
  std::vector<std::string> files = arguments.positional();
  if (files.empty()) files.emplace_back("-");

  Digest digest(kind);
  std::vector<char> hex;
  int status = kExitOK;
  for (const std::string& file : files) {
    const bool isStandardInput = file == "-";
    const int fd = isStandardInput ? STDIN_FILENO : open(file.c_str(), O_RDONLY | O_CLOEXEC);
    const int error = fd < 0 ? errno : digestFile(fd, file, digest);
    if (fd >= 0 && !isStandardInput) close(fd);
    if (error != 0) {
      status = fail("hash", file + ": " + std::strerror(error));
      digest.finish();  // starts over for the next file
      continue;
    }
    const std::vector<std::uint8_t> sum = digest.finish();
    hex.resize(coding::hexEncodedLength(sum.size()));
    coding::hexEncode(sum, hex.data());
    std::printf("%.*s  %s\n", static_cast<int>(hex.size()), hex.data(), file.c_str());
  }
  return std::fflush(stdout) == 0 ? status : fail("hash", "could not write the digests");
}

}  // namespace

FENNICK_TOOL_COMMAND({.name = "hash",
                      .summary = "MD5 or SHA-1 digests of files, like md5sum",
                      .usage = "usage: fennick hash [--md5|--sha1] [FILE...]\n\n"
                               "Prints the digest of each FILE (standard input when there is none, or\n"
                               "for \"-\") as lower-case hexadecimal, two spaces and the name, as md5sum\n"
                               "and sha1sum do. Files are read in pieces, so any size works; large ones\n"
                               "show their progress on standard error.\n\n"
                               "  --md5    MD5 digests (the default)\n"
                               "  --sha1   SHA-1 digests\n",
                      .options = {{.longName = "md5"}, {.longName = "sha1"}},
                      .run = runHash});

}  // namespace fennick::tool
