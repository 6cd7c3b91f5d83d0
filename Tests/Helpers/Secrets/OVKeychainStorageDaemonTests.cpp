// The keychain store when the keyring is not there or stops answering: no
// bus, a bus without a keyring daemon, a daemon that is stopped in its tracks,
// killed in the middle of a call, restarted, and a process out of
// descriptors. Every operation must give its failure answer by its deadline,
// work again once the daemon is back, and leave no descriptor or thread
// behind.
#include "Helpers/Secrets/KeychainTestSupport.h"
#include "Support/ChildTestRun.h"
#include "fennick/Runtime/ObjectModel/Log.h"
#include "fennick/Runtime/Values/Number.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <fcntl.h>
#include <unistd.h>

#include <future>

namespace fennick {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class OVKeychainStorageDaemonTest : public keychaintest::KeyringTest {};

// Calls every public operation of a store whose keyring cannot answer and
// checks the failure answer of each, the lines logged, and that each answered
// by the deadline.
void expectEveryOperationFails(const Ref<OVKeychainStorage>& store, std::chrono::milliseconds deadline) {
  const Ref<Data> bytes = Data::dataWithString("value");
  const Id plist = Number::numberWithInteger(42);
  const struct {
    const char* what;
    std::function<bool()> answersAsExpected;
    bool logsAddFailure;
  } operations[] = {
      {"dataForKey", [&] { return store->dataForKey("key") == nullptr; }, false},
      {"plistValueForKey", [&] { return store->plistValueForKey("key") == nullptr; }, false},
      {"objectForKey", [&] { return store->objectForKey("key") == nullptr; }, false},
      {"setData_forKey", [&] { return !store->setData_forKey(bytes, "key"); }, true},
      {"setPlistValue_forKey", [&] { return !store->setPlistValue_forKey(plist, "key"); }, true},
      {"setObject_forKey", [&] { return !store->setObject_forKey(plist, "key"); }, true},
      {"setData_forKey with nil", [&] { return store->setData_forKey(nullptr, "key"); }, false},
      {"setPlistValue_forKey with nil", [&] { return store->setPlistValue_forKey(nullptr, "key"); }, false},
  };
  for (const auto& operation : operations) {
    SCOPED_TRACE(operation.what);
    LogCapture log;
    const auto started = Clock::now();
    EXPECT_TRUE(operation.answersAsExpected());
    // The deadline, and time for a loaded machine to wake the caller.
    EXPECT_LT(Clock::now() - started, deadline + 5s);
    EXPECT_EQ(log.lines(), operation.logsAddFailure ? std::vector<std::string>{"Could not add keychain item"}
                                                    : std::vector<std::string>{});
  }
}

// GLib's pool of worker threads for its asynchronous set-up work (connecting
// to a bus) grows and shrinks on its own schedule, by a thread or two, and
// may still be closing the socket of a failed attempt after the call that
// made it answered; a sanitizer's runtime opens files of its own now and then.
constexpr std::size_t kPoolThreads = 2;
constexpr std::size_t kPassingDescriptors = 2;

// Later rounds of failures must find the descriptors and threads that the
// first one left: the call thread and the bus connection are made once, and a
// thread or a descriptor per call would show as dozens here.
void expectFailuresLeakNothing(const Ref<OVKeychainStorage>& store, std::chrono::milliseconds deadline) {
  expectEveryOperationFails(store, deadline);
  const std::size_t descriptors = keychaintest::openDescriptors(), threads = keychaintest::threads();
  for (int round = 0; round < 3; ++round) expectEveryOperationFails(store, deadline);
  EXPECT_LE(keychaintest::openDescriptors(), descriptors + kPassingDescriptors);
  EXPECT_LE(keychaintest::threads(), threads + kPoolThreads);
}

// Each in a child of its own, which never made a keyring call before.
TEST(OVKeychainStorageAbsentKeyringTest, FromTheStart) {
  FENNICK_RUN_IN_CHILD("OVKeychainStorageAbsentKeyringTest.InsideNoBus",
                       {.environment = {"DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent/fennick-test-bus"}});
  FENNICK_RUN_IN_CHILD("OVKeychainStorageDaemonTest.InsideBusWithoutDaemon", {});
}

TEST(OVKeychainStorageAbsentKeyringTest, InsideNoBus) {
  FENNICK_ONLY_IN_CHILD();
  expectFailuresLeakNothing(OVKeychainStorage::storageWithName(String::string("com.example.nobus")),
                            platform::SecretService::defaultTimeout());
}

TEST_F(OVKeychainStorageDaemonTest, InsideBusWithoutDaemon) {
  FENNICK_ONLY_IN_CHILD();
  keyring_->stopDaemon();
  auto store = this->store("com.example.nodaemon");
  expectFailuresLeakNothing(store, platform::SecretService::defaultTimeout());
  keyring_->startDaemon();
  EXPECT_TRUE(store->setData_forKey(Data::dataWithString("value"), "key"));
  EXPECT_NE(store->dataForKey("key"), nullptr);
}

TEST_F(OVKeychainStorageDaemonTest, StoppedKilledAndRestartedDaemon) {
  auto store = this->store("com.example.restart");
  ASSERT_TRUE(store->setData_forKey(Data::dataWithString("kept"), "key"));
  const std::size_t descriptors = keychaintest::openDescriptors(), threads = keychaintest::threads();

  // A stopped daemon takes the calls and never answers: the deadline ends them.
  keyring_->pauseDaemon();
  {
    const keychaintest::KeyringDeadline deadline(100ms);
    expectEveryOperationFails(store, 100ms);
  }

  // Killed while a call waits on it: the call answers at once, not at its
  // deadline, and so does every call while the daemon is gone.
  {
    const keychaintest::KeyringDeadline deadline(60s);
    testing::SecretCallMonitor monitor(keyring_->busAddress());
    LogCapture log;
    auto write =
        std::async(std::launch::async, [&] { return store->setData_forKey(Data::dataWithString("x"), "key"); });
    ASSERT_TRUE(monitor.waitForCalls(1, 30s));
    keyring_->killDaemon();
    ASSERT_EQ(write.wait_for(30s), std::future_status::ready);
    EXPECT_FALSE(write.get());
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Could not add keychain item"});
    expectEveryOperationFails(store, 30s);
  }

  // Back again: what was stored before is there, and calls work.
  keyring_->startDaemon();
  const Ref<Data> kept = store->dataForKey("key");
  ASSERT_NE(kept, nullptr);
  EXPECT_EQ(kept->stringView(), "kept");
  EXPECT_TRUE(store->setData_forKey(Data::dataWithString("new"), "key"));
  EXPECT_EQ(store->dataForKey("key")->stringView(), "new");
  EXPECT_TRUE(store->setData_forKey(nullptr, "key"));
  EXPECT_LE(keychaintest::openDescriptors(), descriptors + kPassingDescriptors);
  EXPECT_LE(keychaintest::threads(), threads + kPoolThreads);
}

TEST_F(OVKeychainStorageDaemonTest, RestartedBetweenTwoCalls) {
  auto store = this->store("com.example.between");
  ASSERT_TRUE(store->setData_forKey(Data::dataWithString("before"), "key"));
  keyring_->stopDaemon();
  keyring_->startDaemon();
  const Ref<Data> read = store->dataForKey("key");
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(read->stringView(), "before");
  EXPECT_TRUE(store->setData_forKey(Data::dataWithString("after"), "key"));
}

TEST_F(OVKeychainStorageDaemonTest, OutOfDescriptors) {
  FENNICK_RUN_IN_CHILD("OVKeychainStorageDaemonTest.InsideOutOfDescriptors", {.exhaustsDescriptors = true});
}

// Fills the descriptor table (under a lowered limit) and frees it again.
// Under a sanitizer two stay free: UBSan checks a vtable pointer by writing
// the memory to a pipe, and would take a full table for a broken object.
// Two are still fewer than a keyring call needs to set itself up.
class DescriptorFiller {
 public:
  DescriptorFiller() {
    for (int descriptor; (descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) held_.push_back(descriptor);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    for (int i = 0; i < 2 && !held_.empty(); ++i) {
      close(held_.back());
      held_.pop_back();
    }
#endif
  }
  ~DescriptorFiller() {
    for (const int descriptor : held_) close(descriptor);
  }

 private:
  std::vector<int> held_;
};

TEST_F(OVKeychainStorageDaemonTest, InsideOutOfDescriptors) {
  FENNICK_ONLY_IN_CHILD();
  const rlimit limit{keychaintest::openDescriptors() + 64, keychaintest::openDescriptors() + 64};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  auto store = this->store("com.example.descriptors");
  // Before the first call (nothing set up yet), and after it.
  for (const char* when : {"before any call", "after a call"}) {
    SCOPED_TRACE(when);
    {
      const DescriptorFiller full;
      expectEveryOperationFails(store, platform::SecretService::defaultTimeout());
    }
    ASSERT_TRUE(store->setData_forKey(Data::dataWithString("value"), "key"));
    ASSERT_NE(store->dataForKey("key"), nullptr);
    ASSERT_TRUE(store->setData_forKey(nullptr, "key"));
  }
}

}  // namespace
}  // namespace fennick
