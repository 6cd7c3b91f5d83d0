#include "fennick/Helpers/Unarchiver/Internal/PrivateFolder.h"

#include "fennick/Runtime/Values/UUID.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>

namespace fennick::detail {

namespace {

constexpr int kAttempts = 16;

std::filesystem::path temporaryDirectory() {
  const char* dir = std::getenv("TMPDIR");
  std::error_code ignored;
  return std::filesystem::absolute(dir && *dir ? std::filesystem::path(dir) : std::filesystem::path("/tmp"), ignored);
}

}  // namespace

std::string makePrivateFolder(std::string_view prefix) {
  const auto parent = temporaryDirectory();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const std::string path = (parent / (std::string(prefix) + UUID::init()->UUIDString())).string();
    if (::mkdir(path.c_str(), 0700) == 0) return path;
    if (errno != EEXIST) return {};
  }
  return {};
}

std::string publishFolder(const std::string& folder, std::error_code& error) {
  const auto parent = temporaryDirectory();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const std::string path = (parent / UUID::init()->UUIDString()).string();
    if (::renameat2(AT_FDCWD, folder.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0) return path;
    if (errno == EINVAL && ::rename(folder.c_str(), path.c_str()) == 0) return path;
    if (errno != EEXIST && errno != ENOTEMPTY) break;
  }
  error.assign(errno, std::generic_category());
  return {};
}

}  // namespace fennick::detail
