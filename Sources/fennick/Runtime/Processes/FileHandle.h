#pragma once
// A file handle: one open file descriptor with reading, writing and seeking,
// the runtime's stand-in for the platform's file handle class.
//
// Two families of operations, as on the platform: the classic ones
// (readDataToEndOfFile, writeData, seekToFileOffset ...) raise Exception
// (NSFileHandleOperationException) on failure; the ones taking an Error
// out-parameter answer nil or false instead and describe the failure in the
// POSIX domain.
//
// Writing to a pipe or socket whose reader has gone fails with EPIPE and never
// raises SIGPIPE: the signal is blocked for the calling thread during the
// write and a SIGPIPE that the write caused is consumed.
//
// Thread safety: a handle may be used from any thread, but not by two threads
// at once; closeFile() must not race with another operation on the handle.
// Descriptors that the handle opens carry O_CLOEXEC, so child processes see
// them only when a Process hands them over.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace fennick {

class Data;
class Error;
class URL;

inline constexpr const char* NSFileHandleOperationException = "NSFileHandleOperationException";

class FileHandle : public Object {
  FENNICK_DECLARE_CLASS(FileHandle, Object)

 public:
  /// A handle for an open descriptor; with `closeOnDealloc` the handle owns it
  /// and closes it when released.
  static Ref<FileHandle> initWithFileDescriptor_closeOnDealloc(int fd, bool closeOnDealloc);
  /// A handle for a descriptor that stays the caller's (not closed).
  static Ref<FileHandle> initWithFileDescriptor(int fd) {
    return initWithFileDescriptor_closeOnDealloc(fd, false);
  }
  /// Opens a file for reading, writing (without truncating) or both; nil when
  /// it cannot be opened, or when the path holds a NUL byte (the system would
  /// open what the part before it names).
  static Ref<FileHandle> fileHandleForReadingAtPath(std::string_view path);
  static Ref<FileHandle> fileHandleForWritingAtPath(std::string_view path);
  static Ref<FileHandle> fileHandleForUpdatingAtPath(std::string_view path);
  /// The same for a file URL, with the reason in `error` on failure (EINVAL
  /// for a URL that is not a file URL or whose path holds a NUL byte, as
  /// "%00" decodes to).
  static Ref<FileHandle> fileHandleForReadingFromURL_error(const Ref<URL>& url, Ref<Error>* error);
  static Ref<FileHandle> fileHandleForWritingToURL_error(const Ref<URL>& url, Ref<Error>* error);
  /// The process's own standard streams (never closed by the handle).
  static Ref<FileHandle> fileHandleWithStandardInput();
  static Ref<FileHandle> fileHandleWithStandardOutput();
  static Ref<FileHandle> fileHandleWithStandardError();
  /// A handle on /dev/null: reads end at once, writes are discarded.
  static Ref<FileHandle> fileHandleWithNullDevice();

  ~FileHandle() override;

  /// The descriptor; -1 once the handle is closed.
  int fileDescriptor() const noexcept { return fd_.load(std::memory_order_acquire); }

  // -- Raising operations ---------------------------------------------------------
  /// Reads until end of file (a pipe: until every writer has closed it).
  Ref<Data> readDataToEndOfFile();
  /// Reads up to `length` bytes, fewer only at end of file.
  Ref<Data> readDataOfLength(std::size_t length);
  /// What one read returns: the bytes available now (waiting for some on a
  /// pipe), empty at end of file.
  Ref<Data> availableData();
  /// Writes all of `data`.
  void writeData(const Ref<Data>& data);
  std::uint64_t offsetInFile();
  std::uint64_t seekToEndOfFile();
  void seekToFileOffset(std::uint64_t offset);
  void truncateFileAtOffset(std::uint64_t offset);
  void synchronizeFile();
  /// Closes the descriptor (if the handle owns it) and makes the handle
  /// unusable; closing twice does nothing.
  void closeFile();

  // -- Error-returning operations -------------------------------------------------------
  Ref<Data> readDataToEndOfFileAndReturnError(Ref<Error>* error);
  Ref<Data> readDataUpToLength_error(std::size_t length, Ref<Error>* error);
  bool writeData_error(const Ref<Data>& data, Ref<Error>* error);
  /// Writes raw bytes (all of them) without making a Data first.
  bool writeBytes_length_error(const void* bytes, std::size_t length, Ref<Error>* error);
  bool getOffset_error(std::uint64_t* offset, Ref<Error>* error);
  bool seekToEndReturningOffset_error(std::uint64_t* offset, Ref<Error>* error);
  bool seekToOffset_error(std::uint64_t offset, Ref<Error>* error);
  bool truncateAtOffset_error(std::uint64_t offset, Ref<Error>* error);
  bool synchronizeAndReturnError(Ref<Error>* error);
  bool closeAndReturnError(Ref<Error>* error);

 protected:
  FileHandle(int fd, bool closeOnDealloc) : fd_(fd), ownsDescriptor_(closeOnDealloc) {}

 private:
  static Ref<FileHandle> openPath(std::string_view path, int flags, Ref<Error>* error);
  static Ref<FileHandle> openURL(const Ref<URL>& url, int flags, Ref<Error>* error);
  /// The descriptor, or -1 with EBADF in `failure` when closed.
  int liveDescriptor(int& failure) const;
  /// Reads until `limit` bytes or end of file; errno in `failure` on error.
  bool readInto(std::vector<std::uint8_t>& bytes, std::size_t limit, bool stopAfterOneRead,
                int& failure);
  bool writeAll(const void* bytes, std::size_t length, int& failure);
  [[noreturn]] void raise(const char* operation, int failure) const;

  std::atomic<int> fd_;
  const bool ownsDescriptor_;
};

}  // namespace fennick
