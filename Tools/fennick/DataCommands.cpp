#include "DataCommands.h"

#include <cerrno>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace fennick::tool {

int usageError(std::string_view name, std::string_view message) {
  std::fprintf(stderr, "fennick %.*s: %.*s\n", static_cast<int>(name.size()), name.data(),
               static_cast<int>(message.size()), message.data());
  const auto found = commands().find(name);
  if (found != commands().end())
    std::fprintf(stderr, "%.*s", static_cast<int>(found->second.usage.size()), found->second.usage.data());
  return kExitUsage;
}

std::optional<std::string> readInput(const std::string& path, std::string& problem) {
  if (path == "-") return std::string(std::istreambuf_iterator<char>(std::cin), {});
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    problem = path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  std::ostringstream contents;
  contents << file.rdbuf();
  if (file.bad()) {
    problem = path + ": read error";
    return std::nullopt;
  }
  return std::move(contents).str();
}

namespace {

std::string base64(const Data& data) {
  static constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  const auto bytes = data.span();
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::uint32_t chunk = (bytes[i] << 16) | (i + 1 < bytes.size() ? bytes[i + 1] << 8 : 0) |
                                (i + 2 < bytes.size() ? bytes[i + 2] : 0);
    for (std::size_t k = 0; k < 4; ++k)
      text += k <= (bytes.size() - i) ? alphabet[(chunk >> (18 - 6 * k)) & 63] : '=';
  }
  return text;
}

// Values JSON cannot hold, turned into ones it can.
Id jsonCompatible(const Id& value) {
  if (auto data = Data::dynamicCastObject(value)) return String::string(base64(*data));
  if (auto date = Date::dynamicCastObject(value)) return Number::of(date->timeIntervalSince1970());
  if (auto number = Number::dynamicCastObject(value))
    return std::isfinite(number->doubleValue()) || number->kind() != Number::Kind::Double ? value : Null::null();
  if (auto array = Array::dynamicCastObject(value)) {
    auto converted = Array::arrayWithCapacity(array->count());
    for (const Id& member : *array) converted->addObject(jsonCompatible(member));
    return converted;
  }
  if (auto dictionary = Dictionary::dynamicCastObject(value)) {
    auto converted = Dictionary::dictionaryWithCapacity(dictionary->count());
    for (const auto& entry : *dictionary)
      converted->setObject_forKey(jsonCompatible(entry.value), String::string(entry.key->description()));
    return converted;
  }
  return value ? value : Id(Null::null());
}

}  // namespace

std::string jsonText(const Id& value, bool pretty) {
  std::string text;
  const std::uint32_t options =
      JSONWritingFragmentsAllowed | JSONWritingWithoutEscapingSlashes | (pretty ? std::uint32_t{JSONWritingPrettyPrinted} : 0u);
  if (!JSON::writeJSONObject_toString_options_error(jsonCompatible(value), text, options, nullptr))
    return "null";
  return text;
}

}  // namespace fennick::tool
