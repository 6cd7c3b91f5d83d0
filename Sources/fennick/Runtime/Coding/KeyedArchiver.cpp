#include "fennick/Runtime/Coding/KeyedArchiver.h"

#include "fennick/Runtime/Coding/BinaryPropertyListWriter.h"
#include "fennick/Runtime/Collections/Collection.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

#include <bit>
#include <unordered_map>

namespace fennick {

namespace detail {

Ref<Error> coderError(std::int64_t code, std::string debugDescription) {
  const char* description =
      code == NSCoderInvalidValueError
          ? "The data couldn\u2019t be written because it isn\u2019t in the correct format."
          : "The data couldn\u2019t be read because it isn\u2019t in the correct format.";
  return Error::errorWithDomain_code_userInfo(
      NSCocoaErrorDomain, code,
      Dictionary::dictionaryWithStringKeys(
          {{NSLocalizedDescriptionKey, String::string(description)},
           {NSDebugDescriptionErrorKey, String::string(std::move(debugDescription))}}));
}

}  // namespace detail

namespace {

using Writer = detail::BinaryPropertyListWriter;
using Index = Writer::Index;
constexpr std::uint32_t kNoIndex = UINT32_MAX;

// Equal strings share one entry; String caches its hash.
struct StringKeyHash {
  std::size_t operator()(const String* s) const noexcept { return s->hash(); }
};
struct StringKeyEqual {
  bool operator()(const String* a, const String* b) const noexcept { return a->view() == b->view(); }
};

// Numbers share an entry only with numbers of the same kind and bits, so that
// 1, 1.0 and true (equal as objects) keep their kinds.
struct NumberKey {
  Number::Kind kind;
  std::uint64_t bits;
  bool operator==(const NumberKey&) const = default;
};
struct NumberKeyHash {
  std::size_t operator()(const NumberKey& k) const noexcept {
    return std::hash<std::uint64_t>()(k.bits * 4 + static_cast<std::uint64_t>(k.kind));
  }
};

NumberKey numberKey(const Number& number) {
  switch (number.kind()) {
    case Number::Kind::Double: return {number.kind(), std::bit_cast<std::uint64_t>(number.doubleValue())};
    case Number::Kind::Unsigned: return {number.kind(), number.unsignedIntegerValue()};
    default: return {number.kind(), static_cast<std::uint64_t>(number.integerValue())};
  }
}

bool hasMutableForm(const std::string& archiveName) {
  return archiveName == "NSArray" || archiveName == "NSDictionary" || archiveName == "NSSet";
}

}  // namespace

struct KeyedArchiver::State {
  explicit State(bool secure) : secure(secure) { objects.push_back(writer.addString("$null")); }

  Writer writer;
  bool secure;
  Ref<Error> error;
  bool finished = false;
  Ref<Data> data;

  // UID -> the writer's index of the "$objects" entry.
  std::vector<Index> objects;
  // Every object given a UID stays alive until the end, so that addresses
  // are not reused by temporaries made during encoding.
  std::vector<Id> retained;
  std::unordered_map<const Object*, std::uint32_t> uidByIdentity;
  std::unordered_map<const String*, std::uint32_t, StringKeyHash, StringKeyEqual> uidByString;
  std::unordered_map<NumberKey, std::uint32_t, NumberKeyHash> uidByNumber;
  std::unordered_map<const Class*, std::uint32_t> classUID, mutableClassUID;
  detail::StringMap<Index> keyIndex;
  std::vector<Index> uidNodes;  // writer index of the UID object with value n

  struct Conditional {
    Index uidNode;
    const Object* object;
  };
  std::vector<Conditional> conditionals;

  // Fields of the objects being encoded, innermost last; frameStarts marks
  // where each object's fields begin (the first frame is "$top").
  std::vector<Index> fieldKeys, fieldValues;
  std::vector<std::size_t> frameStarts{0};

  void fail(std::string why) {
    if (!error) error = detail::coderError(NSCoderInvalidValueError, std::move(why));
  }

  Index key(std::string_view text) {
    if (auto it = keyIndex.find(text); it != keyIndex.end()) return it->second;
    const Index index = writer.addString(text);
    keyIndex.emplace(std::string(text), index);
    return index;
  }

  Index uidNode(std::uint32_t uid) {
    if (uid >= uidNodes.size()) uidNodes.resize(std::max<std::size_t>(uid + 1, uidNodes.size() * 2), kNoIndex);
    Index& node = uidNodes[uid];
    if (node == kNoIndex) node = writer.addUID(uid);
    return node;
  }

  void field(std::string_view name, Index value) {
    // A key is stored as a dictionary key, which no reader takes with a NUL.
    if (name.find('\0') != std::string_view::npos) return fail("a key holds a NUL character");
    fieldKeys.push_back(key(name));
    fieldValues.push_back(value);
  }

  std::uint32_t newUID(Index entry) {
    objects.push_back(entry);
    return static_cast<std::uint32_t>(objects.size() - 1);
  }

  std::uint32_t uidOfString(const Id& object, const String& string) {
    auto [it, inserted] = uidByString.try_emplace(&string, 0);
    if (inserted) {
      it->second = newUID(writer.addString(string.view()));
      retained.push_back(object);
    }
    return it->second;
  }

  std::uint32_t uidOfNumber(const Id& object, const Number& number) {
    const NumberKey k = numberKey(number);
    auto [it, inserted] = uidByNumber.try_emplace(k, 0);
    if (inserted) {
      Index entry;
      switch (number.kind()) {
        case Number::Kind::Bool: entry = writer.addBoolean(number.boolValue()); break;
        case Number::Kind::Double: entry = writer.addReal(number.doubleValue()); break;
        case Number::Kind::Unsigned: entry = writer.addUnsignedInteger(number.unsignedIntegerValue()); break;
        default: entry = writer.addInteger(number.integerValue()); break;
      }
      it->second = newUID(entry);
      retained.push_back(object);
    }
    return it->second;
  }

  // The UID an object already has, or 0.
  std::uint32_t existingUID(const Object* object) const {
    if (auto* string = dynamic_cast<const String*>(object)) {
      auto it = uidByString.find(string);
      return it == uidByString.end() ? 0 : it->second;
    }
    if (auto* number = dynamic_cast<const Number*>(object)) {
      auto it = uidByNumber.find(numberKey(*number));
      return it == uidByNumber.end() ? 0 : it->second;
    }
    auto it = uidByIdentity.find(object);
    return it == uidByIdentity.end() ? 0 : it->second;
  }

  std::uint32_t classEntry(const Object& object) {
    const Class* cls = object.objectClass();
    auto* collection = dynamic_cast<const Collection*>(&object);
    const bool isMutable = collection && collection->isMutable();
    auto& cache = isMutable ? mutableClassUID : classUID;
    if (auto it = cache.find(cls); it != cache.end()) return it->second;

    // The chain by archive names; internal classes without coding (the
    // collections' common base) are left out, the root is "NSObject".
    std::vector<Index> names;
    for (const Class* c = cls; c; c = c->superclass()) {
      if (c->superclass() && !c->supportsCoding()) continue;
      if (isMutable && hasMutableForm(c->archiveName()))
        names.push_back(key("NSMutable" + c->archiveName().substr(2)));
      names.push_back(key(c->archiveName()));
    }
    const Index chain = writer.addArray(names);
    const Index keys[] = {key("$classname"), key("$classes")};
    const Index values[] = {names.front(), chain};
    const std::uint32_t uid = newUID(writer.addDictionary(keys, values));
    cache.emplace(cls, uid);
    return uid;
  }

  // A new UID for an object that encodes itself, or 0 when it cannot.
  std::uint32_t uidOfCodedObject(const Id& object) {
    const Class* cls = object->objectClass();
    if (!cls->supportsCoding()) {
      fail(fmt::format("{} does not support coding; it cannot be archived", cls->name()));
      return 0;
    }
    if (secure && !cls->supportsSecureCoding()) {
      fail(fmt::format("This archive requires secure coding, which {} does not support", cls->name()));
      return 0;
    }
    if (frameStarts.size() > maxDepth) {
      fail(fmt::format("Objects nested more than {} levels deep", maxDepth));
      return 0;
    }
    const Index slot = writer.reserve();
    const std::uint32_t uid = newUID(slot);
    uidByIdentity.emplace(object.get(), uid);
    retained.push_back(object);
    return uid;
  }

  // Writes an object's entry (once) and answers its UID; 0 for nil and after
  // a failure.
  std::uint32_t encode(KeyedArchiver& archiver, const Id& object) {
    State& s = *this;
    if (!object || s.error) return 0;
    const Object& target = *object;
    if (auto* string = dynamic_cast<const String*>(&target)) return s.uidOfString(object, *string);
    if (auto* number = dynamic_cast<const Number*>(&target)) return s.uidOfNumber(object, *number);
    if (auto* data = dynamic_cast<const Data*>(&target)) {
      auto [it, inserted] = s.uidByIdentity.try_emplace(data, 0);
      if (inserted) {
        it->second = s.newUID(s.writer.addData(data->span()));
        s.retained.push_back(object);
      }
      return it->second;
    }

    if (auto it = s.uidByIdentity.find(&target); it != s.uidByIdentity.end()) return it->second;
    const std::uint32_t uid = s.uidOfCodedObject(object);
    if (!uid) return 0;

    s.frameStarts.push_back(s.fieldKeys.size());
    target.encodeWithCoder(archiver);
    if (s.error) return 0;
    s.field("$class", s.uidNode(s.classEntry(target)));
    const std::size_t start = s.frameStarts.back();
    s.frameStarts.pop_back();
    const std::size_t count = s.fieldKeys.size() - start;
    s.writer.setDictionary(s.objects[uid], {s.fieldKeys.data() + start, count},
                           {s.fieldValues.data() + start, count});
    s.fieldKeys.resize(start);
    s.fieldValues.resize(start);
    return uid;
  }
};

KeyedArchiver::KeyedArchiver(bool requiresSecureCoding)
    : state_(std::make_unique<State>(requiresSecureCoding)) {}

KeyedArchiver::~KeyedArchiver() = default;

bool KeyedArchiver::requiresSecureCoding() const { return state_->secure; }
const Ref<Error>& KeyedArchiver::error() const { return state_->error; }

void KeyedArchiver::failWithError(const Ref<Error>& error) {
  if (!state_->error) state_->error = error;
}

void KeyedArchiver::encodeObject_forKey(const Id& object, std::string_view key) {
  State& s = *state_;
  if (s.error || s.finished) return;
  const std::uint32_t uid = s.encode(*this, object);
  if (!s.error) s.field(key, s.uidNode(uid));
}

void KeyedArchiver::encodeConditionalObject_forKey(const Id& object, std::string_view key) {
  State& s = *state_;
  if (s.error || s.finished) return;
  if (!object) return s.field(key, s.uidNode(0));
  if (const std::uint32_t uid = s.existingUID(object.get())) return s.field(key, s.uidNode(uid));
  // Resolved when archiving ends: the object's UID if something encoded it
  // unconditionally by then, otherwise "$null".
  const Index node = s.writer.addUID(0);
  s.conditionals.push_back({node, object.get()});
  s.retained.push_back(object);
  s.field(key, node);
}

void KeyedArchiver::encodeBool_forKey(bool value, std::string_view key) {
  if (!state_->error && !state_->finished) state_->field(key, state_->writer.addBoolean(value));
}

void KeyedArchiver::encodeInt64_forKey(std::int64_t value, std::string_view key) {
  if (!state_->error && !state_->finished) state_->field(key, state_->writer.addInteger(value));
}

void KeyedArchiver::encodeDouble_forKey(double value, std::string_view key) {
  if (!state_->error && !state_->finished) state_->field(key, state_->writer.addReal(value));
}

void KeyedArchiver::encodeBytes_forKey(std::span<const std::uint8_t> bytes, std::string_view key) {
  if (!state_->error && !state_->finished) state_->field(key, state_->writer.addData(bytes));
}

void KeyedArchiver::encodeArrayOfObjects_forKey(const std::vector<Id>& objects, std::string_view key) {
  State& s = *state_;
  if (s.error || s.finished) return;
  std::vector<Index> members;
  members.reserve(objects.size());
  for (const Id& object : objects) {
    const std::uint32_t uid = s.encode(*this, object);
    if (s.error) return;
    members.push_back(s.uidNode(uid));
  }
  s.field(key, s.writer.addArray(members));
}

Ref<Data> KeyedArchiver::encodedData() {
  State& s = *state_;
  if (s.finished || s.error) return s.error ? nullptr : s.data;
  s.finished = true;
  for (const State::Conditional& conditional : s.conditionals)
    s.writer.setUID(conditional.uidNode, s.existingUID(conditional.object));

  const Index top = s.writer.addDictionary(s.fieldKeys, s.fieldValues);
  const Index objects = s.writer.addArray(s.objects);
  const Index keys[] = {s.key("$version"), s.key("$archiver"), s.key("$top"), s.key("$objects")};
  const Index values[] = {s.writer.addInteger(100000), s.writer.addString("NSKeyedArchiver"), top, objects};
  const Index root = s.writer.addDictionary(keys, values);
  s.data = Data::dataWithBytes(s.writer.finish(root));
  s.retained.clear();
  return s.data;
}

Ref<Data> KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(const Id& root,
                                                                              bool requiresSecureCoding,
                                                                              Ref<Error>* error) {
  KeyedArchiver archiver(requiresSecureCoding);
  try {
    archiver.encodeObject_forKey(root, "root");
  } catch (const Exception& exception) {
    // The exception's reason may quote the value being encoded.
    archiver.failWithError(
        detail::coderError(NSCoderInvalidValueError, fmt::format("an encodeWithCoder failed with {}", exception.name())));
  }
  Ref<Data> data = archiver.encodedData();
  if (!data && error) *error = archiver.error();
  return data;
}

}  // namespace fennick
