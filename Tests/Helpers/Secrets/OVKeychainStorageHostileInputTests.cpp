// Keys, store names and values that come from outside: the keyring takes
// keys and names as C strings that must be UTF-8, so those that are not, or
// that a NUL would cut short, must name no item at all, neither hang the
// caller nor reach the item of the name they would be cut to.
#include "Helpers/Secrets/KeychainTestSupport.h"
#include "fennick/Runtime/ObjectModel/Log.h"

#include <gtest/gtest.h>

#include <string>

namespace fennick {
namespace {

using namespace std::string_literals;

class OVKeychainStorageHostileInputTest : public keychaintest::KeyringTest {};

// The items every hostile case is checked against: a NUL would cut the
// hostile names to these.
constexpr std::string_view kCanaryService = "com.example.hostile";
constexpr std::string_view kCanaryKey = "token";
constexpr std::string_view kCanaryValue = "canary secret";

TEST_F(OVKeychainStorageHostileInputTest, KeysAndNamesThatAreNotCleanUTF8NameNoItem) {
  const std::string service(kCanaryService), key(kCanaryKey);
  const std::string longText = std::string(64 * 1024 - 3, 'k') + "\xe2\x82\xac";  // 64 KiB ending in a 3-byte character
  std::vector<std::uint8_t> large(4 << 20);
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<std::uint8_t>(i * 2654435761u >> 11);
  const struct {
    const char* what;
    std::string service;
    std::string key;
    bool valid;
    std::vector<std::uint8_t> value = {'v', 0, 'w'};
  } cases[] = {
      {"NUL inside the key", service, key + "\0alice"s, false},
      {"another key cut to the same", service, key + "\0bob"s, false},
      {"NUL ending the key", service, key + "\0"s, false},
      {"NUL inside the name", service + "\0evil"s, key, false},
      {"invalid UTF-8 key", service, "\xff\xfe" + key, false},
      {"invalid UTF-8 name", service + "\x80", key, false},
      {"overlong UTF-8 key (a slash in two bytes)", service, "..\xc0\xaf" + key, false},
      {"overlong UTF-8 name (NUL in two bytes)", service + "\xc0\x80", key, false},
      {"UTF-16 surrogate in the key", service, "\xed\xa0\x80", false},
      {"key cut inside a character", service, key + "\xe2\x82", false},
      {"long key cut inside its last character", service, longText.substr(0, longText.size() - 1), false},
      {"empty key", service, "", true},
      {"empty name", "", key, true},
      {"64 KiB key", service, longText, true},
      {"64 KiB name", longText, key, true},
      {"value of 0 bytes", service, "empty-value", true, {}},
      {"value of 4 MiB", service, "large-value", true, large},
  };

  const auto canary = OVKeychainStorage::storageWithName(String::string(kCanaryService));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_TRUE(canary->setData_forKey(Data::dataWithString(kCanaryValue), kCanaryKey));
    const auto hostile = OVKeychainStorage::storageWithName(String::string(c.service));
    const Ref<Data> value = Data::dataWithBytes(c.value);
    LogCapture log;
    if (c.valid) {
      ASSERT_TRUE(hostile->setData_forKey(value, c.key));
      const Ref<Data> read = hostile->dataForKey(c.key);
      ASSERT_NE(read, nullptr);
      EXPECT_TRUE(read->vector() == c.value);
      EXPECT_TRUE(hostile->setData_forKey(nullptr, c.key));
      EXPECT_EQ(hostile->dataForKey(c.key), nullptr);
      EXPECT_TRUE(log.lines().empty());
    } else {
      EXPECT_EQ(hostile->dataForKey(c.key), nullptr);
      EXPECT_FALSE(hostile->setData_forKey(value, c.key));
      EXPECT_EQ(hostile->dataForKey(c.key), nullptr);
      EXPECT_FALSE(hostile->setPlistValue_forKey(String::string("plist"), c.key));
      EXPECT_EQ(hostile->plistValueForKey(c.key), nullptr);
      EXPECT_TRUE(hostile->setData_forKey(nullptr, c.key));  // nothing there to delete
      EXPECT_EQ(log.lines(), std::vector<std::string>(2, "Could not add keychain item"));
    }
    const Ref<Data> canaryValue = canary->dataForKey(kCanaryKey);
    EXPECT_TRUE(canaryValue && canaryValue->stringView() == kCanaryValue);
  }
}

}  // namespace
}  // namespace fennick
