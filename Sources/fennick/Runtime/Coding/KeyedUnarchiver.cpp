#include "fennick/Runtime/Coding/KeyedUnarchiver.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Collections/Set.h"
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Coding/PropertyList.h"
#include "fennick/Runtime/Values/String.h"

#include <plist/plist.h>

#include <cstdlib>

namespace fennick {

namespace detail {
Ref<Error> coderError(std::int64_t code, std::string debugDescription);
}

namespace {

struct PlistFree {
  void operator()(void* node) const { plist_free(node); }
};

enum class Status : std::uint8_t { Untouched, Decoding, Done };

std::string classNames(const ClassList& classes) {
  std::string names;
  for (const Class* cls : classes) {
    if (!names.empty()) names += ", ";
    names += cls ? cls->archiveName() : "nil";
  }
  return "{" + names + "}";
}

// An object reference: a UID, or in XML archives the dictionary
// {"CF$UID": n} that stands for one.
bool referenceOf(plist_t node, std::uint64_t* uid) {
  const plist_type type = plist_get_node_type(node);
  if (type == PLIST_UID) {
    plist_get_uid_val(node, uid);
    return true;
  }
  if (type != PLIST_DICT || plist_dict_get_size(node) != 1) return false;
  plist_t value = plist_dict_get_item(node, "CF$UID");
  if (!value || plist_get_node_type(value) != PLIST_UINT) return false;
  plist_get_uint_val(value, uid);
  return true;
}

const ClassList& noClasses() {
  static const ClassList empty;
  return empty;
}

}  // namespace

struct KeyedUnarchiver::State {
  std::unique_ptr<void, PlistFree> root;
  std::vector<plist_t> objects;  // "$objects", by UID
  std::vector<Id> decoded;
  std::vector<Status> status;
  std::vector<const Class*> classOfEntry;  // cached class of each entry
  std::vector<bool> archivedImmutable;     // named by a class's immutable form ("NSArray")
  bool secure = true;
  Ref<Error> error;

  struct Frame {
    plist_t fields;
    const ClassList* allowed;
  };
  std::vector<Frame> frames;
  std::string keyBuffer;
  // Entries decoded into new objects by the current top-level decode.
  std::vector<std::uint64_t> madeByThisCall;

  bool atTopLevel() const { return frames.size() == 1; }

  // A failed decode hands nothing back, but what it made may hold cycles
  // (archives can make a collection contain itself); emptying the collections
  // lets the whole partial graph go. Collections are still mutable here: they
  // take the immutability they were archived with only once the decode has
  // succeeded, or a cycle through an immutable one could never be broken.
  void discardPartialGraph() {
    for (std::uint64_t uid : madeByThisCall) {
      Object* object = decoded[uid].get();
      if (auto* array = dynamic_cast<Array*>(object)) array->removeAllObjects();
      else if (auto* dictionary = dynamic_cast<Dictionary*>(object)) dictionary->removeAllObjects();
      else if (auto* set = dynamic_cast<Set*>(object)) set->removeAllObjects();
    }
  }

  // An NSArray comes back immutable, an NSMutableArray mutable, so that the
  // object archives again under the name it came with.
  void settleMutability() {
    for (std::uint64_t uid : madeByThisCall)
      if (archivedImmutable[uid])
        if (auto collection = Collection::dynamicCastObject(decoded[uid])) collection->makeImmutable();
  }

  void fail(std::int64_t code, std::string why) {
    if (!error) error = detail::coderError(code, std::move(why));
  }
  // Formats the reason out of line: its temporaries would otherwise sit in
  // the frames of the recursive decode, several kilobytes per level of
  // nesting under AddressSanitizer.
  template <class... Args>
  [[gnu::noinline, gnu::cold]] void corrupt(fmt::format_string<Args...> pattern, Args&&... args) {
    if (!error) fail(NSCoderReadCorruptError, fmt::format(pattern, std::forward<Args>(args)...));
  }
  [[gnu::noinline, gnu::cold]] void unexpectedClass(std::string_view key, const Class* cls, const ClassList& allowed) {
    corrupt("value for key '{}' was of unexpected class '{}'. Allowed classes are '{}'.", key, cls->archiveName(),
            classNames(allowed));
  }

  plist_t field(std::string_view key) {
    if (frames.empty()) return nullptr;
    keyBuffer.assign(key);
    return plist_dict_get_item(frames.back().fields, keyBuffer.c_str());
  }

  // The class an entry decodes to, checked for a well-formed shape; nullptr
  // (with the failure recorded) when it has none.
  [[gnu::noinline]] const Class* entryClass(std::uint64_t uid, std::string_view key) {
    if (const Class* cached = classOfEntry[uid]) return cached;
    const Class* cls = nullptr;
    plist_t entry = objects[uid];
    switch (plist_get_node_type(entry)) {
      case PLIST_STRING: cls = String::staticClass(); break;
      case PLIST_UINT:
      case PLIST_REAL:
      case PLIST_BOOLEAN: cls = Number::staticClass(); break;
      case PLIST_DATA: cls = Data::staticClass(); break;
      case PLIST_DATE: cls = Date::staticClass(); break;
      case PLIST_DICT: cls = codedClass(entry, uid, key); break;
      default: corrupt("the entry {} for key '{}' is not an object", uid, key);
    }
    classOfEntry[uid] = cls;
    return cls;
  }

  const Class* codedClass(plist_t entry, std::uint64_t uid, std::string_view key) {
    plist_t reference = plist_dict_get_item(entry, "$class");
    std::uint64_t classUID = 0;
    if (!reference || !referenceOf(reference, &classUID) || !classUID || classUID >= objects.size() || classUID == uid) {
      corrupt("the object {} for key '{}' has no valid $class", uid, key);
      return nullptr;
    }
    plist_t classEntry = objects[classUID];
    plist_t name = plist_get_node_type(classEntry) == PLIST_DICT ? plist_dict_get_item(classEntry, "$classname")
                                                                  : nullptr;
    std::uint64_t length = 0;
    const char* text = name ? plist_get_string_ptr(name, &length) : nullptr;
    if (!text) {
      corrupt("the class entry {} has no $classname", classUID);
      return nullptr;
    }
    const std::string_view className(text, length);
    const Class* cls = Class::named(className);
    // The immutable form of a class that serves a mutable one too ("NSArray",
    // whose class also answers to "NSMutableArray").
    archivedImmutable[uid] = cls && className.starts_with("NS") && !className.starts_with("NSMutable") &&
                             Class::named(fmt::format("NSMutable{}", className.substr(2))) == cls;
    // The archive's name for an unknown class is not repeated: it is text
    // from outside.
    if (!cls) corrupt("cannot decode the object {} for key '{}': its class is unknown", uid, key);
    return cls;
  }

  bool isAllowed(const Class* cls, const ClassList& allowed) const {
    for (const Class* candidate : allowed)
      if (candidate && cls->isSubclassOfClass(candidate)) return true;
    return false;
  }

  Id decode(KeyedUnarchiver& coder, std::uint64_t uid, const ClassList& allowed, std::string_view key) {
    if (error || uid == 0) return nullptr;
    if (uid >= objects.size()) {
      corrupt("the reference {} for key '{}' is out of range", uid, key);
      return nullptr;
    }
    const Class* cls = entryClass(uid, key);
    if (!cls) return nullptr;
    if (secure && !isAllowed(cls, allowed)) {
      unexpectedClass(key, cls, allowed);
      return nullptr;
    }
    if (status[uid] != Status::Untouched) return decoded[uid];

    plist_t entry = objects[uid];
    if (plist_get_node_type(entry) != PLIST_DICT) {
      status[uid] = Status::Done;
      decoded[uid] = detail::objectFromPlistScalarNode(entry);
      if (!decoded[uid]) corrupt("the entry {} for key '{}' is not valid text", uid, key);
      return decoded[uid];
    }
    if (cls == String::staticClass() || cls == Data::staticClass()) return decodeValueObject(uid, cls);
    return decodeCodedObject(coder, uid, cls, allowed, key);
  }

  // Strings and data that the platform wrote as objects (its mutable forms).
  Id decodeValueObject(std::uint64_t uid, const Class* cls) {
    plist_t entry = objects[uid];
    Id value;
    if (cls == String::staticClass()) {
      plist_t text = plist_dict_get_item(entry, "NS.string");
      if (text && plist_get_node_type(text) == PLIST_STRING) value = detail::objectFromPlistScalarNode(text);
    } else {
      plist_t bytes = plist_dict_get_item(entry, "NS.data");
      if (bytes && plist_get_node_type(bytes) == PLIST_DATA) value = detail::objectFromPlistScalarNode(bytes);
    }
    if (!value) corrupt("the {} object {} has no contents", cls->archiveName(), uid);
    status[uid] = Status::Done;
    return decoded[uid] = value;
  }

  Id decodeCodedObject(KeyedUnarchiver& coder, std::uint64_t uid, const Class* cls, const ClassList& allowed,
                       std::string_view key) {
    if (secure && !cls->supportsSecureCoding()) {
      corrupt("class '{}' for key '{}' does not support secure coding", cls->archiveName(), key);
      return nullptr;
    }
    if (frames.size() > maxDepth) {
      corrupt("objects are nested more than {} levels deep", maxDepth);
      return nullptr;
    }
    Id instance = cls->allocateForDecoding();
    if (!instance) {
      corrupt("cannot decode object of class ({}) for key ({})", cls->archiveName(), key);
      return nullptr;
    }
    // Registered before its contents, so that cycles come back to it.
    decoded[uid] = instance;
    status[uid] = Status::Decoding;
    madeByThisCall.push_back(uid);
    frames.push_back({objects[uid], &allowed});
    try {
      instance->initWithCoder(coder);
    } catch (const Exception& exception) {
      // The exception's reason may quote what was being decoded.
      corrupt("decoding an object of class {} failed with {}", cls->archiveName(), exception.name());
    }
    frames.pop_back();
    status[uid] = Status::Done;
    return error ? nullptr : instance;
  }

  Id decodeField(KeyedUnarchiver& coder, const ClassList& allowed, std::string_view key) {
    if (error) return nullptr;
    if (atTopLevel()) {
      Id result = decodeReference(coder, allowed, key);
      if (error) discardPartialGraph();
      else settleMutability();
      madeByThisCall.clear();
      return error ? nullptr : result;
    }
    return decodeReference(coder, allowed, key);
  }

  Id decodeReference(KeyedUnarchiver& coder, const ClassList& allowed, std::string_view key) {
    plist_t node = field(key);
    if (!node) return nullptr;
    std::uint64_t uid = 0;
    if (!referenceOf(node, &uid)) {
      corrupt("the value for key '{}' is not an object reference", key);
      return nullptr;
    }
    return decode(coder, uid, allowed, key);
  }

  // A scalar field of the current object, or nullptr when absent; a field of
  // another type fails the decode.
  [[gnu::noinline]] plist_t scalarField(std::string_view key, std::initializer_list<plist_type> types,
                                        const char* what) {
    if (error) return nullptr;
    plist_t node = field(key);
    if (!node) return nullptr;
    const plist_type type = plist_get_node_type(node);
    for (plist_type accepted : types)
      if (type == accepted) return node;
    corrupt("the value for key '{}' is not {}", key, what);
    return nullptr;
  }
};

KeyedUnarchiver::KeyedUnarchiver(std::unique_ptr<State> state) : state_(std::move(state)) {}
KeyedUnarchiver::~KeyedUnarchiver() = default;

std::unique_ptr<KeyedUnarchiver> KeyedUnarchiver::initForReadingFromData_error(const Ref<Data>& data,
                                                                             Ref<Error>* error) {
  auto failed = [&](const char* why) -> std::unique_ptr<KeyedUnarchiver> {
    if (error) *error = detail::coderError(NSCoderReadCorruptError, why);
    return nullptr;
  };
  if (!data || data->length() == 0) return failed("the data is empty");
  bool binary = false;
  const char* problem = nullptr;
  auto state = std::make_unique<State>();
  state->root.reset(detail::parsePlistNode(data->stringView(), &binary, &problem));
  plist_t root = state->root.get();
  if (!root) return failed(problem);
  if (plist_get_node_type(root) != PLIST_DICT) return failed("the data is not a property list dictionary");

  plist_t archiver = plist_dict_get_item(root, "$archiver");
  plist_t objects = plist_dict_get_item(root, "$objects");
  plist_t top = plist_dict_get_item(root, "$top");
  plist_t version = plist_dict_get_item(root, "$version");
  if (!archiver || plist_get_node_type(archiver) != PLIST_STRING ||
      plist_string_val_compare(archiver, "NSKeyedArchiver") != 0)
    return failed("the data is not a keyed archive ($archiver)");
  if (!version || plist_get_node_type(version) != PLIST_UINT) return failed("the archive has no $version");
  if (!objects || plist_get_node_type(objects) != PLIST_ARRAY) return failed("the archive has no $objects");
  if (!top || plist_get_node_type(top) != PLIST_DICT) return failed("the archive has no $top");

  const std::size_t count = plist_array_get_size(objects);
  state->objects.reserve(count);
  plist_array_iter iter = nullptr;
  plist_array_new_iter(objects, &iter);
  for (plist_t item = nullptr;;) {
    plist_array_next_item(objects, iter, &item);
    if (!item) break;
    state->objects.push_back(item);
  }
  std::free(iter);
  state->decoded.resize(state->objects.size());
  state->status.resize(state->objects.size(), Status::Untouched);
  state->classOfEntry.resize(state->objects.size(), nullptr);
  state->archivedImmutable.resize(state->objects.size(), false);
  state->frames.push_back({top, nullptr});
  return std::unique_ptr<KeyedUnarchiver>(new KeyedUnarchiver(std::move(state)));
}

Id KeyedUnarchiver::unarchivedObjectOfClasses_fromData_error(const ClassList& classes, const Ref<Data>& data,
                                                             Ref<Error>* error) {
  auto unarchiver = initForReadingFromData_error(data, error);
  if (!unarchiver) return nullptr;
  State& s = *unarchiver->state_;
  if (!unarchiver->containsValueForKey("root"))
    s.fail(NSCoderValueNotFoundError, "the archive has no root object");
  Id root = unarchiver->decodeObjectOfClasses_forKey(classes, "root");
  if (s.error) {
    if (error) *error = s.error;
    return nullptr;
  }
  return root;
}

Id KeyedUnarchiver::unarchivedObjectOfClass_fromData_error(const Class* cls, const Ref<Data>& data,
                                                           Ref<Error>* error) {
  return unarchivedObjectOfClasses_fromData_error(ClassList{cls}, data, error);
}

void KeyedUnarchiver::setRequiresSecureCoding(bool required) { state_->secure = required; }
bool KeyedUnarchiver::requiresSecureCoding() const { return state_->secure; }
const Ref<Error>& KeyedUnarchiver::error() const { return state_->error; }

void KeyedUnarchiver::failWithError(const Ref<Error>& error) {
  if (!state_->error) state_->error = error;
}

Id KeyedUnarchiver::decodeObjectForKey(std::string_view key) {
  if (state_->secure) {
    state_->corrupt("decoding key '{}' without a class is not allowed when secure coding is required", key);
    return nullptr;
  }
  static const ClassList anything{Object::staticClass()};
  return state_->decodeField(*this, anything, key);
}

bool KeyedUnarchiver::containsValueForKey(std::string_view key) const { return state_->field(key) != nullptr; }

Id KeyedUnarchiver::decodeObjectOfClass_forKey(const Class* cls, std::string_view key) {
  const ClassList classes{cls};
  return state_->decodeField(*this, classes, key);
}

Id KeyedUnarchiver::decodeObjectOfClasses_forKey(const ClassList& classes, std::string_view key) {
  return state_->decodeField(*this, classes, key);
}

const ClassList& KeyedUnarchiver::allowedClasses() const {
  const auto& frames = state_->frames;
  return frames.empty() || !frames.back().allowed ? noClasses() : *frames.back().allowed;
}

bool KeyedUnarchiver::decodeBoolForKey(std::string_view key) {
  plist_t node = state_->scalarField(key, {PLIST_BOOLEAN, PLIST_UINT}, "a boolean");
  if (!node) return false;
  if (plist_get_node_type(node) == PLIST_UINT) return plist_uint_val_compare(node, 0) != 0;
  std::uint8_t value = 0;
  plist_get_bool_val(node, &value);
  return value != 0;
}

std::int64_t KeyedUnarchiver::decodeInt64ForKey(std::string_view key) {
  plist_t node = state_->scalarField(key, {PLIST_UINT, PLIST_REAL, PLIST_BOOLEAN}, "an integer");
  if (!node) return 0;
  auto number = Number::castObject(detail::objectFromPlistScalarNode(node));
  return number->integerValue();
}

double KeyedUnarchiver::decodeDoubleForKey(std::string_view key) {
  plist_t node = state_->scalarField(key, {PLIST_REAL, PLIST_UINT}, "a number");
  if (!node) return 0;
  auto number = Number::castObject(detail::objectFromPlistScalarNode(node));
  return number->doubleValue();
}

std::vector<std::uint8_t> KeyedUnarchiver::decodeBytesForKey(std::string_view key) {
  plist_t node = state_->scalarField(key, {PLIST_DATA}, "data");
  if (!node) return {};
  std::uint64_t length = 0;
  const char* bytes = plist_get_data_ptr(node, &length);
  if (!bytes) return {};
  return {reinterpret_cast<const std::uint8_t*>(bytes), reinterpret_cast<const std::uint8_t*>(bytes) + length};
}

std::vector<Id> KeyedUnarchiver::decodeArrayOfObjectsForKey(std::string_view key) {
  State& s = *state_;
  plist_t node = s.scalarField(key, {PLIST_ARRAY}, "an array of object references");
  if (!node) return {};
  const ClassList& allowed = allowedClasses();
  std::vector<Id> members;
  members.reserve(plist_array_get_size(node));
  plist_array_iter iter = nullptr;
  plist_array_new_iter(node, &iter);
  for (plist_t item = nullptr; !s.error;) {
    plist_array_next_item(node, iter, &item);
    if (!item) break;
    std::uint64_t uid = 0;
    referenceOf(item, &uid);
    Id member = s.decode(*this, uid, allowed, key);
    if (!member) s.corrupt("a member of '{}' is not an object", key);
    members.push_back(std::move(member));
  }
  std::free(iter);
  if (s.error) return {};
  return members;
}

}  // namespace fennick
