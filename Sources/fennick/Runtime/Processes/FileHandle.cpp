#include "fennick/Runtime/Processes/FileHandle.h"

#include "fennick/Runtime/Values/CStringText.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/URLs/URL.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

namespace fennick {

FENNICK_DEFINE_CLASS(FileHandle) { builder.property("fileDescriptor", &FileHandle::fileDescriptor); }

namespace {

constexpr std::size_t kReadChunk = 64 * 1024;

void setError(Ref<Error>* error, int failure, std::string_view path = {}) {
  if (!error) return;
  if (path.empty()) {
    *error = Error::posixError(failure);
    return;
  }
  *error = Error::errorWithDomain_code_userInfo(
      NSPOSIXErrorDomain, failure,
      Dictionary::dictionaryWithStringKeys({{NSLocalizedDescriptionKey, String::string(std::strerror(failure))},
                                            {NSFilePathErrorKey, String::string(path)}}));
}

// Blocks SIGPIPE on this thread while alive; a SIGPIPE raised by a write in
// between is consumed, so a closed reader shows up as EPIPE only.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigemptyset(&pipeSet_);
    sigaddset(&pipeSet_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSet_, &previous_);
    sigset_t pending;
    sigpending(&pending);
    alreadyPending_ = sigismember(&pending, SIGPIPE) == 1;
  }
  ~SigpipeGuard() {
    if (raised_ && !alreadyPending_) {
      const timespec zero{};
      while (sigtimedwait(&pipeSet_, nullptr, &zero) < 0 && errno == EINTR) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }
  void noteBrokenPipe() { raised_ = true; }

 private:
  sigset_t pipeSet_{};
  sigset_t previous_{};
  bool alreadyPending_ = false;
  bool raised_ = false;
};

}  // namespace

Ref<FileHandle> FileHandle::initWithFileDescriptor_closeOnDealloc(int fd, bool closeOnDealloc) {
  return make<FileHandle>(fd, closeOnDealloc);
}

Ref<FileHandle> FileHandle::openPath(std::string_view path, int flags, Ref<Error>* error) {
  if (holdsNulByte(path)) {
    setError(error, EINVAL);  // open() would read the path only up to the NUL
    return nullptr;
  }
  const std::string text(path);
  int fd;
  do fd = ::open(text.c_str(), flags | O_CLOEXEC);
  while (fd < 0 && errno == EINTR);
  if (fd < 0) {
    setError(error, errno, path);
    return nullptr;
  }
  return make<FileHandle>(fd, true);
}

Ref<FileHandle> FileHandle::fileHandleForReadingAtPath(std::string_view path) {
  return openPath(path, O_RDONLY, nullptr);
}
Ref<FileHandle> FileHandle::fileHandleForWritingAtPath(std::string_view path) {
  return openPath(path, O_WRONLY, nullptr);
}
Ref<FileHandle> FileHandle::fileHandleForUpdatingAtPath(std::string_view path) {
  return openPath(path, O_RDWR, nullptr);
}

Ref<FileHandle> FileHandle::openURL(const Ref<URL>& url, int flags, Ref<Error>* error) {
  if (!url || !url->isFileURL()) {
    setError(error, EINVAL);
    return nullptr;
  }
  // No path: the item of a reference URL is gone, the path is empty, or it
  // holds a NUL byte (decoded from "%00").
  std::optional<std::string> path = url->fileSystemRepresentation();
  if (!path) {
    setError(error, holdsNulByte(url->path()) ? EINVAL : ENOENT);
    return nullptr;
  }
  return openPath(*path, flags, error);
}

Ref<FileHandle> FileHandle::fileHandleForReadingFromURL_error(const Ref<URL>& url, Ref<Error>* error) {
  return openURL(url, O_RDONLY, error);
}

Ref<FileHandle> FileHandle::fileHandleForWritingToURL_error(const Ref<URL>& url, Ref<Error>* error) {
  return openURL(url, O_WRONLY, error);
}

Ref<FileHandle> FileHandle::fileHandleWithStandardInput() { return initWithFileDescriptor(STDIN_FILENO); }
Ref<FileHandle> FileHandle::fileHandleWithStandardOutput() { return initWithFileDescriptor(STDOUT_FILENO); }
Ref<FileHandle> FileHandle::fileHandleWithStandardError() { return initWithFileDescriptor(STDERR_FILENO); }
Ref<FileHandle> FileHandle::fileHandleWithNullDevice() { return openPath("/dev/null", O_RDWR, nullptr); }

FileHandle::~FileHandle() {
  const int fd = fd_.exchange(-1);
  if (fd >= 0 && ownsDescriptor_) ::close(fd);
}

int FileHandle::liveDescriptor(int& failure) const {
  const int fd = fd_.load(std::memory_order_acquire);
  if (fd < 0) failure = EBADF;
  return fd;
}

bool FileHandle::readInto(std::vector<std::uint8_t>& bytes, std::size_t limit, bool stopAfterOneRead,
                          int& failure) {
  const int fd = liveDescriptor(failure);
  if (fd < 0) return false;
  while (bytes.size() < limit) {
    const std::size_t want = std::min(limit - bytes.size(), kReadChunk);
    const std::size_t old = bytes.size();
    bytes.resize(old + want);
    const ssize_t got = ::read(fd, bytes.data() + old, want);
    if (got < 0) {
      bytes.resize(old);
      if (errno == EINTR) continue;
      failure = errno;
      return false;
    }
    bytes.resize(old + static_cast<std::size_t>(got));
    if (got == 0 || stopAfterOneRead) break;
  }
  return true;
}

bool FileHandle::writeAll(const void* bytes, std::size_t length, int& failure) {
  const int fd = liveDescriptor(failure);
  if (fd < 0) return false;
  SigpipeGuard guard;
  const auto* cursor = static_cast<const std::uint8_t*>(bytes);
  while (length > 0) {
    const ssize_t wrote = ::write(fd, cursor, length);
    if (wrote < 0) {
      if (errno == EINTR) continue;
      failure = errno;
      if (failure == EPIPE) guard.noteBrokenPipe();
      return false;
    }
    cursor += wrote;
    length -= static_cast<std::size_t>(wrote);
  }
  return true;
}

void FileHandle::raise(const char* operation, int failure) const {
  throw Exception(NSFileHandleOperationException,
                  std::string("*** -[FileHandle ") + operation + "]: " + std::strerror(failure));
}

// -- Error-returning operations --------------------------------------------------------

Ref<Data> FileHandle::readDataToEndOfFileAndReturnError(Ref<Error>* error) {
  return readDataUpToLength_error(SIZE_MAX, error);
}

Ref<Data> FileHandle::readDataUpToLength_error(std::size_t length, Ref<Error>* error) {
  std::vector<std::uint8_t> bytes;
  int failure = 0;
  if (!readInto(bytes, length, false, failure)) {
    setError(error, failure);
    return nullptr;
  }
  return Data::dataWithBytes(std::move(bytes));
}

bool FileHandle::writeData_error(const Ref<Data>& data, Ref<Error>* error) {
  return data ? writeBytes_length_error(data->bytes(), data->length(), error) : true;
}

bool FileHandle::writeBytes_length_error(const void* bytes, std::size_t length, Ref<Error>* error) {
  int failure = 0;
  if (writeAll(bytes, length, failure)) return true;
  setError(error, failure);
  return false;
}

bool FileHandle::getOffset_error(std::uint64_t* offset, Ref<Error>* error) {
  int failure = 0;
  const int fd = liveDescriptor(failure);
  const off_t at = fd < 0 ? -1 : ::lseek(fd, 0, SEEK_CUR);
  if (at < 0) {
    setError(error, failure ? failure : errno);
    return false;
  }
  if (offset) *offset = static_cast<std::uint64_t>(at);
  return true;
}

bool FileHandle::seekToEndReturningOffset_error(std::uint64_t* offset, Ref<Error>* error) {
  int failure = 0;
  const int fd = liveDescriptor(failure);
  const off_t at = fd < 0 ? -1 : ::lseek(fd, 0, SEEK_END);
  if (at < 0) {
    setError(error, failure ? failure : errno);
    return false;
  }
  if (offset) *offset = static_cast<std::uint64_t>(at);
  return true;
}

bool FileHandle::seekToOffset_error(std::uint64_t offset, Ref<Error>* error) {
  int failure = 0;
  const int fd = liveDescriptor(failure);
  if (fd < 0 || ::lseek(fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
    setError(error, failure ? failure : errno);
    return false;
  }
  return true;
}

bool FileHandle::truncateAtOffset_error(std::uint64_t offset, Ref<Error>* error) {
  int failure = 0;
  const int fd = liveDescriptor(failure);
  if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(offset)) != 0 ||
      ::lseek(fd, static_cast<off_t>(offset), SEEK_SET) < 0) {
    setError(error, failure ? failure : errno);
    return false;
  }
  return true;
}

bool FileHandle::synchronizeAndReturnError(Ref<Error>* error) {
  int failure = 0;
  const int fd = liveDescriptor(failure);
  if (fd < 0 || ::fsync(fd) != 0) {
    setError(error, failure ? failure : errno);
    return false;
  }
  return true;
}

bool FileHandle::closeAndReturnError(Ref<Error>* error) {
  const int fd = fd_.exchange(-1);
  if (fd < 0 || !ownsDescriptor_) return true;
  // Linux releases the descriptor even when close reports an error (EINTR
  // included), so it is never retried.
  if (::close(fd) != 0 && errno != EINTR) {
    setError(error, errno);
    return false;
  }
  return true;
}

// -- Raising operations ----------------------------------------------------------------

Ref<Data> FileHandle::readDataToEndOfFile() { return readDataOfLength(SIZE_MAX); }

Ref<Data> FileHandle::readDataOfLength(std::size_t length) {
  std::vector<std::uint8_t> bytes;
  int failure = 0;
  if (!readInto(bytes, length, false, failure)) raise("readDataOfLength:", failure);
  return Data::dataWithBytes(std::move(bytes));
}

Ref<Data> FileHandle::availableData() {
  std::vector<std::uint8_t> bytes;
  int failure = 0;
  if (!readInto(bytes, kReadChunk, true, failure)) raise("availableData", failure);
  return Data::dataWithBytes(std::move(bytes));
}

void FileHandle::writeData(const Ref<Data>& data) {
  int failure = 0;
  if (data && !writeAll(data->bytes(), data->length(), failure)) raise("writeData:", failure);
}

std::uint64_t FileHandle::offsetInFile() {
  std::uint64_t offset = 0;
  Ref<Error> error;
  if (!getOffset_error(&offset, &error)) raise("offsetInFile", static_cast<int>(error->code()));
  return offset;
}

std::uint64_t FileHandle::seekToEndOfFile() {
  std::uint64_t offset = 0;
  Ref<Error> error;
  if (!seekToEndReturningOffset_error(&offset, &error)) raise("seekToEndOfFile", static_cast<int>(error->code()));
  return offset;
}

void FileHandle::seekToFileOffset(std::uint64_t offset) {
  Ref<Error> error;
  if (!seekToOffset_error(offset, &error)) raise("seekToFileOffset:", static_cast<int>(error->code()));
}

void FileHandle::truncateFileAtOffset(std::uint64_t offset) {
  Ref<Error> error;
  if (!truncateAtOffset_error(offset, &error)) raise("truncateFileAtOffset:", static_cast<int>(error->code()));
}

void FileHandle::synchronizeFile() {
  Ref<Error> error;
  if (!synchronizeAndReturnError(&error)) raise("synchronizeFile", static_cast<int>(error->code()));
}

void FileHandle::closeFile() { closeAndReturnError(nullptr); }

}  // namespace fennick
