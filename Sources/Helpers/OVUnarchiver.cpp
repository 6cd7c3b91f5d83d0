#include "fennick/Helpers/OVUnarchiver.h"

#include "fennick/Dispatch/Queue.h"
#include "fennick/FoundationExtensions/OVDispatchQueue.h"
#include "fennick/Helpers/Internal/DirectoryReader.h"
#include "fennick/Helpers/Internal/ExtractedTreeCheck.h"
#include "fennick/Helpers/Internal/ItemPlacement.h"
#include "fennick/Helpers/Internal/ToolOutputCollector.h"
#include "fennick/Helpers/Internal/ToolWatchdog.h"
#include "fennick/Helpers/Internal/ZIPStreamCheck.h"
#include "fennick/Helpers/Process+OVRunExtensions.h"
#include "fennick/Runtime/Data.h"
#include "fennick/Runtime/Dictionary.h"
#include "fennick/Runtime/Error.h"
#include "fennick/Runtime/Exception.h"
#include "fennick/Runtime/FileHandle.h"
#include "fennick/Runtime/Pipe.h"
#include "fennick/Runtime/Process.h"
#include "fennick/Runtime/String.h"
#include "fennick/Runtime/URL.h"
#include "fennick/Runtime/UUID.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <set>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace fennick {

namespace fs = std::filesystem;
using detail::ToolWatchdog;

namespace {

constexpr const char* kZIPTool = "/usr/bin/bsdtar";
constexpr const char* kImageTool = "/usr/bin/7zz";
constexpr std::size_t kFeedChunkSize = 262'144;
constexpr double kDestinationStep = 0.1;
constexpr double kExtractionShare = 0.8;
constexpr double kFinalStep = 0.1;
constexpr double kAttachStep = 0.2;
constexpr double kEntriesShare = 0.6;
constexpr double kDetachStep = 0.2;
constexpr std::chrono::milliseconds kDefaultStallTimeout = std::chrono::minutes(1);

std::atomic<std::int64_t> stallTimeoutMilliseconds{kDefaultStallTimeout.count()};

// Sums steps and reports each running total.
class ProgressAccumulator {
 public:
  explicit ProgressAccumulator(const OVUnarchiver::ProgressHandler& handler) : handler_(handler) {}
  void step(double amount) {
    total_ += amount;
    if (handler_) handler_(total_);
  }

 private:
  const OVUnarchiver::ProgressHandler& handler_;
  double total_ = 0;
};

fs::path temporaryDirectory() {
  const char* dir = std::getenv("TMPDIR");
  std::error_code ignored;
  const fs::path path = dir && *dir ? fs::path(dir) : fs::path("/tmp");
  return fs::absolute(path, ignored);
}

// A new folder only the caller can enter, named by a UUID. mkdir fails on any
// existing item, a planted folder or link included; then another name is drawn.
std::string makePrivateFolder(std::string_view prefix = {}) {
  const fs::path parent = temporaryDirectory();
  for (int attempt = 0; attempt < 16; ++attempt) {
    const std::string path = (parent / (std::string(prefix) + UUID::init()->UUIDString())).string();
    if (::mkdir(path.c_str(), 0700) == 0) return path;
    if (errno != EEXIST) return {};
  }
  return {};
}

void setError(Ref<Error>* out, Ref<Error> error) {
  if (out) *out = std::move(error);
}

void setPOSIXError(Ref<Error>* out, int code) {
  if (out) *out = Error::posixError(code);
}

void setError(Ref<Error>* out, const std::error_code& code) { setPOSIXError(out, code.value()); }

Ref<Error> unarchiverError(OVUnarchiverError code, const char* description = nullptr) {
  if (!description) return Error::errorWithDomain_code_userInfo(OVUnarchiverErrorDomain, code);
  return Error::errorWithDomain_code_description(OVUnarchiverErrorDomain, code, description);
}

std::string upperCased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

Ref<Error> toolFailure(const Ref<Process>& tool, const std::string& errorOutput) {
  const auto code = static_cast<std::int64_t>(static_cast<std::int32_t>(tool->terminationStatus()));
  Ref<Dictionary> userInfo;
  if (!errorOutput.empty() && String::isValidUTF8(errorOutput))
    userInfo = Dictionary::dictionaryWithStringKeys({{NSLocalizedDescriptionKey, String::string(errorOutput)}});
  return Error::errorWithDomain_code_userInfo(NSOSStatusErrorDomain, code, userInfo);
}

bool exitedCleanly(const Ref<Process>& tool) {
  return tool->terminationReason() == Process::NSTaskTerminationReasonExit && tool->terminationStatus() == 0;
}

// Why the watchdog ended a tool, as the job reports it.
Ref<Error> watchdogError(ToolWatchdog::Verdict verdict, OVUnarchiverError stalledCode) {
  if (verdict == ToolWatchdog::Verdict::WroteTooMuch)
    return unarchiverError(OVUnarchiverErrorExpansionLimitExceeded, "The archive unpacks to more than is allowed.");
  return unarchiverError(stalledCode, "The unpacking tool stopped making progress and was ended.");
}

// The watchdog may miss a tool that writes past the limit between two looks
// and exits; counting what it left catches that.
Ref<Error> treeError(detail::TreeProblem problem) {
  const auto code = problem == detail::TreeProblem::TooLarge ? OVUnarchiverErrorExpansionLimitExceeded
                                                             : OVUnarchiverErrorUnsafeContent;
  return unarchiverError(code, detail::describeTreeProblem(problem));
}

// bsdtar's -v names every entry on a line of its own, "x NAME", followed on
// the same line by any complaint about it. A name given twice (in any case)
// would have one entry silently win over the other.
bool namesAnEntryTwice(std::string_view listing) {
  std::set<std::string> names;
  while (!listing.empty()) {
    const std::size_t end = listing.find('\n');
    std::string_view line = listing.substr(0, end);
    listing = end == std::string_view::npos ? std::string_view() : listing.substr(end + 1);
    if (line.substr(0, 2) != "x ") continue;
    line.remove_prefix(2);
    while (line.size() > 1 && line.back() == '/') line.remove_suffix(1);
    std::string folded(line);
    for (char& c : folded)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (!names.insert(std::move(folded)).second) return true;
  }
  return false;
}

// The tool's complaints without the lines that only name an entry.
std::string complaintsOf(std::string_view listing) {
  std::string complaints;
  while (!listing.empty()) {
    const std::size_t end = listing.find('\n');
    const std::string_view line = listing.substr(0, end);
    listing = end == std::string_view::npos ? std::string_view() : listing.substr(end + 1);
    if (line.substr(0, 2) == "x " && line.find(": ") == std::string_view::npos) continue;
    complaints.append(line).append("\n");
  }
  return complaints;
}

// The archive as an open regular file. It is opened without blocking, so
// that a FIFO or device put in its place is refused instead of waited on.
struct ArchiveFile {
  Ref<FileHandle> handle;
  std::uint64_t size = 0;
};

bool openArchive(const Ref<URL>& url, ArchiveFile& file, Ref<Error>* error) {
  const auto path = url->fileSystemRepresentation();
  if (!path) {
    setPOSIXError(error, EINVAL);
    return false;
  }
  const int fd = ::open(path->c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    setPOSIXError(error, errno);
    return false;
  }
  file.handle = FileHandle::initWithFileDescriptor_closeOnDealloc(fd, true);
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    setPOSIXError(error, S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    return false;
  }
  ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  file.size = static_cast<std::uint64_t>(status.st_size);
  return true;
}

// Read with pread, so that the feed's position stays where it is.
bool hasEndRecord(const ArchiveFile& file) {
  const std::size_t length = static_cast<std::size_t>(std::min<std::uint64_t>(file.size, detail::kZIPEndRecordProbeLength));
  std::string tail(length, '\0');
  std::size_t done = 0;
  while (done < length) {
    const ssize_t got = ::pread(file.handle->fileDescriptor(), tail.data() + done, length - done,
                                static_cast<off_t>(file.size - length + done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    done += static_cast<std::size_t>(got);
  }
  return detail::endsWithEndRecord(tail);
}

Ref<URL> directoryURL(const std::string& path) { return URL::fileURLWithPath_isDirectory(path, true); }

// Gives the checked content of a private work folder its final, public name:
// a new UUID under the temporary directory.
std::string publish(const std::string& workFolder, std::error_code& error) {
  const fs::path parent = temporaryDirectory();
  for (int attempt = 0; attempt < 16; ++attempt) {
    const std::string path = (parent / UUID::init()->UUIDString()).string();
    if (::renameat2(AT_FDCWD, workFolder.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0) return path;
    if (errno == EINVAL && ::rename(workFolder.c_str(), path.c_str()) == 0) return path;
    if (errno != EEXIST && errno != ENOTEMPTY) break;
  }
  error.assign(errno, std::generic_category());
  return {};
}

void detach(const std::string& mountPoint, ProgressAccumulator& progress) {
  detail::removeItem(mountPoint);
  progress.step(kDetachStep);
}

// Feeds the archive into the tool's input, reporting the fraction fed after
// each chunk. The first chunk has been read already (to check the format).
Ref<Error> feed(const ArchiveFile& file, Ref<Data> chunk, const Ref<FileHandle>& sink,
                const OVUnarchiver::ProgressHandler& progress) {
  Ref<Error> error;
  std::uint64_t written = 0;
  while (chunk && chunk->length() > 0) {
    try {
      sink->writeData(chunk);
    } catch (const Exception&) {
      return unarchiverError(OVUnarchiverErrorExtractorFeedFailed);
    }
    written += chunk->length();
    if (progress) progress(static_cast<double>(written) / static_cast<double>(file.size));
    if (written >= file.size) break;
    chunk = file.handle->readDataUpToLength_error(kFeedChunkSize, &error);
  }
  return error;
}

}  // namespace

void OVUnarchiver::unpackArchiveAtURL_toDestinationFolder_async_progressHandler_completionHandler(
    const Ref<URL>& archive, const Ref<URL>& destination, bool async, ProgressHandler progress,
    CompletionHandler completion) {
  auto job = [archive, destination, progress = std::move(progress), completion = std::move(completion)] {
    ProgressAccumulator overall(progress);
    Ref<Error> error;
    if (!_checkDestinationFolder_error(destination, &error)) {
      completion(nullptr, error);
      return;
    }
    overall.step(kDestinationStep);

    double lastFraction = 0;
    ProgressHandler extraction = [&](double fraction) {
      overall.step((fraction - lastFraction) * kExtractionShare);
      lastFraction = fraction;
    };
    Ref<URL> unpacked = _unarchiveURL_progressHandler_error(archive, extraction, &error);
    if (!unpacked || error) {
      completion(nullptr, error);
      return;
    }

    Ref<URL> result = unpacked;
    if (destination) result = _moveContentAtURL_toURL_error(unpacked, destination, &error) ? destination : nullptr;
    if (!result) {
      completion(nullptr, error);
      return;
    }
    overall.step(kFinalStep);
    completion(result, nullptr);
  };
  auto queue = OVBuildInternalDispatchQueue("unarchiver");
  if (async)
    queue->async(std::move(job));
  else
    queue->sync(job);
}

OVUnarchiverArchiveType OVUnarchiver::_archiveTypeByExtensionAtURL(const Ref<URL>& url) {
  const std::string extension = upperCased(url->pathExtension());
  if (extension == "ZIP") return OVUnarchiverArchiveTypeZIP;
  if (extension == "DMG") return OVUnarchiverArchiveTypeDMG;
  return OVUnarchiverArchiveTypeUnknown;
}

OVUnarchiverArchiveType OVUnarchiver::_archiveTypeByHeaderAtURL(const Ref<URL>& url) {
  ArchiveFile file;
  const Ref<FileHandle> handle = openArchive(url, file, nullptr) ? file.handle : nullptr;
  if (_archiveHasZIPHeader(handle)) return OVUnarchiverArchiveTypeZIP;
  if (_archiveHasDMGHeader(handle)) return OVUnarchiverArchiveTypeDMG;
  return OVUnarchiverArchiveTypeUnknown;
}

bool OVUnarchiver::_archiveHasZIPHeader(const Ref<FileHandle>& handle) {
  if (!handle || !handle->seekToOffset_error(0, nullptr)) return false;
  auto bytes = handle->readDataUpToLength_error(4, nullptr);
  return bytes && bytes->stringView() == std::string_view("PK\x03\x04", 4);
}

bool OVUnarchiver::_archiveHasDMGHeader(const Ref<FileHandle>& handle) {
  if (!handle) return false;
  auto isTrailer = [](const Ref<Data>& bytes) { return bytes && bytes->stringView() == "koly"; };
  if (isTrailer(handle->readDataUpToLength_error(4, nullptr))) return true;
  std::uint64_t size = 0;
  if (!handle->seekToEndReturningOffset_error(&size, nullptr) || size < 512) return false;
  if (!handle->seekToOffset_error(size - 512, nullptr)) return false;
  return isTrailer(handle->readDataUpToLength_error(4, nullptr));
}

bool OVUnarchiver::_checkDestinationFolder_error(const Ref<URL>& folder, Ref<Error>* error) {
  if (!folder) return true;
  std::error_code code;
  const fs::path path = folder->path();
  if (fs::is_directory(path, code)) return true;
  fs::create_directories(path, code);
  if (code) setError(error, code);
  return !code;
}

Ref<URL> OVUnarchiver::_unarchiveURL_progressHandler_error(const Ref<URL>& archive, const ProgressHandler& progress,
                                                           Ref<Error>* error) {
  auto type = _archiveTypeByExtensionAtURL(archive);
  if (type == OVUnarchiverArchiveTypeUnknown) type = _archiveTypeByHeaderAtURL(archive);
  switch (type) {
    case OVUnarchiverArchiveTypeZIP:
      return _unarchiveZIP_progressHandler_error(archive, progress, error);
    case OVUnarchiverArchiveTypeDMG:
      return _unarchiveDMG_progressHandler_error(archive, progress, error);
    case OVUnarchiverArchiveTypeUnknown:
      if (error) *error = unarchiverError(OVUnarchiverErrorUnknownArchiveType, "Unknown archive type.");
      return nullptr;
  }
  OVAssertUnreachable();
}

Ref<URL> OVUnarchiver::_unarchiveZIP_progressHandler_error(const Ref<URL>& archive, const ProgressHandler& progress,
                                                           Ref<Error>* error) {
  ArchiveFile file;
  if (!openArchive(archive, file, error)) return nullptr;
  // The tool writes into a folder inside a private one: an archive's "./"
  // entry may open up the folder the tool writes into, never its parent.
  const std::string privateFolder = makePrivateFolder();
  if (privateFolder.empty()) {
    setPOSIXError(error, errno);
    return nullptr;
  }
  const std::string work = privateFolder + "/content";
  auto fail = [&](Ref<Error> failure) -> Ref<URL> {
    detail::removeItem(privateFolder);
    setError(error, std::move(failure));
    return nullptr;
  };
  if (::mkdir(work.c_str(), 0700) != 0) return fail(Error::posixError(errno));

  Ref<Error> readError;
  Ref<Data> firstChunk = file.handle->readDataUpToLength_error(kFeedChunkSize, &readError);
  if (!firstChunk) return fail(readError);
  if (!detail::isZIPStream(firstChunk->stringView()))
    return fail(unarchiverError(OVUnarchiverErrorUnknownArchiveType, "Unknown archive type."));

  auto input = Pipe::pipe(), errors = Pipe::pipe();
  if (!input || !errors) return fail(unarchiverError(OVUnarchiverErrorExtractorLaunchFailed));
  auto tool = Process::init();
  tool->setLaunchPath(kZIPTool);
  // -k keeps the first of two entries of one name, -v lists every entry (to
  // find such twins), and the substitution turns an absolute name into one
  // that starts with "..", which bsdtar refuses instead of quietly
  // extracting it under the folder. No owner, permission, ACL, attribute or
  // flag comes from the archive.
  tool->setArguments({"-x", "-v", "-k", "--no-same-owner", "--no-same-permissions", "--no-acls", "--no-xattrs",
                      "--no-fflags", "-s", ",^/,../,S", "-f", "-", "-C", work});
  tool->setStandardInput(input);
  tool->setStandardError(errors);
  if (!safeLaunch(tool)) return fail(unarchiverError(OVUnarchiverErrorExtractorLaunchFailed));
  const std::uint64_t limit = _maximumExtractedBytesForArchiveSize(file.size);
  ToolWatchdog watchdog(tool, limit, _toolStallTimeout());
  detail::ToolOutputCollector errorOutput(errors);
  errorOutput.start();

  Ref<Error> feedError = feed(file, firstChunk, input->fileHandleForWriting(), progress);
  input->fileHandleForWriting()->closeFile();
  if (!safeWaitUntilExit(tool)) return fail(unarchiverError(OVUnarchiverErrorExtractorFeedFailed));
  const ToolWatchdog::Verdict verdict = watchdog.finish();
  const std::string listing = errorOutput.take();
  if (verdict != ToolWatchdog::Verdict::Ran)
    return fail(watchdogError(verdict, OVUnarchiverErrorExtractorFeedFailed));
  if (!exitedCleanly(tool)) return fail(toolFailure(tool, complaintsOf(listing)));
  if (!hasEndRecord(file))
    return fail(unarchiverError(OVUnarchiverErrorUnsafeContent, "The archive is cut short: its end record is missing."));
  if (namesAnEntryTwice(listing))
    return fail(unarchiverError(OVUnarchiverErrorUnsafeContent, "The archive names one item twice."));
  if (const auto problem = detail::checkExtractedTree(work, limit); problem != detail::TreeProblem::None)
    return fail(treeError(problem));

  std::error_code code;
  const std::string output = publish(work, code);
  if (output.empty()) return fail(Error::posixError(code.value()));
  detail::removeItem(privateFolder);
  if (feedError) setError(error, feedError);
  return directoryURL(output);
}

Ref<URL> OVUnarchiver::_unarchiveDMG_progressHandler_error(const Ref<URL>& archive, const ProgressHandler& handler,
                                                           Ref<Error>* error) {
  const std::string mountPoint = makePrivateFolder("fennick-volume-");
  ProgressAccumulator progress(handler);
  auto fail = [&](Ref<Error> failure) -> Ref<URL> {
    if (!mountPoint.empty()) detail::removeItem(mountPoint);
    setError(error, std::move(failure));
    return nullptr;
  };
  ArchiveFile file;
  Ref<Error> openError;
  if (!openArchive(archive, file, &openError)) return fail(openError);

  auto errors = Pipe::pipe();
  auto output = FileHandle::fileHandleWithNullDevice();
  if (mountPoint.empty() || !errors || !output) return fail(unarchiverError(OVUnarchiverErrorImageAttachFailed));
  auto tool = Process::init();
  tool->setLaunchPath(kImageTool);
  // 7-Zip refuses absolute and ".." paths and links that point out of the
  // output folder unless told otherwise (-snld), which we never do. It reads
  // the image we opened, through its standard input.
  tool->setArguments({"x", "-y", "-bd", "-o" + mountPoint, "--", "/dev/stdin"});
  tool->setStandardInput(file.handle);
  tool->setStandardOutput(output);
  tool->setStandardError(errors);
  if (!safeLaunch(tool)) return fail(unarchiverError(OVUnarchiverErrorImageAttachFailed));
  const std::uint64_t limit = _maximumExtractedBytesForArchiveSize(file.size);
  ToolWatchdog watchdog(tool, limit, _toolStallTimeout());
  detail::ToolOutputCollector errorOutput(errors);
  errorOutput.start();
  if (!safeWaitUntilExit(tool)) return fail(unarchiverError(OVUnarchiverErrorImageAttachFailed));
  const ToolWatchdog::Verdict verdict = watchdog.finish();
  const std::string errorText = errorOutput.take();
  if (verdict != ToolWatchdog::Verdict::Ran) return fail(watchdogError(verdict, OVUnarchiverErrorImageAttachFailed));
  progress.step(kAttachStep);
  // A failed extraction leaves a partial folder; unlike a failed attach, it
  // is ours to remove.
  if (!exitedCleanly(tool)) return fail(toolFailure(tool, errorText));
  // 7-Zip makes an absolute link target relative to its output folder; the
  // check restores the target the image records.
  if (const auto problem = detail::checkExtractedTree(mountPoint, limit, mountPoint);
      problem != detail::TreeProblem::None)
    return fail(treeError(problem));

  std::vector<std::string> entries;
  detail::DirectoryReader volume(::open(mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  while (auto name = volume.next()) entries.push_back(std::move(*name));
  if (volume.failed()) {
    const int code = errno ? errno : EIO;
    detach(mountPoint, progress);
    setPOSIXError(error, code);
    return nullptr;
  }

  const std::string folder = makePrivateFolder();
  if (folder.empty()) {
    setPOSIXError(error, errno);  // the volume stays in place on this path
    return nullptr;
  }
  std::error_code code;
  const double entryStep = kEntriesShare / static_cast<double>(entries.size());
  for (const auto& entry : entries) {
    const std::string path = mountPoint + "/" + entry;
    if (!_shouldIgnoreItemAtURL(URL::fileURLWithPath(path))) {
      code = detail::placeItem(path, folder, entry);
      if (code) break;
    }
    progress.step(entryStep);
  }
  detach(mountPoint, progress);
  if (code) {
    setError(error, code);
    return nullptr;
  }
  return directoryURL(folder);
}

bool OVUnarchiver::_shouldIgnoreItemAtURL(const Ref<URL>& url) {
  static const std::set<std::string> ignored{".DS_STORE", ".TRASHES"};
  return ignored.count(upperCased(url->lastPathComponent())) != 0;
}

std::uint64_t OVUnarchiver::_maximumExtractedBytesForArchiveSize(std::uint64_t archiveBytes) {
  constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
  if (archiveBytes > (most - OVUnarchiverExtractedBytesFloor) / OVUnarchiverExtractedBytesPerArchiveByte) return most;
  return OVUnarchiverExtractedBytesFloor + archiveBytes * OVUnarchiverExtractedBytesPerArchiveByte;
}

std::chrono::milliseconds OVUnarchiver::_toolStallTimeout() {
  return std::chrono::milliseconds(stallTimeoutMilliseconds.load(std::memory_order_relaxed));
}

void OVUnarchiver::_setToolStallTimeout(std::chrono::milliseconds timeout) {
  stallTimeoutMilliseconds.store(timeout.count(), std::memory_order_relaxed);
}

bool OVUnarchiver::_moveContentAtURL_toURL_error(const Ref<URL>& source, const Ref<URL>& destination,
                                                 Ref<Error>* error) {
  std::error_code code;
  const fs::path from = source->path();
  const auto status = fs::symlink_status(from, code);
  if (!fs::exists(status)) return false;

  std::vector<fs::path> entries;
  if (fs::is_directory(status)) {
    for (auto it = fs::directory_iterator(from, code); !code && it != fs::directory_iterator(); it.increment(code))
      entries.push_back(it->path());
    if (code) {
      setError(error, code);
      return false;
    }
  } else {
    entries.push_back(from);
  }

  bool moved = false;
  for (const auto& entry : entries) {
    if (_shouldIgnoreItemAtURL(URL::fileURLWithPath(entry.string()))) continue;
    code = detail::placeItem(entry.string(), destination->path(), entry.filename().string());
    moved = !code;
    if (!moved) {
      setError(error, code);
      return false;
    }
  }
  return moved;
}

}  // namespace fennick
