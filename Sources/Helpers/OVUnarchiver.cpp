#include "fennick/Helpers/OVUnarchiver.h"

#include "fennick/Dispatch/Queue.h"
#include "fennick/FoundationExtensions/OVDispatchQueue.h"
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
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>
#include <sys/stat.h>
#include <thread>

namespace fennick {

namespace fs = std::filesystem;

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

std::string temporaryDirectory() {
  const char* dir = std::getenv("TMPDIR");
  return dir && *dir ? dir : "/tmp";
}

std::string freshTemporaryPath(std::string_view prefix = {}) {
  return (fs::path(temporaryDirectory()) / (std::string(prefix) + UUID::init()->UUIDString())).string();
}

void setError(Ref<Error>* out, Ref<Error> error) {
  if (out) *out = std::move(error);
}

void setError(Ref<Error>* out, const std::error_code& code) {
  if (out) *out = Error::posixError(code.value());
}

std::string upperCased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

// Drains a tool's standard error on its own thread, so that a tool that writes
// much there never blocks while we feed it or wait for it.
class ErrorCollector {
 public:
  explicit ErrorCollector(Ref<Pipe> pipe) : pipe_(std::move(pipe)) {}
  ~ErrorCollector() {
    if (thread_.joinable()) thread_.join();
  }
  void start() {
    thread_ = std::thread([this] { text_ = pipe_->fileHandleForReading()->readDataToEndOfFileAndReturnError(nullptr); });
  }
  /// The whole output; call after the tool has exited.
  std::string take() {
    if (thread_.joinable()) thread_.join();
    return text_ ? std::string(text_->stringView()) : std::string();
  }

 private:
  Ref<Pipe> pipe_;
  std::thread thread_;
  Ref<Data> text_;
};

Ref<Error> toolFailure(const Ref<Process>& tool, const std::string& errorOutput) {
  const auto code = static_cast<std::int64_t>(static_cast<std::int32_t>(tool->terminationStatus()));
  Ref<Dictionary> userInfo;
  if (!errorOutput.empty() && String::isValidUTF8(errorOutput))
    userInfo = Dictionary::dictionaryWithStringKeys({{NSLocalizedDescriptionKey, String::string(errorOutput)}});
  return Error::errorWithDomain_code_userInfo(NSOSStatusErrorDomain, code, userInfo);
}

// Only regular files, folders and symbolic links may come out of an archive:
// a device node or FIFO made by a tool running as root would be a way out.
void removeSpecialFiles(const fs::path& root) {
  std::error_code ignored;
  std::vector<fs::path> special;
  for (auto it = fs::recursive_directory_iterator(root, ignored); !ignored && it != fs::recursive_directory_iterator();
       it.increment(ignored)) {
    const auto type = it->symlink_status(ignored).type();
    if (type != fs::file_type::regular && type != fs::file_type::directory && type != fs::file_type::symlink)
      special.push_back(it->path());
  }
  for (const auto& path : special) fs::remove(path, ignored);
}

// Moves an item, copying across file systems as a rename cannot.
bool moveItem(const fs::path& from, const fs::path& to, std::error_code& error) {
  fs::rename(from, to, error);
  if (error != std::errc::cross_device_link) return !error;
  error.clear();
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
  if (!error) fs::remove_all(from, error);
  return !error;
}

Ref<URL> directoryURL(const std::string& path) { return URL::fileURLWithPath_isDirectory(path, true); }

// The volume's stand-in for a mount point: a folder only we can enter, drawn
// again while the name is taken.
std::string makeMountPoint() {
  for (;;) {
    std::string path = freshTemporaryPath("fennick-volume-");
    if (::mkdir(path.c_str(), 0700) == 0) return path;
    if (errno != EEXIST) return {};
  }
}

void detach(const std::string& mountPoint, ProgressAccumulator& progress) {
  std::error_code ignored;
  fs::remove_all(mountPoint, ignored);
  progress.step(kDetachStep);
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
  auto handle = FileHandle::fileHandleForReadingFromURL_error(url, nullptr);
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
      if (error)
        *error = Error::errorWithDomain_code_description(OVUnarchiverErrorDomain, OVUnarchiverErrorUnknownArchiveType,
                                                         "Unknown archive type.");
      return nullptr;
  }
  OVAssertUnreachable();
}

Ref<URL> OVUnarchiver::_unarchiveZIP_progressHandler_error(const Ref<URL>& archive, const ProgressHandler& progress,
                                                           Ref<Error>* error) {
  std::error_code code;
  const auto fileSize = fs::file_size(archive->path(), code);
  if (code) {
    setError(error, code);
    return nullptr;
  }
  const std::string output = freshTemporaryPath();
  // bsdtar creates the output folder only with -C's parent existing; make it
  // ourselves so that an empty archive still yields a folder.
  fs::create_directories(output, code);
  if (code) {
    setError(error, code);
    return nullptr;
  }

  auto tool = Process::init();
  tool->setLaunchPath(kZIPTool);
  // Refuse absolute and ".." paths and writing through links (bsdtar's
  // defaults without -P), and never take owners, ACLs or flags from the archive.
  tool->setArguments({"-x", "--no-same-owner", "--no-acls", "--no-xattrs", "--no-fflags", "-f", "-", "-C", output});
  auto input = Pipe::pipe(), errors = Pipe::pipe();
  tool->setStandardInput(input);
  tool->setStandardError(errors);
  if (!safeLaunch(tool)) {
    setError(error, Error::errorWithDomain_code_userInfo(OVUnarchiverErrorDomain, OVUnarchiverErrorExtractorLaunchFailed));
    return nullptr;
  }
  ErrorCollector errorOutput(errors);
  errorOutput.start();

  Ref<Error> feedError;
  auto source = FileHandle::fileHandleForReadingFromURL_error(archive, &feedError);
  if (source) {
    std::uint64_t written = 0;
    const auto& sink = input->fileHandleForWriting();
    while (written < fileSize) {
      auto chunk = source->readDataUpToLength_error(kFeedChunkSize, &feedError);
      if (!chunk || chunk->length() == 0) break;
      try {
        sink->writeData(chunk);
      } catch (const Exception&) {
        feedError = Error::errorWithDomain_code_userInfo(OVUnarchiverErrorDomain, OVUnarchiverErrorExtractorFeedFailed);
        break;
      }
      written += chunk->length();
      if (progress) progress(static_cast<double>(written) / static_cast<double>(fileSize));
    }
  }
  input->fileHandleForWriting()->closeFile();
  if (!safeWaitUntilExit(tool)) {
    setError(error, Error::errorWithDomain_code_userInfo(OVUnarchiverErrorDomain, OVUnarchiverErrorExtractorFeedFailed));
    return nullptr;
  }
  // Clean up even after a failure: a rejected archive may have left some of
  // its entries behind.
  removeSpecialFiles(output);
  const std::string errorText = errorOutput.take();
  if (tool->terminationStatus() != 0 || tool->terminationReason() != Process::NSTaskTerminationReasonExit) {
    setError(error, toolFailure(tool, errorText));
    return nullptr;
  }
  if (feedError) setError(error, feedError);
  return directoryURL(output);
}

Ref<URL> OVUnarchiver::_unarchiveDMG_progressHandler_error(const Ref<URL>& archive, const ProgressHandler& handler,
                                                           Ref<Error>* error) {
  const std::string mountPoint = makeMountPoint();
  ProgressAccumulator progress(handler);

  auto tool = Process::init();
  tool->setLaunchPath(kImageTool);
  // 7-Zip refuses absolute and ".." paths and links that point out of the
  // output folder unless told otherwise (-snld), which we never do.
  tool->setArguments({"x", "-y", "-bd", "-o" + mountPoint, "--", archive->path()});
  auto errors = Pipe::pipe();
  tool->setStandardOutput(FileHandle::fileHandleWithNullDevice());
  tool->setStandardError(errors);
  ErrorCollector errorOutput(errors);
  const bool attached = !mountPoint.empty() && safeLaunch(tool);
  if (attached) errorOutput.start();
  if (!attached || !safeWaitUntilExit(tool)) {
    std::error_code ignored;
    if (!mountPoint.empty()) fs::remove(mountPoint, ignored);
    setError(error, Error::errorWithDomain_code_userInfo(OVUnarchiverErrorDomain, OVUnarchiverErrorImageAttachFailed));
    return nullptr;
  }
  progress.step(kAttachStep);
  const std::string errorText = errorOutput.take();
  if (tool->terminationStatus() != 0 || tool->terminationReason() != Process::NSTaskTerminationReasonExit) {
    // A failed extraction leaves a partial folder; unlike a failed attach, it
    // is ours to remove.
    std::error_code ignored;
    fs::remove_all(mountPoint, ignored);
    setError(error, toolFailure(tool, errorText));
    return nullptr;
  }
  removeSpecialFiles(mountPoint);

  std::error_code code;
  std::vector<fs::path> entries;
  for (auto it = fs::directory_iterator(mountPoint, code); !code && it != fs::directory_iterator(); it.increment(code))
    entries.push_back(it->path());
  if (code) {
    detach(mountPoint, progress);
    setError(error, code);
    return nullptr;
  }

  const std::string output = freshTemporaryPath();
  fs::create_directories(output, code);
  if (code) {
    setError(error, code);  // the volume stays in place on this path
    return nullptr;
  }
  const double entryStep = kEntriesShare / static_cast<double>(entries.size());
  for (const auto& entry : entries) {
    if (!_shouldIgnoreItemAtURL(URL::fileURLWithPath(entry.string()))) {
      fs::copy(entry, fs::path(output) / entry.filename(),
               fs::copy_options::recursive | fs::copy_options::copy_symlinks, code);
      if (code) break;
    }
    progress.step(entryStep);
  }
  detach(mountPoint, progress);
  if (code) {
    setError(error, code);
    return nullptr;
  }
  return directoryURL(output);
}

bool OVUnarchiver::_shouldIgnoreItemAtURL(const Ref<URL>& url) {
  static const std::set<std::string> ignored{".DS_STORE", ".TRASHES"};
  return ignored.count(upperCased(url->lastPathComponent())) != 0;
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
    const fs::path target = fs::path(destination->path()) / entry.filename();
    std::error_code ignored;
    fs::remove_all(target, ignored);
    moved = moveItem(entry, target, code);
    if (!moved) {
      setError(error, code);
      return false;
    }
  }
  return moved;
}

}  // namespace fennick
