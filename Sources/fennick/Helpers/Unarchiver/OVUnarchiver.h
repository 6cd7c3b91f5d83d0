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
// Archives are outside data, and the caller may be root. Whatever an archive
// says:
// - A file taken for a ZIP archive (by its name or its bytes) must be one:
//   its first bytes are checked before bsdtar sees them, and a tar, cpio or
//   mtree stream, or a stream that another of bsdtar's readers would also
//   claim, fails with OVUnarchiverErrorUnknownArchiveType. The archive must
//   be a regular file; a FIFO or device is never opened for reading.
// - The tools unpack into a folder of mode 0700 under the temporary
//   directory (named by a UUID and made afresh: a planted folder or link of
//   that name makes the job pick another), with no owners, ACLs, extended
//   attributes or file flags taken from the archive, and permissions from
//   the caller's umask. Absolute and ".." entries and writing through links
//   fail the tool.
// - ZIP writers keep Unix modes and links in the archive's central
//   directory, which bsdtar, reading a stream, never sees; the job reads it
//   from the archive file afterwards. An entry made on Unix gets the
//   permission bits recorded there, less the unsafe ones below (a folder
//   always stays open to its owner and a file readable by it), and a link
//   recorded there is a link: its target must be relative, stay inside the
//   unpacked tree, hold no NUL byte and be shorter than PATH_MAX, or the job
//   fails with OVUnarchiverErrorUnsafeContent. Entries made on other systems
//   keep the umask's permissions. A central directory that contradicts
//   itself or the entries (two end records, counts, sizes or offsets beyond
//   the file, entries that overlap, that it leaves out, or whose names differ
//   from their own headers') fails the job with
//   OVUnarchiverErrorUnsafeContent.
// - Before anything leaves that folder it is looked over without following
//   links: a device node, FIFO, socket, hard link, a symbolic link whose
//   relative target climbs out of the unpacked tree, two names that differ
//   only in case (or one name given twice), or folders nested past 128
//   levels fail the job with OVUnarchiverErrorUnsafeContent and the folder is
//   removed; set-user-ID, set-group-ID and sticky bits and write permission
//   for group and others are taken away (04755 and 0777 both come out as
//   0755). A disk image's absolute link targets are kept as it records them
//   (its "Applications" link to "/Applications" stays one).
// - An archive may unpack to at most OVUnarchiverExtractedBytesFloor plus
//   OVUnarchiverExtractedBytesPerArchiveByte times its own size (counted as
//   the bytes the tool writes); past that the tool is ended and the job fails
//   with OVUnarchiverErrorExpansionLimitExceeded.
// - A tool that reads and writes nothing for a minute is taken to hang: it
//   is ended and the job fails with OVUnarchiverErrorExtractorFeedFailed (ZIP)
//   or OVUnarchiverErrorImageAttachFailed (disk image).
// - Items reach the destination under a hidden temporary name and then take
//   the place of the item they replace in one step, so a failure (a full
//   disk) leaves the old item in place and nothing half-made beside it.
// A failed extraction removes its folder; the extraction folder of a job
// that unpacked is left in place.
//
// Thread safety: every operation is a class operation and may be called from
// any thread; each job runs on its own serial queue "unarchiver", where its
// progress and completion callbacks are called.
#include "fennick/Runtime/ObjectModel/Object.h"

#include <chrono>
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
  /// The archive holds what is never unpacked (see above); the description says what.
  OVUnarchiverErrorUnsafeContent = -5,
  /// The archive unpacks to more than the limit stated above.
  OVUnarchiverErrorExpansionLimitExceeded = -6,
};

/// An archive may always unpack to this many bytes ...
inline constexpr std::uint64_t OVUnarchiverExtractedBytesFloor = 32ull << 20;
/// ... plus this many for each byte of the archive itself.
inline constexpr std::uint64_t OVUnarchiverExtractedBytesPerArchiveByte = 100;

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
  /// The most an archive of that many bytes may unpack to.
  static std::uint64_t _maximumExtractedBytesForArchiveSize(std::uint64_t archiveBytes);
  /// How long a tool may read and write nothing before it is ended (one
  /// minute unless a test shortens it).
  static std::chrono::milliseconds _toolStallTimeout();
  static void _setToolStallTimeout(std::chrono::milliseconds timeout);
  /// Moves the source's top-level entries (or the source itself) into the
  /// destination folder, replacing items of the same name. False without an
  /// error when there was nothing to move.
  static bool _moveContentAtURL_toURL_error(const Ref<URL>& source, const Ref<URL>& destination,
                                            Ref<Error>* error);
};

}  // namespace fennick
