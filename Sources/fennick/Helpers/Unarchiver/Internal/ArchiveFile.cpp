#include "fennick/Helpers/Unarchiver/Internal/ArchiveFile.h"

#include "fennick/Helpers/Unarchiver/Internal/ZIPStreamCheck.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Processes/FileHandle.h"
#include "fennick/Runtime/URLs/URL.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace fennick::detail {

bool ArchiveFile::open(const Ref<URL>& url, Ref<Error>* error) {
  auto fail = [error](int code) {
    if (error) *error = Error::posixError(code);
    return false;
  };
  const auto path = url->fileSystemRepresentation();
  if (!path) return fail(EINVAL);
  const int fd = ::open(path->c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return fail(errno);
  handle = FileHandle::initWithFileDescriptor_closeOnDealloc(fd, true);
  struct stat status {};
  if (::fstat(fd, &status) != 0) return fail(errno);
  if (!S_ISREG(status.st_mode)) return fail(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  size = static_cast<std::uint64_t>(status.st_size);
  return true;
}

bool ArchiveFile::endsWithZIPEndRecord() const {
  const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(size, kZIPEndRecordProbeLength));
  std::string tail(length, '\0');
  for (std::size_t done = 0; done < length;) {
    const ssize_t got = ::pread(handle->fileDescriptor(), tail.data() + done, length - done,
                                static_cast<off_t>(size - length + done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    done += static_cast<std::size_t>(got);
  }
  return endsWithEndRecord(tail);
}

}  // namespace fennick::detail
