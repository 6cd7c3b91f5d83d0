// fennick json get FILE KEYPATH
#include "DataCommands.h"

namespace fennick::tool {

namespace {

int runJSON(const Arguments& arguments) {
  const auto& words = arguments.positional();
  if (words[0] != "get") return usageError("json", "unknown subcommand '" + words[0] + "'");
  if (words.size() != 3) return usageError("json", "get takes a file and a key path");
  std::string problem;
  std::optional<std::string> text = readInput(words[1], problem);
  if (!text) return fail("json", problem);
  Ref<Error> error;
  Id document = JSON::JSONObjectWithString_options_error(*text, 0, &error);
  if (!document) return fail("json", words[1] + ": " + error->localizedDescription());
  auto parser = OVJSONParser::initWithJSON(Dictionary::dynamicCastObject(document));
  if (!parser) return fail("json", words[1] + ": the top level is not an object");

  Id value = parser->objectForKeyPath_ofClass(words[2], Object::staticClass());
  if (!value) return fail("json", parser->lastError()->localizedDescription());
  // Text prints as it is; everything else as JSON.
  if (auto string = String::dynamicCastObject(value)) std::printf("%s\n", string->UTF8String());
  else std::printf("%s\n", jsonText(value, true).c_str());
  return kExitOK;
}

}  // namespace

FENNICK_TOOL_COMMAND({.name = "json",
                      .summary = "read a value out of a JSON document by key path",
                      .usage = "usage: fennick json get FILE KEYPATH\n\n"
                               "Prints the value at KEYPATH (keys separated by \".\") in the JSON object\n"
                               "in FILE (\"-\" for standard input): text as it is, anything else as JSON.\n"
                               "A missing key or a step that is not an object is an error that names\n"
                               "the key, for example \"Missing value for key port\".\n",
                      .minArguments = 1,
                      .maxArguments = 3,
                      .run = runJSON});

}  // namespace fennick::tool
