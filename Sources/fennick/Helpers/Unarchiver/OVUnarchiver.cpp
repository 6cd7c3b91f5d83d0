#include "fennick/Helpers/Unarchiver/OVUnarchiver.h"

#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/OVDispatchQueue.h"
#include "fennick/Helpers/Unarchiver/Internal/ArchiveFile.h"
#include "fennick/Helpers/Unarchiver/Internal/ItemPlacement.h"
#include "fennick/Helpers/Unarchiver/Internal/ProgressAccumulator.h"
#include "fennick/Helpers/Unarchiver/Internal/UnarchiverErrors.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Processes/FileHandle.h"
#include "fennick/Runtime/URLs/URL.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <filesystem>
#include <limits>
#include <set>
#include <string>

namespace fennick {

namespace fs = std::filesystem;
using namespace detail;

namespace {

constexpr double kDestinationStep = 0.1;
constexpr double kExtractionShare = 0.8;
constexpr double kFinalStep = 0.1;
constexpr std::chrono::milliseconds kDefaultStallTimeout = std::chrono::minutes(1);

std::atomic<std::int64_t> stallTimeoutMilliseconds{kDefaultStallTimeout.count()};

std::string upperCased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return text;
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
  const Ref<FileHandle> handle = file.open(url, nullptr) ? file.handle : nullptr;
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
    code = placeItem(entry.string(), destination->path(), entry.filename().string());
    moved = !code;
    if (!moved) {
      setError(error, code);
      return false;
    }
  }
  return moved;
}

}  // namespace fennick
