// `fennick unpack ARCHIVE [DESTINATION]`: unpacks a ZIP archive or a disk
// image with the framework's unarchiver and prints the folder that holds the
// result.
#include "Command.h"
#include "Progress.h"

#include <fennick/Fennick.h>

#include <cmath>
#include <cstdio>
#include <string>

namespace fennick::tool {

namespace {

std::string trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

int runUnpack(const Arguments& arguments) {
  const std::string& archive = arguments.positional()[0];
  Ref<URL> destination;
  if (arguments.positional().size() > 1) destination = URL::fileURLWithPath_isDirectory(arguments.positional()[1], true);

  Progress progress;
  const std::string label = "unpacking " + URL::fileURLWithPath(archive)->lastPathComponent();
  Ref<URL> folder;
  Ref<Error> error;
  OVUnarchiver::unpackArchiveAtURL_toDestinationFolder_async_progressHandler_completionHandler(
      URL::fileURLWithPath(archive), destination, false,
      // The steps add up in floating point; round so that 0.9 does not show as 89%.
      [&](double value) { progress.fraction(std::round(value * 1e6) / 1e6, label); },
      [&](const Ref<URL>& result, const Ref<Error>& failure) {
        folder = result;
        error = failure;
      });
  progress.finish();
  if (error) return fail("unpack", archive + ": " + trimmed(error->localizedDescription()));
  if (!folder) return fail("unpack", archive + ": nothing to unpack (the archive holds no items to move)");
  std::printf("%s\n", folder->path().c_str());
  return kExitOK;
}

}  // namespace

FENNICK_TOOL_COMMAND({.name = "unpack",
                      .summary = "unpack a ZIP archive or a disk image",
                      .usage = "usage: fennick unpack ARCHIVE [DESTINATION]\n\n"
                               "Unpacks ARCHIVE (a ZIP archive or a UDIF disk image, recognised by its\n"
                               "extension or its bytes) into DESTINATION, which is created when missing,\n"
                               "and prints the folder that holds the result. Without DESTINATION the\n"
                               "result stays in a new folder under the temporary directory. Items named\n"
                               ".DS_Store and .Trashes are left out; an item of the same name in\n"
                               "DESTINATION is replaced. Progress is shown on standard error.\n",
                      .minArguments = 1,
                      .maxArguments = 2,
                      .run = runUnpack});

}  // namespace fennick::tool
