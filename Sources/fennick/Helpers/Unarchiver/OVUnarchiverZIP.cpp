// The unpacker's ZIP step: the archive is fed to bsdtar on its standard
// input, after its first bytes have shown that it is a ZIP archive that no
// other of bsdtar's readers would claim. Reading a stream, bsdtar never sees
// the central directory, where ZIP writers record Unix modes and links; they
// are read from the archive file and applied before the tree is checked.
#include "fennick/Helpers/Unarchiver/OVUnarchiver.h"

#include "fennick/Helpers/Unarchiver/Internal/ArchiveFile.h"
#include "fennick/Helpers/Unarchiver/Internal/ExtractedTreeCheck.h"
#include "fennick/Helpers/Unarchiver/Internal/ItemPlacement.h"
#include "fennick/Helpers/Unarchiver/Internal/PrivateFolder.h"
#include "fennick/Helpers/Unarchiver/Internal/ToolOutputCollector.h"
#include "fennick/Helpers/Unarchiver/Internal/ToolWatchdog.h"
#include "fennick/Helpers/Unarchiver/Internal/UnarchiverErrors.h"
#include "fennick/Helpers/Unarchiver/Internal/ZIPCentralDirectory.h"
#include "fennick/Helpers/Unarchiver/Internal/ZIPModeRestoration.h"
#include "fennick/Helpers/Unarchiver/Internal/ZIPStreamCheck.h"
#include "fennick/Helpers/System/Process+OVRunExtensions.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/ObjectModel/Exception.h"
#include "fennick/Runtime/Processes/FileHandle.h"
#include "fennick/Runtime/Processes/Pipe.h"
#include "fennick/Runtime/URLs/URL.h"

#include <cerrno>
#include <limits>
#include <set>
#include <span>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace fennick {

using namespace detail;

namespace {

constexpr const char* kZIPTool = "/usr/bin/bsdtar";
constexpr std::size_t kFeedChunkSize = 262'144;

// The path bsdtar writes for a name, folded to lower case: empty and "."
// components fall away, so "./a", "a/" and "a" are one item.
std::string foldedPath(std::string_view name) {
  std::string path;
  while (!name.empty()) {
    const std::size_t slash = name.find('/');
    const std::string_view component = name.substr(0, slash);
    name = slash == std::string_view::npos ? std::string_view() : name.substr(slash + 1);
    if (component.empty() || component == ".") continue;
    if (!path.empty()) path += '/';
    path.append(component);
  }
  for (char& c : path)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return path;
}

// bsdtar's -v names every entry on a line of its own, "x NAME", followed on
// the same line by any complaint about it. A name given twice (in any case
// or spelling) would have one entry silently win over the other.
bool namesAnEntryTwice(std::string_view listing) {
  std::set<std::string> names;
  while (!listing.empty()) {
    const std::size_t end = listing.find('\n');
    std::string_view line = listing.substr(0, end);
    listing = end == std::string_view::npos ? std::string_view() : listing.substr(end + 1);
    if (line.substr(0, 2) != "x ") continue;
    line.remove_prefix(2);
    if (!names.insert(foldedPath(line)).second) return true;
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

bool readFully(int descriptor, std::uint64_t offset, std::span<char> into) {
  for (std::size_t done = 0; done < into.size();) {
    if (offset + done > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max())) return false;
    const ssize_t got =
        ::pread(descriptor, into.data() + done, into.size() - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    done += static_cast<std::size_t>(got);
  }
  return true;
}

// Gives what bsdtar unpacked into `folder` the modes and links that the
// archive's central directory records.
Ref<Error> restoreRecordedModes(const ArchiveFile& file, const std::string& folder) {
  const int descriptor = file.handle->fileDescriptor();
  const ZIPCentralDirectory directory(
      [descriptor](std::uint64_t offset, std::span<char> into) { return readFully(descriptor, offset, into); },
      file.size);
  if (directory.problem() != ZIPDirectoryProblem::None)
    return unarchiverError(OVUnarchiverErrorUnsafeContent, describeZIPDirectoryProblem(directory.problem()));
  const ZIPModeProblem problem = restoreZIPModesAndLinks(folder, directory);
  if (problem == ZIPModeProblem::None) return nullptr;
  return unarchiverError(OVUnarchiverErrorUnsafeContent, describeZIPModeProblem(problem));
}

}  // namespace

Ref<URL> OVUnarchiver::_unarchiveZIP_progressHandler_error(const Ref<URL>& archive, const ProgressHandler& progress,
                                                           Ref<Error>* error) {
  ArchiveFile file;
  if (!file.open(archive, error)) return nullptr;
  // The tool writes into a folder inside a private one: an archive's "./"
  // entry may open up the folder the tool writes into, never its parent.
  const std::string privateFolder = makePrivateFolder();
  if (privateFolder.empty()) {
    setPOSIXError(error, errno);
    return nullptr;
  }
  const std::string work = privateFolder + "/content";
  auto fail = [&](Ref<Error> failure) -> Ref<URL> {
    removeItem(privateFolder);
    setError(error, std::move(failure));
    return nullptr;
  };
  if (::mkdir(work.c_str(), 0700) != 0) return fail(Error::posixError(errno));

  Ref<Error> readError;
  Ref<Data> firstChunk = file.handle->readDataUpToLength_error(kFeedChunkSize, &readError);
  if (!firstChunk) return fail(readError);
  if (!isZIPStream(firstChunk->stringView()))
    return fail(unarchiverError(OVUnarchiverErrorUnknownArchiveType, "Unknown archive type."));

  auto input = Pipe::pipe(), errors = Pipe::pipe();
  if (!input || !errors) return fail(unarchiverError(OVUnarchiverErrorExtractorLaunchFailed));
  auto tool = Process::init();
  tool->setLaunchPath(kZIPTool);
  // -k keeps the first of two entries of one name, -v lists every entry (to
  // find such twins), and the substitution turns an absolute name into one
  // that starts with "..", which bsdtar refuses instead of quietly
  // extracting it under the folder. No owner, permission, ACL, attribute or
  // flag comes from the archive through the tool; the permissions that the
  // central directory records are applied afterwards, made safe.
  tool->setArguments({"-x", "-v", "-k", "--no-same-owner", "--no-same-permissions", "--no-acls", "--no-xattrs",
                      "--no-fflags", "-s", ",^/,../,S", "-f", "-", "-C", work});
  tool->setStandardInput(input);
  tool->setStandardError(errors);
  if (!safeLaunch(tool)) return fail(unarchiverError(OVUnarchiverErrorExtractorLaunchFailed));
  const std::uint64_t limit = _maximumExtractedBytesForArchiveSize(file.size);
  ToolWatchdog watchdog(tool, limit, _toolStallTimeout());
  ToolOutputCollector errorOutput(errors);
  errorOutput.start();

  Ref<Error> feedError = feed(file, firstChunk, input->fileHandleForWriting(), progress);
  input->fileHandleForWriting()->closeFile();
  if (!safeWaitUntilExit(tool)) return fail(unarchiverError(OVUnarchiverErrorExtractorFeedFailed));
  const ToolWatchdog::Verdict verdict = watchdog.finish();
  const std::string listing = errorOutput.take();
  if (verdict != ToolWatchdog::Verdict::Ran)
    return fail(watchdogError(verdict, OVUnarchiverErrorExtractorFeedFailed));
  if (!exitedCleanly(tool)) return fail(toolFailure(tool, complaintsOf(listing)));
  if (!file.endsWithZIPEndRecord())
    return fail(unarchiverError(OVUnarchiverErrorUnsafeContent, "The archive is cut short: its end record is missing."));
  if (namesAnEntryTwice(listing))
    return fail(unarchiverError(OVUnarchiverErrorUnsafeContent, "The archive names one item twice."));
  if (Ref<Error> problem = restoreRecordedModes(file, work)) return fail(std::move(problem));
  if (const auto problem = checkExtractedTree(work, limit); problem != TreeProblem::None)
    return fail(treeError(problem));

  std::error_code code;
  const std::string output = publishFolder(work, code);
  if (output.empty()) return fail(Error::posixError(code.value()));
  removeItem(privateFolder);
  if (feedError) setError(error, feedError);
  return URL::fileURLWithPath_isDirectory(output, true);
}

}  // namespace fennick
