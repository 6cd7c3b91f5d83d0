// The unpacker's disk-image step: 7-Zip extracts the image's volume into a
// private folder that stands for the mount point; the volume's top-level
// entries are then moved into the output folder, and "detaching" removes
// what is left of the stand-in.
#include "fennick/Helpers/Unarchiver/OVUnarchiver.h"

#include "fennick/Helpers/Unarchiver/Internal/ArchiveFile.h"
#include "fennick/Helpers/Unarchiver/Internal/DirectoryReader.h"
#include "fennick/Helpers/Unarchiver/Internal/ExtractedTreeCheck.h"
#include "fennick/Helpers/Unarchiver/Internal/ItemPlacement.h"
#include "fennick/Helpers/Unarchiver/Internal/PrivateFolder.h"
#include "fennick/Helpers/Unarchiver/Internal/ProgressAccumulator.h"
#include "fennick/Helpers/Unarchiver/Internal/ToolOutputCollector.h"
#include "fennick/Helpers/Unarchiver/Internal/ToolWatchdog.h"
#include "fennick/Helpers/Unarchiver/Internal/UnarchiverErrors.h"
#include "fennick/Helpers/System/Process+OVRunExtensions.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Processes/FileHandle.h"
#include "fennick/Runtime/Processes/Pipe.h"
#include "fennick/Runtime/URLs/URL.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <vector>

namespace fennick {

using namespace detail;

namespace {

constexpr const char* kImageTool = "/usr/bin/7zz";
constexpr double kAttachStep = 0.2;
constexpr double kEntriesShare = 0.6;
constexpr double kDetachStep = 0.2;

void detach(const std::string& mountPoint, ProgressAccumulator& progress) {
  removeItem(mountPoint);
  progress.step(kDetachStep);
}

}  // namespace

Ref<URL> OVUnarchiver::_unarchiveDMG_progressHandler_error(const Ref<URL>& archive, const ProgressHandler& handler,
                                                           Ref<Error>* error) {
  const std::string mountPoint = makePrivateFolder("fennick-volume-");
  ProgressAccumulator progress(handler);
  auto fail = [&](Ref<Error> failure) -> Ref<URL> {
    if (!mountPoint.empty()) removeItem(mountPoint);
    setError(error, std::move(failure));
    return nullptr;
  };
  ArchiveFile file;
  Ref<Error> openError;
  if (!file.open(archive, &openError)) return fail(openError);

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
  ToolOutputCollector errorOutput(errors);
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
  if (const auto problem = checkExtractedTree(mountPoint, limit, mountPoint); problem != TreeProblem::None)
    return fail(treeError(problem));

  std::vector<std::string> entries;
  DirectoryReader volume(::open(mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
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
      code = placeItem(path, folder, entry);
      if (code) break;
    }
    progress.step(entryStep);
  }
  detach(mountPoint, progress);
  if (code) {
    removeItem(folder);
    setError(error, code);
    return nullptr;
  }
  return URL::fileURLWithPath_isDirectory(folder, true);
}

}  // namespace fennick
