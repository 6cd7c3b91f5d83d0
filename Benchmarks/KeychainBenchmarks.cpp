// The keychain store against libsecret's synchronous calls used directly, both
// on a private gnome-keyring daemon: 1,000 pairs of writing a 64-byte value
// and reading it back. The store looks an item up before each write, one more
// round trip than the direct calls make, so 0.67 is the best it can reach.
#include "Comparison.h"

#include "../Tests/Support/TestKeyring.h"
#include "fennick/Helpers/Secrets/OVKeychainStorage.h"

#include <fmt/format.h>

namespace fennick::bench {
namespace {

constexpr int kPairs = 1000;
constexpr int kKeys = 10;

bool keyringStarted(benchmark::State& state) {
  try {
    testing::TestKeyring::shared();
    return true;
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
    return false;
  }
}

std::string valueOf(int pair) { return fmt::format("{:064}", pair); }

void keychainStorageRoundTrips(benchmark::State& state) {
  if (!keyringStarted(state)) return;
  const auto store = OVKeychainStorage::storageWithName(String::string("com.example.bench.fennick"));
  for (auto _ : state) {
    for (int pair = 0; pair < kPairs; ++pair) {
      const std::string key = fmt::format("key-{}", pair % kKeys);
      const std::string value = valueOf(pair);
      const bool stored = store->setData_forKey(Data::dataWithString(value), key);
      const Ref<Data> read = store->dataForKey(key);
      if (!stored || !read || read->stringView() != value) state.SkipWithError("the store lost a value");
    }
  }
}

const SecretSchema kSchema = {"org.freedesktop.Secret.Generic",
                              SECRET_SCHEMA_DONT_MATCH_NAME,
                              {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                               {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
                              0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};

void libsecretRoundTrips(benchmark::State& state) {
  if (!keyringStarted(state)) return;
  const char* service = "com.example.bench.libsecret";
  for (auto _ : state) {
    for (int pair = 0; pair < kPairs; ++pair) {
      const std::string key = fmt::format("key-{}", pair % kKeys);
      const std::string value = valueOf(pair);
      SecretValue* secret = secret_value_new(value.data(), static_cast<gssize>(value.size()), "application/octet-stream");
      const gboolean stored = secret_password_store_binary_sync(&kSchema, SECRET_COLLECTION_DEFAULT, key.c_str(), secret,
                                                                nullptr, nullptr, "service", service, "account",
                                                                key.c_str(), nullptr);
      secret_value_unref(secret);
      SecretValue* read = secret_password_lookup_binary_sync(&kSchema, nullptr, nullptr, "service", service, "account",
                                                             key.c_str(), nullptr);
      gsize length = 0;
      if (!stored || !read || std::string_view(secret_value_get(read, &length), value.size()) != value)
        state.SkipWithError("libsecret lost a value");
      if (read) secret_value_unref(read);
    }
  }
}

FENNICK_COMPARISON(keychain_roundtrip_vs_secret_tool_api, keychainStorageRoundTrips, libsecretRoundTrips,
                   .goal = 0.6, .iterations = 1);

}  // namespace
}  // namespace fennick::bench
