#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Values/Date.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/Errors/Error.h"
#include "fennick/Runtime/Coding/KeyedArchiver.h"
#include "fennick/Runtime/Coding/KeyedUnarchiver.h"
#include "fennick/Runtime/Values/Null.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Collections/Set.h"
#include "fennick/Runtime/Values/String.h"
#include "fennick/Runtime/Values/UUID.h"

#include "Runtime/Coding/PythonReader.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <random>
#include <set>

namespace fennick {

// A class of ours that archives itself: a name, a child decoded with a
// restricted class set, and a conditional back reference to its owner.
class ArchiveNode : public Object {
  FENNICK_DECLARE_CLASS(ArchiveNode, Object)

 public:
  static Ref<ArchiveNode> named(std::string name) {
    auto node = make<ArchiveNode>();
    node->name = std::move(name);
    return node;
  }
  void encodeWithCoder(Coder& coder) const override {
    coder.encodeObject_forKey(String::string(name), "name");
    coder.encodeObject_forKey(child, "child");
    coder.encodeConditionalObject_forKey(owner, "owner");
  }
  void initWithCoder(Coder& coder) override {
    if (auto text = String::dynamicCastObject(coder.decodeObjectOfClass_forKey(String::staticClass(), "name")))
      name = text->utf8();
    child = coder.decodeObjectOfClasses_forKey({ArchiveNode::staticClass(), String::staticClass()}, "child");
    owner = coder.decodeObjectOfClass_forKey(ArchiveNode::staticClass(), "owner");
  }

  std::string name;
  Id child;
  Id owner;

 protected:
  ArchiveNode() = default;
};

// Archivable, but not allowed where secure coding is required.
class InsecureNode : public ArchiveNode {
  FENNICK_DECLARE_CLASS(InsecureNode, ArchiveNode)
 protected:
  InsecureNode() = default;
};

// Throws from its coding with the value it holds in the reason, as careless
// code does; the coders must not pass such a reason on.
class SecretHolder : public Object {
  FENNICK_DECLARE_CLASS(SecretHolder, Object)

 public:
  void encodeWithCoder(Coder& coder) const override {
    if (refuseToEncode) throw Exception(NSInvalidArgumentException, "cannot encode " + secret);
    coder.encodeObject_forKey(String::string(secret), "secret");
  }
  void initWithCoder(Coder& coder) override {
    auto text = String::dynamicCastObject(coder.decodeObjectOfClass_forKey(String::staticClass(), "secret"));
    throw Exception(NSInvalidArgumentException, "will not take " + (text ? text->utf8() : std::string()));
  }

  std::string secret;
  bool refuseToEncode = false;

 protected:
  SecretHolder() = default;
};

FENNICK_DEFINE_CLASS(ArchiveNode) { builder.coding(); }
FENNICK_DEFINE_CLASS(SecretHolder) { builder.coding(); }
FENNICK_REGISTER_CLASS(SecretHolder);
FENNICK_DEFINE_CLASS(InsecureNode) { builder.coding(false); }
FENNICK_REGISTER_CLASS(ArchiveNode);
FENNICK_REGISTER_CLASS(InsecureNode);

namespace {

using nlohmann::json;
using testing::runPython;
using testing::TemporaryFile;

json readWithPython(const Ref<Data>& archive) {
  TemporaryFile file;
  file.write(archive);
  int status = 0;
  const std::string output = runPython("keyed_archive_reader.py", "'" + file.path() + "'", &status);
  EXPECT_EQ(status, 0) << output;
  return json::parse(output, nullptr, /*allow_exceptions*/ false);
}

Ref<Data> archive(const Id& root, bool secure = true) {
  Ref<Error> error;
  Ref<Data> data = KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(root, secure, &error);
  EXPECT_TRUE(data) << (error ? error->description() : "");
  return data;
}

Id unarchive(const ClassList& classes, const Ref<Data>& data, Ref<Error>* error = nullptr) {
  return KeyedUnarchiver::unarchivedObjectOfClasses_fromData_error(classes, data, error);
}

const ClassList kPlistClasses{Array::staticClass(), Dictionary::staticClass(), String::staticClass(),
                              Number::staticClass(), Data::staticClass()};

Ref<Data> xml(std::string_view body) {
  return Data::dataWithString(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
      "<key>$archiver</key><string>NSKeyedArchiver</string><key>$version</key><integer>100000</integer>" +
      std::string(body) + "</dict></plist>");
}

TEST(KeyedArchiver, IndependentReaderSeesThePlatformLayout) {
  auto uuid = UUID::UUIDWithString("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  auto list = Array::arrayWithObjects({Number::of(-5), Number::of(UINT64_MAX), Number::of(2.5),
                                       Number::numberWithBool(true), Null::null()});
  auto root = Dictionary::dictionaryWithStringKeys({
      {"list", list},
      {"frozen", Array::arrayWithObjects({"x"_s})->copy()},
      {"bytes", Data::dataWithString("ab")},
      {"when", Date::dateWithTimeIntervalSinceReferenceDate(12.5)},
      {"uuid", uuid},
      {"error", Error::errorWithDomain_code_description("Domain", -7, "broken")},
      {"text", String::string("caf\u00e9 \U0001F600, more than fourteen characters")},
  });
  // Enough objects that references need two bytes.
  auto many = Array::array();
  for (int i = 0; i < 300; ++i) many->addObject(String::format("s{}", i));
  root->setObject_forKey(many, "many");
  const json graph = readWithPython(archive(root));
  ASSERT_TRUE(graph.is_object());
  const json& top = graph["top"]["root"];
  EXPECT_EQ(top["$classes"], json({"NSMutableDictionary", "NSDictionary", "NSObject"}));
  ASSERT_EQ(top["NS.keys"].size(), 8u);

  std::map<std::string, json> entries;
  for (std::size_t i = 0; i < 8; ++i) entries[top["NS.keys"][i]] = top["NS.objects"][i];
  const json& members = entries["list"]["NS.objects"];
  EXPECT_EQ(entries["list"]["$classes"], json({"NSMutableArray", "NSArray", "NSObject"}));
  EXPECT_EQ(members[0], -5);
  EXPECT_EQ(members[1].get<std::uint64_t>(), UINT64_MAX);
  EXPECT_EQ(members[2]["$real"], 2.5);
  EXPECT_EQ(members[3], true);
  EXPECT_EQ(members[4]["$classname"], "NSNull");
  EXPECT_EQ(entries["frozen"]["$classes"], json({"NSArray", "NSObject"}));
  EXPECT_EQ(entries["frozen"]["NS.objects"], json({"x"}));
  EXPECT_EQ(entries["bytes"]["$bytes"], "6162");
  EXPECT_EQ(entries["when"]["$classname"], "NSDate");
  EXPECT_EQ(entries["when"]["NS.time"]["$real"], 12.5);
  EXPECT_EQ(entries["uuid"]["NS.uuidbytes"]["$bytes"], "e621e1f8c36c495a93fc0c247a3e6e5f");
  EXPECT_EQ(entries["error"]["$classname"], "NSError");
  EXPECT_EQ(entries["error"]["NSCode"], -7);
  EXPECT_EQ(entries["error"]["NSDomain"], "Domain");
  EXPECT_EQ(entries["error"]["NSUserInfo"]["NS.objects"], json({"broken"}));
  EXPECT_EQ(entries["text"], "caf\u00e9 \U0001F600, more than fourteen characters");
  ASSERT_EQ(entries["many"]["NS.objects"].size(), 300u);
  EXPECT_EQ(entries["many"]["NS.objects"][299], "s299");

  Ref<Error> error;
  ClassList allowed = kPlistClasses;
  allowed.insert(allowed.end(), {Date::staticClass(), UUID::staticClass(), Error::staticClass(), Null::staticClass()});
  Id decoded = unarchive(allowed, archive(root), &error);
  ASSERT_TRUE(decoded) << error->description();
  EXPECT_TRUE(decoded->isEqual(root));
  auto decodedList = Array::castObject(Dictionary::castObject(decoded)->objectForKey("list"));
  EXPECT_EQ(Number::castObject(decodedList->objectAtIndex(1))->kind(), Number::Kind::Unsigned);
  EXPECT_EQ(Number::castObject(decodedList->objectAtIndex(3))->kind(), Number::Kind::Bool);
  EXPECT_EQ(decodedList->objectAtIndex(4), Null::null());
}

TEST(KeyedArchiver, SharedObjectsAreWrittenOnceAndCyclesComeBack) {
  auto inner = Array::arrayWithObjects({"leaf"_s});
  auto outer = Array::arrayWithObjects({inner, inner});
  inner->addObject(outer);  // outer -> inner -> outer
  const Ref<Data> data = archive(outer);

  const json graph = readWithPython(data);
  const json& root = graph["top"]["root"];
  EXPECT_TRUE(root["NS.objects"][1].contains("$ref"));
  EXPECT_EQ(root["NS.objects"][0]["NS.objects"][1]["$ref"], root["$uid"]);

  auto decoded = Array::castObject(unarchive({Array::staticClass(), String::staticClass()}, data));
  ASSERT_TRUE(decoded);
  ASSERT_EQ(decoded->count(), 2u);
  EXPECT_EQ(decoded->objectAtIndex(0), decoded->objectAtIndex(1));
  auto decodedInner = Array::castObject(decoded->objectAtIndex(0));
  EXPECT_EQ(decodedInner->objectAtIndex(1), decoded);
  inner->removeLastObject();  // let the originals go
  decodedInner->removeLastObject();
}

TEST(KeyedArchiver, ConditionalObjectsNeedAnUnconditionalReference) {
  auto parent = ArchiveNode::named("parent");
  auto child = ArchiveNode::named("child");
  parent->child = child;
  child->owner = parent;  // written: the parent is the root
  auto stray = ArchiveNode::named("stray");
  auto lonely = ArchiveNode::named("lonely");
  lonely->owner = stray;  // never written unconditionally
  parent->owner = lonely;  // conditional too: lonely is not written either

  auto decoded = std::static_pointer_cast<ArchiveNode>(unarchive({ArchiveNode::staticClass()}, archive(parent)));
  ASSERT_TRUE(decoded);
  auto decodedChild = std::static_pointer_cast<ArchiveNode>(decoded->child);
  ASSERT_TRUE(decodedChild);
  EXPECT_EQ(decodedChild->name, "child");
  EXPECT_EQ(decodedChild->owner, decoded);
  EXPECT_EQ(decoded->owner, nullptr);
  child->owner = nullptr;
  decodedChild->owner = nullptr;
}

TEST(KeyedArchiver, SecureDecodingRefusesClassesOutsideTheAllowedSet) {
  auto expectRefused = [](const ClassList& classes, const Ref<Data>& data, const char* culprit) {
    Ref<Error> error;
    EXPECT_EQ(unarchive(classes, data, &error), nullptr);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
    EXPECT_EQ(error->code(), NSCoderReadCorruptError);
    EXPECT_NE(error->description().find(culprit), std::string::npos) << error->description();
  };
  // The root, a collection member, a value nested inside an object.
  expectRefused({String::staticClass()}, archive(Array::arrayWithObjects({"a"_s})), "NSArray");
  expectRefused({Array::staticClass(), String::staticClass()},
                archive(Array::arrayWithObjects({"a"_s, Date::date()})), "NSDate");
  auto node = ArchiveNode::named("n");
  node->child = Array::array();
  expectRefused({ArchiveNode::staticClass()}, archive(node), "NSArray");

  // Classes without secure coding: refused when archiving securely, and when
  // decoding even if listed.
  auto insecure = make<InsecureNode>();
  Ref<Error> error;
  EXPECT_EQ(KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(insecure, true, &error), nullptr);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), NSCoderInvalidValueError);
  expectRefused({InsecureNode::staticClass()}, archive(insecure, false), "secure coding");

  // Objects that do not archive at all.
  error = nullptr;
  EXPECT_EQ(KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(
                Array::arrayWithObjects({make<Object>()}), false, &error),
            nullptr);
  ASSERT_TRUE(error);
  EXPECT_NE(error->description().find("Object does not support coding"), std::string::npos);

  // Without secure coding the same archive decodes.
  auto unarchiver = KeyedUnarchiver::initForReadingFromData_error(archive(insecure, false), nullptr);
  ASSERT_TRUE(unarchiver);
  unarchiver->setRequiresSecureCoding(false);
  EXPECT_TRUE(InsecureNode::dynamicCastObject(unarchiver->decodeObjectForKey("root")));
}

TEST(KeyedArchiver, MalformedArchivesFailWithAnError) {
  const std::string cls =
      "<dict><key>$classname</key><string>NSArray</string><key>$classes</key>"
      "<array><string>NSArray</string></array></dict>";
  auto uid = [](int n) { return "<dict><key>CF$UID</key><integer>" + std::to_string(n) + "</integer></dict>"; };
  const std::string root = "<key>$top</key><dict><key>root</key>" + uid(1) + "</dict>";
  auto objects = [&](const std::string& entries) {
    return root + "<key>$objects</key><array><string>$null</string>" + entries + "</array>";
  };
  auto arrayOf = [&](const std::string& members, int classUID = 2) {
    return "<dict><key>$class</key>" + uid(classUID) + "<key>NS.objects</key><array>" + members + "</array></dict>";
  };
  const std::pair<const char*, Ref<Data>> cases[] = {
      {"not a property list", Data::dataWithString("definitely not an archive")},
      {"truncated binary", Data::dataWithString("bplist00\xd1\x01\x02")},
      {"wrong $archiver", Data::dataWithString("<plist><dict><key>$archiver</key><string>Other</string></dict></plist>")},
      {"missing $top", xml("<key>$objects</key><array><string>$null</string></array>")},
      {"missing root", xml("<key>$top</key><dict/><key>$objects</key><array><string>$null</string></array>")},
      {"root out of range", xml(objects(""))},
      {"member out of range", xml(objects(arrayOf(uid(9)) + cls))},
      {"member is $null", xml(objects(arrayOf(uid(0)) + cls))},
      {"member is not a reference", xml(objects(arrayOf("<string>inline</string>") + cls))},
      {"NS.objects is a string", xml(objects("<dict><key>$class</key>" + uid(2) +
                                             "<key>NS.objects</key><string>x</string></dict>" + cls))},
      {"class refers to itself", xml(objects(arrayOf("", 1)))},
      {"class entry is a string", xml(objects(arrayOf("", 2) + "<string>NSArray</string>"))},
      {"unknown class", xml(objects("<dict><key>$class</key>" + uid(2) + "</dict>" +
                                    "<dict><key>$classname</key><string>NoSuchClass</string></dict>"))},
      {"entry is an array", xml(objects("<array/>"))},
      {"root is a bare UID entry", xml(objects(uid(1)))},
  };
  for (const auto& [name, data] : cases) {
    Ref<Error> error;
    EXPECT_EQ(unarchive(kPlistClasses, data, &error), nullptr) << name;
    ASSERT_TRUE(error) << name;
    EXPECT_EQ(error->domain(), NSCocoaErrorDomain) << name;
    EXPECT_TRUE(error->code() == NSCoderReadCorruptError || error->code() == NSCoderValueNotFoundError) << name;
  }

  // Nesting beyond the limit is refused instead of exhausting the stack.
  std::string deep;
  const int levels = static_cast<int>(KeyedUnarchiver::maxDepth) + 10;
  for (int i = 1; i <= levels; ++i) deep += arrayOf(i < levels ? uid(i + 2) : "", 2) + (i == 1 ? cls : "");
  Ref<Error> error;
  EXPECT_EQ(unarchive(kPlistClasses, xml(objects(deep)), &error), nullptr);
  ASSERT_TRUE(error);
  EXPECT_NE(error->description().find("nested"), std::string::npos) << error->description();
}

TEST(KeyedArchiver, ErrorsNeverQuoteValuesOfTheGraphOrTheArchive) {
  const std::string secret = "hunter2-correct-horse";
  auto holder = make<SecretHolder>();
  holder->secret = secret;
  std::vector<Ref<Error>> errors(3);
  holder->refuseToEncode = true;
  EXPECT_FALSE(KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(holder, true, &errors[0]));
  holder->refuseToEncode = false;
  EXPECT_FALSE(unarchive({SecretHolder::staticClass()}, archive(holder), &errors[1]));
  // A class the archive names by a text of its own.
  auto uid = [](int n) { return "<dict><key>CF$UID</key><integer>" + std::to_string(n) + "</integer></dict>"; };
  EXPECT_FALSE(unarchive(kPlistClasses,
                         xml("<key>$top</key><dict><key>root</key>" + uid(1) +
                             "</dict><key>$objects</key><array><string>$null</string><dict><key>$class</key>" +
                             uid(2) + "</dict><dict><key>$classname</key><string>" + secret +
                             "</string></dict></array>"),
                         &errors[2]));
  for (const Ref<Error>& error : errors) {
    ASSERT_TRUE(error);
    EXPECT_EQ(error->description().find(secret), std::string::npos) << error->description();
  }
  for (const Ref<Error>& error : {errors[0], errors[1]})
    EXPECT_NE(error->description().find(NSInvalidArgumentException), std::string::npos) << error->description();
  EXPECT_NE(errors[1]->description().find("SecretHolder"), std::string::npos) << errors[1]->description();
}

// Damage can make a decoded collection hold itself; emptying every
// collection of the graph lets it go.
void breakCycles(const Id& object) {
  std::vector<Id> pending{object};
  std::set<const Object*> seen;
  while (!pending.empty()) {
    Id next = pending.back();
    pending.pop_back();
    if (!next || !seen.insert(next.get()).second) continue;
    if (auto array = Array::dynamicCastObject(next); array && array->isMutable()) {
      for (const Id& member : *array) pending.push_back(member);
      array->removeAllObjects();
    } else if (auto dictionary = Dictionary::dynamicCastObject(next); dictionary && dictionary->isMutable()) {
      for (const auto& entry : *dictionary) pending.insert(pending.end(), {entry.key, entry.value});
      dictionary->removeAllObjects();
    } else if (auto error = Error::dynamicCastObject(next)) {
      for (const auto& entry : *error->userInfo()) pending.insert(pending.end(), {entry.key, entry.value});
    }
  }
}

TEST(KeyedArchiver, DamagedArchivesNeverCrash) {
  auto graph = Dictionary::dictionaryWithStringKeys(
      {{"list", Array::arrayWithObjects({"a"_s, Number::of(-1), Date::date(), Data::dataWithString("xyz")})},
       {"error", Error::errorWithDomain_code_description("D", 1, "d")}});
  const std::vector<std::uint8_t> original = archive(graph)->vector();
  const ClassList allowed{Dictionary::staticClass(), Array::staticClass(), String::staticClass(),
                          Number::staticClass(),     Date::staticClass(),  Data::staticClass(),
                          Error::staticClass()};
  std::mt19937 random(1234);
  int refused = 0;
  for (int round = 0; round < 3000; ++round) {
    std::vector<std::uint8_t> bytes = original;
    const int flips = 1 + static_cast<int>(random() % 4);
    for (int i = 0; i < flips; ++i) bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
    if (round % 7 == 0) bytes.resize(random() % bytes.size());
    Ref<Error> error;
    Id decoded = unarchive(allowed, Data::dataWithBytes(std::move(bytes)), &error);
    EXPECT_TRUE(decoded || error);
    refused += decoded ? 0 : 1;
    breakCycles(decoded);
  }
  EXPECT_GT(refused, 0);
}

TEST(KeyedArchiver, DecodesArchivesWrittenByAnotherImplementation) {
  TemporaryFile file;
  int status = 0;
  runPython("keyed_archive_reader.py", "--write-sample '" + file.path() + "'", &status);
  ASSERT_EQ(status, 0);
  Ref<Error> error;
  auto list = Array::castObject(unarchive(
      {Array::staticClass(), String::staticClass(), Date::staticClass(), Error::staticClass(), Number::staticClass()},
      file.read(), &error));
  ASSERT_TRUE(list) << error->description();
  ASSERT_EQ(list->count(), 4u);
  EXPECT_TRUE(list->objectAtIndex(0)->isEqual("mutable text"_s));
  EXPECT_EQ(Date::castObject(list->objectAtIndex(1))->timeIntervalSinceReferenceDate(), 86400.5);
  auto decodedError = Error::castObject(list->objectAtIndex(2));
  EXPECT_EQ(decodedError->code(), -42);
  EXPECT_EQ(decodedError->domain(), "com.example.domain");
  EXPECT_EQ(decodedError->localizedDescription(), "Something failed");
  EXPECT_EQ(Number::castObject(list->objectAtIndex(3))->unsignedIntegerValue(), UINT64_MAX);
}

}  // namespace
}  // namespace fennick

namespace fennick {
namespace {

TEST(KeyedArchiverMutability, CollectionsComeBackInTheFormTheyWereArchivedIn) {
  auto frozen = Array::arrayWithObjects({"a"_s});
  frozen->makeImmutable();
  auto container = Array::arrayWithObjects({frozen, Array::arrayWithObjects({"b"_s}),
                                            CountedSet::countedSetWithArray(Array::arrayWithObjects({"c"_s}))});
  Ref<Error> error;
  auto data = KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(container, true, &error);
  ASSERT_TRUE(data) << error->description();
  auto decoded = Array::dynamicCastObject(KeyedUnarchiver::unarchivedObjectOfClasses_fromData_error(
      {Array::staticClass(), String::staticClass(), CountedSet::staticClass()}, data, &error));
  ASSERT_TRUE(decoded) << error->description();
  EXPECT_TRUE(decoded->isMutable());
  EXPECT_FALSE(Array::castObject(decoded->objectAtIndex(0))->isMutable());
  EXPECT_TRUE(Array::castObject(decoded->objectAtIndex(1))->isMutable());
  EXPECT_TRUE(CountedSet::castObject(decoded->objectAtIndex(2))->isMutable());
}

}  // namespace
}  // namespace fennick
