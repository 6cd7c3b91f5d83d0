// `fennick sysinfo`: the machine's and the session's facts, one per line, or
// as one JSON object.
#include "Command.h"

#include <fennick/Fennick.h>

#include <cstdio>
#include <string>

namespace fennick::tool {

namespace {

// Every fact, in the order printed, with its JSON value.
Ref<Dictionary> facts() {
  auto locales = OVSystemInfo::preferredLocales(SIZE_MAX);
  return Dictionary::dictionaryWithStringKeys({
      {"hardwareUUID", String::string(OVSystemInfo::hardwareUUID())},
      {"MACAddress", String::string(OVSystemInfo::MACAddress())},
      {"OSVersion", String::string(OVSystemInfo::OSVersion())},
      {"OSBuild", String::string(OVSystemInfo::OSBuild())},
      {"machineModel", String::string(OVSystemInfo::machineModel())},
      {"CPUFullBrandName", String::string(OVSystemInfo::CPUFullBrandName())},
      {"preferredLocales", locales},
      {"currentBootUptime", Number::numberWithDouble(OVSystemStartupInfo::currentBootUptime())},
      {"currentUserLoginUptime", Number::numberWithDouble(OVSystemStartupInfo::currentUserLoginUptime())},
  });
}

std::string plain(const Id& value) {
  if (auto* list = Array::dynamicCastObject(value.get())) {
    std::string text;
    for (std::size_t i = 0; i < list->count(); ++i) text += (i ? ", " : "") + plain(list->objectAtIndex(i));
    return text;
  }
  if (auto* number = Number::dynamicCastObject(value.get())) return fmt::format("{:.0f} s", number->doubleValue());
  return value->description();
}

int runSysinfo(const Arguments& arguments) {
  const auto values = facts();
  if (arguments.has("json")) {
    std::string text;
    Ref<Error> error;
    if (!JSON::writeJSONObject_toString_options_error(values, text, JSONWritingPrettyPrinted | JSONWritingSortedKeys,
                                                      &error))
      return fail("sysinfo", error->localizedDescription());
    std::printf("%s\n", text.c_str());
    return kExitOK;
  }
  for (const char* key : {"hardwareUUID", "MACAddress", "OSVersion", "OSBuild", "machineModel", "CPUFullBrandName",
                          "preferredLocales", "currentBootUptime", "currentUserLoginUptime"})
    std::printf("%s: %s\n", key, plain(values->objectForKey(String::string(key))).c_str());
  return kExitOK;
}

}  // namespace

FENNICK_TOOL_COMMAND({.name = "sysinfo",
                      .summary = "show facts about the machine and the session",
                      .usage = "usage: fennick sysinfo [--json]\n\n"
                               "Prints the hardware UUID, the primary MAC address, the OS version and\n"
                               "build, the machine model, the processor, the preferred languages and the\n"
                               "seconds since boot and since the user's login, one per line. A fact that\n"
                               "cannot be read is empty.\n\n"
                               "  --json   print one JSON object instead\n",
                      .options = {{.longName = "json"}},
                      .maxArguments = 0,
                      .run = runSysinfo});

}  // namespace fennick::tool
