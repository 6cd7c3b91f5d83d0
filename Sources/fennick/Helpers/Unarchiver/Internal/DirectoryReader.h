#pragma once
// The names in one open folder, read with readdir on a descriptor the reader
// takes over (and closes), so that a walk can stay relative to folders it
// opened without following links.
#include <dirent.h>
#include <optional>
#include <string>

namespace fennick::detail {

class DirectoryReader {
 public:
  /// Takes over `folder` (which may be -1, making a reader that failed).
  explicit DirectoryReader(int folder);
  ~DirectoryReader();
  DirectoryReader(const DirectoryReader&) = delete;
  DirectoryReader& operator=(const DirectoryReader&) = delete;

  explicit operator bool() const noexcept { return stream_ != nullptr; }
  /// The folder's descriptor, for calls relative to it; -1 when failed.
  int descriptor() const noexcept { return stream_ ? ::dirfd(stream_) : -1; }
  /// The next name other than "." and ".."; nothing at the end or on an error.
  std::optional<std::string> next();
  /// Whether reading stopped on an error rather than at the end.
  bool failed() const noexcept { return failed_; }

 private:
  DIR* stream_ = nullptr;
  bool failed_ = false;
};

}  // namespace fennick::detail
