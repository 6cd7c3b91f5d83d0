#pragma once
// The archive a job reads, as an open regular file. It is opened without
// blocking and refused unless it is a regular file, so that a FIFO or
// device put in its place is never waited on, and every later read (the
// format checks, the feed, the image tool's) is of this one file.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <cstdint>

namespace fennick {
class Error;
class FileHandle;
class URL;
}  // namespace fennick

namespace fennick::detail {

struct ArchiveFile {
  Ref<FileHandle> handle;
  std::uint64_t size = 0;

  /// Opens `url`'s file; false with a POSIX error (EINVAL for a path holding
  /// a NUL byte or an item that is not a regular file, EISDIR for a folder).
  bool open(const Ref<URL>& url, Ref<Error>* error);
  /// Whether the file's last bytes are a ZIP end-of-central-directory
  /// record. Reads with pread, leaving the handle's position alone.
  bool endsWithZIPEndRecord() const;
};

}  // namespace fennick::detail
