// JSON text from outside into the typed reader: the first line is a key path,
// the rest the document. Decoding either fails with an error or gives objects
// that every getter reads without crashing, and the reader keeps its promises
// about the first error.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "fennick/Helpers/Data/OVJSONParser.h"
#include "fennick/Runtime/Coding/JSON.h"

using namespace fennick;

namespace {
void require(bool condition) {
  if (!condition) std::abort();
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(bytes), size);
  const auto newline = input.find('\n');
  const std::string_view path = newline == std::string_view::npos ? std::string_view() : input.substr(0, newline);
  const std::string_view text = newline == std::string_view::npos ? input : input.substr(newline + 1);

  Ref<Error> error;
  Id document = JSON::JSONObjectWithString_options_error(text, JSONReadingFragmentsAllowed, &error);
  require(document || error);
  require(!document || text.find('\0') == std::string_view::npos);  // a raw NUL is never JSON text
  Id walked = OVJSONParser::validatedObjectFromJSON_forKeyPath_ofClass(document, path, Object::staticClass());
  auto reader = OVJSONParser::initWithJSON(Dictionary::dynamicCastObject(document));
  if (!reader) return 0;

  // Optional reads agree with the class walk and never touch the error.
  Id optional = reader->objectForKeyPath_ofClass_isOptional(path, Object::staticClass(), true);
  require(!reader->lastError());
  require(Object::isEqualObject_toObject(optional, walked));

  Id required = reader->objectForKeyPath_ofClass(path, Object::staticClass());
  require((required != nullptr) != (reader->lastError() != nullptr));
  const Ref<Error> first = reader->lastError();
  reader->stringForKeyPath(path);
  reader->numberForKeyPath(path);
  reader->URLForKeyPath(path);
  reader->unixtimeBasedDateForKeyPath(path);
  reader->integerForKey(path);
  reader->unsignedIntegerForKey(path);
  reader->doubleForKey(path);
  reader->URLForKey(path);
  reader->unixtimeBasedDateForKey(path);
  reader->dictionaryForKey(path);
  reader->arrayForKey(path);
  if (first) require(reader->lastError() == first);  // the first failure is sticky
  return 0;
}
