#include "Support/HelpersTestSupport.h"
#include "Support/ChildTestRun.h"

#include "fennick/Helpers/System/OVReachability.h"
#include "fennick/Runtime/Values/UUID.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <sys/resource.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using namespace fennick;
using namespace fennick::platform;

namespace {

constexpr const char* kInNamespace = "FENNICK_REACHABILITY_IN_NETNS";

// Records the statuses a subscriber receives and lets the test wait for them.
class Recorder {
 public:
  OVReachability::ChangesBlock block() {
    return [this](std::int64_t status) {
      std::lock_guard lock(mutex_);
      statuses_.push_back(status);
      changed_.notify_all();
    };
  }
  /// Waits until `count` statuses arrived; answers them all.
  std::vector<std::int64_t> waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(10), [&] { return statuses_.size() >= count; });
    return statuses_;
  }
  std::vector<std::int64_t> statuses() {
    std::lock_guard lock(mutex_);
    return statuses_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::int64_t> statuses_;
};

sockaddr_in ipv4(const char* text) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, text, &address.sin_addr);
  return address;
}

void ip(const std::string& arguments) { ASSERT_EQ(std::system(("ip " + arguments).c_str()), 0) << arguments; }

TEST(OVReachabilityTest, StatusFollowsTheFlags) {
  EXPECT_EQ(OVReachability::statusForFlags(kReachable), 1);
  EXPECT_EQ(OVReachability::statusForFlags(kReachable | kConnectionRequired), 0);
  EXPECT_EQ(OVReachability::statusForFlags(kReachable | kConnectionRequired | kConnectionOnTraffic), 1);
  EXPECT_EQ(OVReachability::statusForFlags(kReachable | kConnectionRequired | kConnectionOnDemand), 1);
  EXPECT_EQ(OVReachability::statusForFlags(kReachable | kConnectionRequired | kConnectionOnTraffic |
                                           kInterventionRequired),
            0);
  EXPECT_EQ(OVReachability::statusForFlags(kConnectionOnTraffic | kConnectionOnDemand | kIsDirect | kIsLocalAddress), 0);
}

TEST(OVReachabilityTest, UnusableTargetsGiveNil) {
  EXPECT_FALSE(OVReachability::initWithHostName(""));
  EXPECT_FALSE(OVReachability::initWithHostName("two words"));
  sockaddr_un local{};
  local.sun_family = AF_UNIX;
  EXPECT_FALSE(OVReachability::initWithAddress(reinterpret_cast<const sockaddr*>(&local)));
  EXPECT_FALSE(OVReachability::initWithAddress(nullptr));
  EXPECT_DEATH(OVReachability::initWithReachabilityRef(nullptr), "reachabilityRef");
}

TEST(OVReachabilityTest, TheNotifierRunsWhileThereAreSubscriptions) {
  auto reachability = OVReachability::initForInternetConnection();
  Recorder recorder;
  auto first = reachability->subscribeForChangesWithBlock(recorder.block());
  auto second = reachability->subscribeForChangesWithBlock(recorder.block());
  EXPECT_TRUE(reachability->isNotifierRunning());
  EXPECT_EQ(reachability->notifierStarts(), 1);
  reachability->unsubscribeForChangesWithToken(first);
  EXPECT_TRUE(reachability->isNotifierRunning());
  reachability->unsubscribeForChangesWithToken(second);
  EXPECT_FALSE(reachability->isNotifierRunning());
  reachability->unsubscribeForChangesWithToken(UUID::init());
  EXPECT_FALSE(reachability->isNotifierRunning());

  // Subscribing and at once unsubscribing leaves the notifier stopped.
  reachability->unsubscribeForChangesWithToken(reachability->subscribeForChangesWithBlock(recorder.block()));
  EXPECT_FALSE(reachability->isNotifierRunning());
  EXPECT_EQ(reachability->notifierStarts(), 2);
  EXPECT_TRUE(recorder.statuses().empty());
}

TEST(OVReachabilityTest, LoopbackNamesAndAddressesAreLocal) {
  auto loopback = ipv4("127.0.0.1");
  auto address = OVReachability::initWithAddress(reinterpret_cast<const sockaddr*>(&loopback));
  EXPECT_TRUE(address->reachabilityFlags() & kIsLocalAddress);
  EXPECT_EQ(address->status(), 1);

  auto name = OVReachability::initWithHostName("localhost");
  ASSERT_TRUE(name);
  EXPECT_TRUE(name->reachabilityRef()->resolve());
  EXPECT_EQ(name->status(), 1);
}

std::size_t openDescriptors() {
  std::error_code error;
  std::size_t count = 0;
  for (std::filesystem::directory_iterator it("/proc/self/fd", error), end; !error && it != end; it.increment(error))
    ++count;
  return count;
}

// Lowers the descriptor limit and takes every descriptor left; answers them.
std::vector<int> exhaustDescriptors() {
  const rlimit limit{256, 256};
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<int> taken;
  for (int fd; (fd = dup(STDERR_FILENO)) >= 0;) taken.push_back(fd);
  return taken;
}

TEST(OVReachabilityTest, WithoutDescriptorsLeft) {
  FENNICK_RUN_IN_CHILD("OVReachabilityTest.InsideDescriptorExhaustion", {.exhaustsDescriptors = true});
}

// Without a socket the flags cannot be read: not reachable, no connection
// required, and no crash; once descriptors are free the answers come back.
TEST(OVReachabilityTest, InsideDescriptorExhaustion) {
  FENNICK_ONLY_IN_CHILD();
  auto loopbackAddress = ipv4("127.0.0.1");
  auto loopback = OVReachability::initWithAddress(reinterpret_cast<const sockaddr*>(&loopbackAddress));
  auto internet = OVReachability::initForInternetConnection();
  // Read once with descriptors, on a thread of its own (lookups keep a socket
  // per thread), so that a sanitizer's runtime knows the types it checks
  // before it has no pipe left to learn them with.
  std::thread([&] {
    EXPECT_EQ(loopback->status(), OVReachabilityStatusReachable);
    (void)internet->status();
  }).join();
  const std::vector<int> taken = exhaustDescriptors();
  for (const auto& reachability : {loopback, internet}) {
    EXPECT_EQ(reachability->reachabilityFlags(), 0u);
    EXPECT_EQ(reachability->status(), OVReachabilityStatusNotReachable);
    EXPECT_FALSE(reachability->connectionRequired());
  }
  EXPECT_EQ(openRouteChangeSocket(), -1);
  for (int fd : taken) close(fd);
  EXPECT_EQ(loopback->status(), OVReachabilityStatusReachable);
}

// A notifier that cannot be scheduled is a programming error that stops the
// process, as the platform's assertion does.
TEST(OVReachabilityTest, ANotifierThatCannotStartStopsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        auto internet = OVReachability::initForInternetConnection();
        // A first subscription with descriptors lets a sanitizer's runtime
        // learn the types it checks while it still has a pipe to do so.
        const std::size_t before = openDescriptors();
        internet->unsubscribeForChangesWithToken(internet->subscribeForChangesWithBlock([](std::int64_t) {}));
        fennick::testing::eventually([&] { return !internet->isNotifierRunning() && openDescriptors() <= before; });
        exhaustDescriptors();
        internet->subscribeForChangesWithBlock([](std::int64_t) {});
        internet->isNotifierRunning();  // runs on the queue after the subscription
        std::_Exit(0);
      },
      "didSchedule");
}

// Runs the namespace tests below in a new user and network namespace of their own.
TEST(OVReachabilityTest, ChangesInAPrivateNetworkNamespace) {
  if (std::getenv(kInNamespace)) GTEST_SKIP() << "already inside the namespace";
  if (std::system("unshare -rn true 2>/dev/null") != 0)
    GTEST_SKIP() << "network namespaces are unavailable here (unshare -rn failed)";
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  const std::string command = std::string(kInNamespace) + "=1 unshare -rn '" + self +
                              "' --gtest_filter='OVReachabilityInNamespace.*' --gtest_brief=1";
  EXPECT_EQ(std::system(command.c_str()), 0);
}

TEST(OVReachabilityInNamespace, SubscribersFollowLinkAddressAndRouteChanges) {
  if (!std::getenv(kInNamespace)) GTEST_SKIP() << "runs only inside its own network namespace";
  ip("link add fnk0 type veth peer name fnk1");
  auto internet = OVReachability::initForInternetConnection();
  auto gatewayAddress = ipv4("10.9.0.1");
  auto gateway = OVReachability::initWithAddress(reinterpret_cast<const sockaddr*>(&gatewayAddress));
  EXPECT_EQ(internet->status(), 0);
  EXPECT_EQ(gateway->status(), 0);

  Recorder first, second, direct;
  internet->subscribeForChangesWithBlock(first.block());
  internet->subscribeForChangesWithBlock(second.block());
  gateway->subscribeForChangesWithBlock(direct.block());
  ASSERT_TRUE(internet->isNotifierRunning());
  ASSERT_TRUE(gateway->isNotifierRunning());

  ip("link set fnk1 up");
  ip("link set fnk0 up");
  // The carrier comes up a moment after the link; wait for it, so that the
  // address below is the one change the subscribers see.
  ASSERT_TRUE(fennick::testing::eventually([] { return std::system("ip -o link show fnk0 | grep -q LOWER_UP") == 0; }));
  ip("addr add 10.9.0.2/24 dev fnk0");
  EXPECT_EQ(direct.waitFor(1), std::vector<std::int64_t>{1});
  EXPECT_TRUE(gateway->reachabilityFlags() & kIsDirect);
  ip("route add default via 10.9.0.1");
  EXPECT_EQ(first.waitFor(1), std::vector<std::int64_t>{1});
  EXPECT_EQ(second.waitFor(1), std::vector<std::int64_t>{1});
  EXPECT_FALSE(internet->reachabilityFlags() & kIsDirect);

  ip("route del default");
  EXPECT_EQ(first.waitFor(2), (std::vector<std::int64_t>{1, 0}));
  EXPECT_EQ(second.waitFor(2), (std::vector<std::int64_t>{1, 0}));

  // The link loses its carrier: the route stays configured but needs the link.
  ip("route add default via 10.9.0.1");
  EXPECT_EQ(first.waitFor(3), (std::vector<std::int64_t>{1, 0, 1}));
  ip("link set fnk1 down");
  EXPECT_EQ(first.waitFor(4), (std::vector<std::int64_t>{1, 0, 1, 0}));
  EXPECT_TRUE(internet->connectionRequired());
  EXPECT_EQ(second.waitFor(4), (std::vector<std::int64_t>{1, 0, 1, 0}));

  auto ownAddress = ipv4("10.9.0.2");
  EXPECT_TRUE(OVReachability::initWithAddress(reinterpret_cast<const sockaddr*>(&ownAddress))->reachabilityFlags() &
              kIsLocalAddress);
}

}  // namespace
