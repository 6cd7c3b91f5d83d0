#pragma once
// A fresh headless backend per test, installed for the whole process while
// the test runs, and helpers to build recoverable errors.
#include <gtest/gtest.h>

#include <initializer_list>
#include <mutex>
#include <vector>

#include "fennick/AppKitExtensions/HeadlessBackend.h"
#include "fennick/AppKitExtensions/InterfaceBackend.h"
#include "fennick/Runtime/Array.h"
#include "fennick/Runtime/Error.h"
#include "fennick/Runtime/String.h"

namespace fennick::testing {

class HeadlessTest : public ::testing::Test {
 protected:
  void SetUp() override { setInterfaceBackend(backend); }
  void TearDown() override { setInterfaceBackend(nullptr); }

  const std::shared_ptr<HeadlessBackend> backend = HeadlessBackend::create();
};

inline Ref<Array> strings(std::initializer_list<const char*> texts) {
  auto array = Array::array();
  for (const char* text : texts) array->addObject(String::string(text));
  return array;
}

/// A recoverable error that records the options its recovery was given and
/// answers with `followUp`. Thread-safe.
struct RecoverableError {
  explicit RecoverableError(const Ref<Dictionary>& userInfo = nullptr,
                            std::initializer_list<const char*> options = {"Retry", "Skip", "Cancel"})
      : error(Error::errorWithDomain_code_description_recoverySuggestion_recoveryOptions_userInfo_recoveryAttemptBlock(
            "com.example.test", 42, "The disk is full.", "Free some space and try again.", strings(options), userInfo,
            [this](const Ref<Error>&, std::uint64_t option) {
              std::lock_guard lock(mutex);
              recoveredOptions.push_back(option);
              return followUp;
            })) {}

  std::vector<std::uint64_t> options() {
    std::lock_guard lock(mutex);
    return recoveredOptions;
  }

  std::mutex mutex;
  std::vector<std::uint64_t> recoveredOptions;
  Ref<Error> followUp;
  Ref<Error> error;
};

}  // namespace fennick::testing
