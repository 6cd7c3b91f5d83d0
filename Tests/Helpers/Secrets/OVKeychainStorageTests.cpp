#include "fennick/Helpers/Secrets/OVKeychainStorage.h"

#include "Helpers/Secrets/KeychainTestSupport.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/Processes/Bundle.h"
#include "fennick/Runtime/Collections/Dictionary.h"
#include "fennick/Runtime/ObjectModel/Log.h"
#include "fennick/Runtime/Values/Number.h"
#include "fennick/Runtime/URLs/URL.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <thread>

namespace fennick {
namespace {

class OVKeychainStorageTest : public keychaintest::KeyringTest {
 protected:
  // Runs a shell command line (with this process's test keyring environment)
  // and returns what it printed.
  static std::string shell(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return out;
    char buffer[256];
    for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    EXPECT_EQ(pclose(pipe), 0) << command;
    return out;
  }
};

TEST_F(OVKeychainStorageTest, AddUpdateAndDeleteOneItemPerKey) {
  auto tokens = store("com.example.tokens");
  LogCapture log;
  EXPECT_EQ(tokens->dataForKey("alice"), nullptr);
  EXPECT_TRUE(tokens->setData_forKey(nullptr, "alice"));  // deleting what is not there

  EXPECT_TRUE(tokens->setData_forKey(Data::dataWithString("first"), "alice"));
  EXPECT_TRUE(tokens->setData_forKey(Data::dataWithString("other"), "bob"));
  EXPECT_TRUE(tokens->setData_forKey(Data::dataWithString("second"), "alice"));
  EXPECT_EQ(tokens->dataForKey("alice")->stringView(), "second");
  EXPECT_EQ(tokens->dataForKey("bob")->stringView(), "other");
  // Another store of the same name sees the same items; another name does not.
  EXPECT_EQ(store("com.example.tokens")->dataForKey("alice")->stringView(), "second");
  EXPECT_EQ(store("com.example.other")->dataForKey("alice"), nullptr);

  EXPECT_TRUE(tokens->setData_forKey(nullptr, "alice"));
  EXPECT_EQ(tokens->dataForKey("alice"), nullptr);
  EXPECT_EQ(tokens->dataForKey("bob")->stringView(), "other");
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(OVKeychainStorageTest, ValuesAreBytesOfAnyLength) {
  auto blobs = store("com.example.blobs");
  const std::vector<std::uint8_t> zeros{0, 'a', 0, 0, 'b', 0};
  std::vector<std::uint8_t> large(1 << 20);
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<std::uint8_t>(i * 2654435761u >> 13);

  ASSERT_TRUE(blobs->setData_forKey(Data::dataWithBytes(zeros), "zeros"));
  ASSERT_TRUE(blobs->setData_forKey(Data::dataWithBytes(large), "large"));
  ASSERT_TRUE(blobs->setData_forKey(Data::data(), "empty"));
  EXPECT_EQ(blobs->dataForKey("zeros")->vector(), zeros);
  EXPECT_EQ(blobs->dataForKey("large")->vector(), large);
  ASSERT_NE(blobs->dataForKey("empty"), nullptr);
  EXPECT_EQ(blobs->dataForKey("empty")->length(), 0u);
}

TEST_F(OVKeychainStorageTest, PropertyListsAndArchivedObjects) {
  auto settings = store("com.example.settings");
  auto value = Dictionary::dictionaryWithStringKeys(
      {{"name", String::string("Ada")}, {"ids", Array::arrayWithObjects({Number::numberWithInteger(7)})}});
  ASSERT_TRUE(settings->setPlistValue_forKey(value, "profile"));
  EXPECT_TRUE(settings->plistValueForKey("profile")->isEqual(value.get()));
  ASSERT_TRUE(settings->setObject_forKey(value, "archived"));
  EXPECT_TRUE(settings->objectForKey("archived")->isEqual(value.get()));

  // A value that is not a property list is logged and deletes the item.
  LogCapture log;
  EXPECT_TRUE(settings->setPlistValue_forKey(settings, "profile"));
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_TRUE(log.lines()[0].starts_with("Plist serialization error: ")) << log.lines()[0];
  EXPECT_EQ(settings->dataForKey("profile"), nullptr);

  // Bytes that are not a property list read back as nil, with their line.
  ASSERT_TRUE(settings->setData_forKey(Data::dataWithString("plain text"), "profile"));
  EXPECT_EQ(settings->plistValueForKey("profile"), nullptr);
  EXPECT_TRUE(log.contains("Plist deserialization error: "));
}

// A value that cannot be written as a property list is logged with its error;
// the secret it holds must not be in that line, whether it sits beside the
// object that cannot be written, is itself what cannot be written, or is in
// the description of what cannot be written.
TEST_F(OVKeychainStorageTest, NoSecretReachesTheLogWhenAValueCannotBeWritten) {
  constexpr std::string_view kSecret = "hunter2-7f3a9c-recognisable";
  const std::string secret(kSecret);
  auto vault = store("com.example.vault");
  const struct {
    const char* what;
    Id value;
  } cases[] = {
      {"beside an object of another class",
       Dictionary::dictionaryWithStringKeys({{"password", String::string(secret)}, {"owner", vault}})},
      {"in a string holding a NUL",
       Dictionary::dictionaryWithStringKeys({{"password", String::string(secret + std::string(1, '\0') + "x")}})},
      {"in an array, in a string holding a NUL",
       Array::arrayWithObjects({String::string(std::string(1, '\0') + secret)})},
      {"in the description of a URL",
       Array::arrayWithObjects({URL::fileURLWithPath("/run/credentials/" + secret)})},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_TRUE(vault->setData_forKey(Data::dataWithString("before"), "login"));
    LogCapture log;
    EXPECT_TRUE(vault->setPlistValue_forKey(c.value, "login"));
    EXPECT_EQ(vault->dataForKey("login"), nullptr);
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].starts_with("Plist serialization error: ")) << lines[0];
    EXPECT_EQ(lines[0].find(kSecret), std::string::npos) << lines[0];
  }
}

TEST_F(OVKeychainStorageTest, InteroperatesWithSecretToolBothWays) {
  auto shared = store("com.example.shared");
  ASSERT_TRUE(shared->setData_forKey(Data::dataWithString("from fennick"), "written-here"));
  EXPECT_EQ(shell("secret-tool lookup service com.example.shared account written-here"), "from fennick");
  EXPECT_EQ(shell("secret-tool search service com.example.shared account written-here 2>&1 | grep '^label'"),
            "label = written-here (com.example.shared)\n");

  shell("printf 'from secret-tool' | secret-tool store --label=x service com.example.shared account written-there");
  ASSERT_NE(shared->dataForKey("written-there"), nullptr);
  EXPECT_EQ(shared->dataForKey("written-there")->stringView(), "from secret-tool");
  EXPECT_TRUE(shared->setData_forKey(nullptr, "written-there"));
  EXPECT_EQ(shell("secret-tool lookup service com.example.shared account written-there || true"), "");
}

TEST_F(OVKeychainStorageTest, ThreadsWritingAndReadingDifferentKeysLoseNothing) {
  auto store = this->store("com.example.threads");
  constexpr int kThreads = 8, kRounds = 6;
  std::vector<std::thread> threads;
  std::atomic<int> mismatches{0};
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int round = 0; round < kRounds; ++round) {
        const std::string key = fmt::format("thread-{}-{}", t, round % 2);
        const std::string value = fmt::format("value {} {}", t, round);
        const auto mine = OVKeychainStorage::storageWithName(store->name());
        if (!mine->setData_forKey(Data::dataWithString(value), key)) ++mismatches;
        const Ref<Data> read = mine->dataForKey(key);
        if (!read || read->stringView() != value) ++mismatches;
      }
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
  for (int t = 0; t < kThreads; ++t)
    EXPECT_EQ(store->dataForKey(fmt::format("thread-{}-1", t))->stringView(), fmt::format("value {} {}", t, kRounds - 1));
}

TEST_F(OVKeychainStorageTest, PlainStoreIsNamedAfterTheMainBundle) {
  Bundle::setMainBundleIdentifier("com.example.KeychainTests");
  EXPECT_EQ(OVKeychainStorage::init()->name()->view(), Bundle::mainBundle()->bundleIdentifier());
  EXPECT_FALSE(OVKeychainStorage::init()->name()->view().empty());
}

}  // namespace
}  // namespace fennick
