#include "fennick/Helpers/Unarchiver/Internal/DirectoryReader.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace fennick::detail {

DirectoryReader::DirectoryReader(int folder) {
  if (folder < 0) {
    failed_ = true;
    return;
  }
  stream_ = ::fdopendir(folder);
  if (!stream_) {
    ::close(folder);
    failed_ = true;
  }
}

DirectoryReader::~DirectoryReader() {
  if (stream_) ::closedir(stream_);
}

std::optional<std::string> DirectoryReader::next() {
  if (!stream_) return std::nullopt;
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(stream_);
    if (!entry) {
      failed_ = errno != 0;
      return std::nullopt;
    }
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) return std::string(entry->d_name);
  }
}

}  // namespace fennick::detail
