#pragma once
// Unpacks a ZIP archive or a UDIF disk image into a folder, reporting progress
// as one number from 0 to 1 and the outcome through a completion callback.
//
// Linux tools stand in for the platform's: ZIP archives are fed to
// `/usr/bin/bsdtar` (libarchive-tools) on its standard input; a disk image's
// partition and file system are extracted by `/usr/bin/7zz` (7zip) into a
// private folder under the temporary directory that stands for the mount
// point, and "detaching" removes that folder.
//
// Progress: 0.1 once the destination is ready, 0.1 to 0.9 while extracting
// (for a ZIP, by the bytes fed to the tool; for an image, 0.2 for the attach,
// 0.6 shared among the volume's top-level entries, 0.2 for the detach), and
// 1.0 on success only. The names ".DS_Store" and ".Trashes" (in any case) are
// never copied or moved.
//
// Errors: OVUnarchiverErrorDomain codes below; a tool that exits with a
// non-zero status gives NSOSStatusErrorDomain with the exit status as code and
// the tool's standard error (when it is UTF-8) as description; file-system
// failures come in NSPOSIXErrorDomain. When the content moved into the
// destination turns out to be nothing (an empty archive, or only ignored
// names), the completion gets nil and no error.
//
// Whatever its entries say, an archive writes only inside the output folder:
// the tools refuse absolute and ".." paths and writing through symbolic links,
// and device files, FIFOs and sockets are removed from what was extracted.
// The extraction folder under the temporary directory is left in place.
//
// Thread safety: every operation is a class operation and may be called from
// any thread; each job runs on its own serial queue "unarchiver", where its
// progress and completion callbacks are called.
#include "fennick/Runtime/Object.h"

#include <cstdint>
#include <functional>

namespace fennick {

class Error;
class FileHandle;
class URL;

inline constexpr const char* OVUnarchiverErrorDomain = "com.orvane.UnarchiverErrorDomain";

enum OVUnarchiverError : std::int64_t {
  OVUnarchiverErrorUnknownArchiveType = -1,
  OVUnarchiverErrorExtractorLaunchFailed = -2,
  OVUnarchiverErrorExtractorFeedFailed = -3,
  OVUnarchiverErrorImageAttachFailed = -4,
};

enum OVUnarchiverArchiveType : std::int64_t {
  OVUnarchiverArchiveTypeUnknown = 0,
  OVUnarchiverArchiveTypeZIP = 1,
  OVUnarchiverArchiveTypeDMG = 2,
};

class OVUnarchiver {
 public:
  using ProgressHandler = std::function<void(double progress)>;
  using CompletionHandler = std::function<void(const Ref<URL>& folder, const Ref<Error>& error)>;

  OVUnarchiver() = delete;

  /// Unpacks `archive` into `destination` (created with its parents when
  /// missing), or into a new temporary folder when `destination` is nil. With
  /// `async` false the call returns after `completion` has run. `progress`
  /// may be empty; `completion` is required.
  static void unpackArchiveAtURL_toDestinationFolder_async_progressHandler_completionHandler(
      const Ref<URL>& archive, const Ref<URL>& destination, bool async, ProgressHandler progress,
      CompletionHandler completion);

  // -- The job's steps, exposed for tests -------------------------------------------
  /// By the upper-cased path extension: "ZIP" or "DMG"; unknown otherwise.
  static OVUnarchiverArchiveType _archiveTypeByExtensionAtURL(const Ref<URL>& url);
  /// By the file's bytes: the ZIP test first, then the disk-image test on the same handle.
  static OVUnarchiverArchiveType _archiveTypeByHeaderAtURL(const Ref<URL>& url);
  /// Whether the first four bytes are a ZIP local-file-header signature.
  static bool _archiveHasZIPHeader(const Ref<FileHandle>& handle);
  /// Whether four bytes read at the current position, or the first four of
  /// the last 512, are "koly". The first probe deliberately does not seek.
  static bool _archiveHasDMGHeader(const Ref<FileHandle>& handle);
  static bool _checkDestinationFolder_error(const Ref<URL>& folder, Ref<Error>* error);
  static Ref<URL> _unarchiveURL_progressHandler_error(const Ref<URL>& archive, const ProgressHandler& progress,
                                                      Ref<Error>* error);
  static Ref<URL> _unarchiveZIP_progressHandler_error(const Ref<URL>& archive, const ProgressHandler& progress,
                                                      Ref<Error>* error);
  static Ref<URL> _unarchiveDMG_progressHandler_error(const Ref<URL>& archive, const ProgressHandler& progress,
                                                      Ref<Error>* error);
  static bool _shouldIgnoreItemAtURL(const Ref<URL>& url);
  /// Moves the source's top-level entries (or the source itself) into the
  /// destination folder, replacing items of the same name. False without an
  /// error when there was nothing to move.
  static bool _moveContentAtURL_toURL_error(const Ref<URL>& source, const Ref<URL>& destination,
                                            Ref<Error>* error);
};

}  // namespace fennick
