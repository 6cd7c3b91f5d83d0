#include "fennick/Helpers/Coordination/OVValueOrError.h"

#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Coding/KeyedArchiver.h"
#include "fennick/Runtime/Coding/KeyedUnarchiver.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/Values/String.h"

#include <gtest/gtest.h>

namespace fennick {
namespace {

Ref<Error> sampleError(std::int64_t code = 7) {
  return Error::errorWithDomain_code_description("com.example", code, "failed");
}

Ref<OVValueOrError> unarchive(const Ref<Data>& data, Ref<Error>* error = nullptr) {
  return KeyedUnarchiver::unarchivedObjectOfClass<OVValueOrError>(data, error);
}

// An archive of an OVValueOrError whose entry holds `fields` (and the string
// "hello" at UID 3, an error at UID 4).
Ref<Data> archiveWithFields(const std::string& fields) {
  auto uid = [](int n) { return "<dict><key>CF$UID</key><integer>" + std::to_string(n) + "</integer></dict>"; };
  return Data::dataWithString(
      "<plist version=\"1.0\"><dict><key>$archiver</key><string>NSKeyedArchiver</string>"
      "<key>$version</key><integer>100000</integer><key>$top</key><dict><key>root</key>" + uid(1) +
      "</dict><key>$objects</key><array><string>$null</string>"
      "<dict><key>$class</key>" + uid(2) + fields + "</dict>"
      "<dict><key>$classname</key><string>OVValueOrError</string><key>$classes</key>"
      "<array><string>OVValueOrError</string><string>NSObject</string></array></dict>"
      "<string>hello</string>"
      "<dict><key>$class</key>" + uid(5) + "<key>NSCode</key><integer>9</integer><key>NSDomain</key>" + uid(6) +
      "</dict><dict><key>$classname</key><string>NSError</string><key>$classes</key>"
      "<array><string>NSError</string><string>NSObject</string></array></dict>"
      "<string>com.example</string></array></dict></plist>");
}

TEST(OVValueOrError, LiftTransformsOnlyThePresentSide) {
  auto withValue = OVValueOrError::initWithValue(Number::of(20));
  auto doubled = withValue->liftValue([](const Id& v) { return Number::of(Number::castObject(v)->integerValue() * 2); });
  EXPECT_NE(doubled, withValue);
  EXPECT_TRUE(doubled->value()->isEqual(Number::of(40).get()));
  EXPECT_EQ(doubled->error(), nullptr);
  EXPECT_EQ(withValue->liftError([](const Ref<Error>&) { return sampleError(1); }), withValue);

  auto vanished = withValue->liftValue([](const Id&) -> Id { return nullptr; });
  EXPECT_EQ(vanished->value(), nullptr);
  EXPECT_EQ(vanished->error(), nullptr);

  auto withError = OVValueOrError::initWithError(sampleError());
  bool transformed = false;
  EXPECT_EQ(withError->liftValue([&](const Id& v) { transformed = true; return v; }), withError);
  EXPECT_FALSE(transformed);
  auto relabelled = withError->liftError([](const Ref<Error>& e) { return sampleError(e->code() + 1); });
  EXPECT_EQ(relabelled->error()->code(), 8);
  EXPECT_EQ(relabelled->value(), nullptr);

  EXPECT_EQ(withValue->copy(), withValue);
}

TEST(OVValueOrError, ArchivesBothSidesAndDecodesSecurely) {
  Ref<Error> error;
  auto value = OVValueOrError::initWithValue(Array::arrayWithObjects({"a"_s, Number::of(1)}));
  auto decoded = unarchive(KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(value, true, &error), &error);
  ASSERT_TRUE(decoded) << error->description();
  EXPECT_TRUE(decoded->value()->isEqual(value->value().get()));
  EXPECT_EQ(decoded->error(), nullptr);

  auto failure = OVValueOrError::initWithError(sampleError());
  decoded = unarchive(KeyedArchiver::archivedDataWithRootObject_requiringSecureCoding_error(failure, true, &error), &error);
  ASSERT_TRUE(decoded) << error->description();
  EXPECT_TRUE(decoded->error()->isEqual(failure->error().get()));

  // An archive with both keys gives both sides, and both consumers fire.
  auto uid = [](int n) { return "<dict><key>CF$UID</key><integer>" + std::to_string(n) + "</integer></dict>"; };
  decoded = unarchive(archiveWithFields("<key>value</key>" + uid(3) + "<key>error</key>" + uid(4)), &error);
  ASSERT_TRUE(decoded) << error->description();
  std::vector<std::string> calls;
  decoded->onValue([&](const Id& v) { calls.push_back(v->description()); });
  decoded->onError([&](const Ref<Error>& e) { calls.push_back(e->domain()); });
  EXPECT_EQ(calls, (std::vector<std::string>{"hello", "com.example"}));

  // "error" must hold an error record.
  error = nullptr;
  EXPECT_EQ(unarchive(archiveWithFields("<key>error</key>" + uid(3)), &error), nullptr);
  ASSERT_TRUE(error);
  EXPECT_NE(error->description().find("NSString"), std::string::npos) << error->description();
}

}  // namespace
}  // namespace fennick
