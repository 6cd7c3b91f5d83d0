// fennick bundle PATH
#include <filesystem>

#include "DataCommands.h"

namespace fennick::tool {

namespace {

int runBundle(const Arguments& arguments) {
  const std::string& path = arguments.positional()[0];
  std::error_code ignored;
  if (!std::filesystem::exists(path, ignored)) return fail("bundle", path + ": no such file or directory");
  auto location = URL::fileURLWithPath(path);
  Ref<Dictionary> info = OVInfoDictionaryForBundleAtURL(location);
  if (!info)
    return fail("bundle", path + ": not a bundle (no readable Info.plist, Contents/Info.plist or "
                                 "__info_plist section)");
  auto show = [](const char* label, const Ref<String>& value) {
    std::printf("%-11s %s\n", label, value ? value->UTF8String() : "(none)");
  };
  show("name:", OVNameFromInfoDictionary(info));
  show("identifier:", OVBundleIDFromInfoDictionry(info));
  show("version:", OVShortVersionStringFromInfoDictionary(info));
  show("build:", OVVersionStringFromInfoDictionary(info));
  return kExitOK;
}

}  // namespace

FENNICK_TOOL_COMMAND({.name = "bundle",
                      .summary = "show a bundle's name, identifier and versions",
                      .usage = "usage: fennick bundle PATH\n\n"
                               "PATH is a bundle directory (with Contents/Info.plist or Info.plist) or an\n"
                               "executable that carries its property list in an __info_plist section.\n"
                               "Prints CFBundleName, CFBundleIdentifier, CFBundleShortVersionString\n"
                               "(version) and CFBundleVersion (build); (none) where a value is missing.\n",
                      .minArguments = 1,
                      .maxArguments = 1,
                      .run = runBundle});

}  // namespace fennick::tool
