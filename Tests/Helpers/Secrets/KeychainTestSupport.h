#pragma once
// What the keychain store's tests share: a fixture on the private test
// keyring, a scope that shortens the keyring calls' deadline, and counts of
// this process's descriptors and threads for leak checks.
#include "Support/TestKeyring.h"
#include "fennick/Helpers/Secrets/OVKeychainStorage.h"
#include "fennick/Platform/System/SecretService.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string_view>

namespace fennick::keychaintest {

class KeyringTest : public ::testing::Test {
 protected:
  void SetUp() override {
    try {
      keyring_ = &testing::TestKeyring::shared();
    } catch (const std::exception& error) {
      GTEST_SKIP() << "no private keyring daemon: " << error.what();
    }
    keyring_->startDaemon();
  }

  static Ref<OVKeychainStorage> store(std::string_view name) {
    return OVKeychainStorage::storageWithName(String::string(name));
  }

  testing::TestKeyring* keyring_ = nullptr;
};

/// Sets the deadline of the keyring calls for its lifetime.
class KeyringDeadline {
 public:
  explicit KeyringDeadline(std::chrono::milliseconds timeout)
      : previous_(platform::SecretService::setDefaultTimeout(timeout)) {}
  ~KeyringDeadline() { platform::SecretService::setDefaultTimeout(previous_); }
  KeyringDeadline(const KeyringDeadline&) = delete;
  KeyringDeadline& operator=(const KeyringDeadline&) = delete;

 private:
  std::chrono::milliseconds previous_;
};

inline std::size_t entriesOf(const char* folder) {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder)) ++count;
  return count;
}

inline std::size_t openDescriptors() { return entriesOf("/proc/self/fd"); }
inline std::size_t threads() { return entriesOf("/proc/self/task"); }

}  // namespace fennick::keychaintest
