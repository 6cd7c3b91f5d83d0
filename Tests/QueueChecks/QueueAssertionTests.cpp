// Built with FENNICK_CHECK_QUEUES: the queue assertions check and abort.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "fennick/Dispatch/Group.h"
#include "fennick/Dispatch/Main.h"
#include "fennick/Dispatch/OVDispatchQueue.h"

using namespace fennick;

class QueueChecksDeathTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST(QueueChecks, PassOnTheExpectedQueueIncludingThroughTargets) {
  auto outer = OVBuildInternalDispatchQueue("outer");
  auto inner = OVBuildDispatchQueue("inner", QOS_CLASS_UTILITY, outer, false);
  // Tests run on the main thread, which holds the main queue even inside a sync.
  inner->sync([&] {
    OVAssertOnQueue(inner);
    OVAssertOnQueue(outer);
    OVAssertOnMainQueue();
  });
  OVAssertOnMainQueue();

  auto done = dispatch::Group::create();
  done->async(inner, [&] {
    OVAssertOnQueue(inner);
    OVAssertOnQueue(outer);
    OVAssertOnBackgroundQueue();
  });
  EXPECT_TRUE(done->wait(dispatch::Time::FOREVER));
  std::atomic<int> ranOnMain{0};
  dispatch::mainQueue()->async([&] {
    OVAssertOnMainQueue();
    ranOnMain = 1;
  });
  EXPECT_TRUE(dispatch::runMainQueueUntil([&] { return ranOnMain.load() == 1; },
                                          std::chrono::seconds(20)));
}

TEST_F(QueueChecksDeathTest, AbortNamingTheExpectedAndActualQueues) {
  auto expected = OVBuildInternalDispatchQueue("expected");
  auto actual = OVBuildInternalDispatchQueue("actual");
  EXPECT_DEATH(actual->sync([&] { OVAssertOnQueue(expected); }),
               "OVAssertOnQueue failed: expected queue \"com.orvane.expected.internal-queue\", "
               "running on \"com.orvane.actual.internal-queue\"");
  EXPECT_DEATH(std::thread([&] { OVAssertOnQueue(expected); }).join(), "running on no queue");
  EXPECT_DEATH(OVAssertOnQueue(nullptr), "none was given");
  EXPECT_DEATH(std::thread([&] { actual->sync([] { OVAssertOnMainQueue(); }); }).join(),
               "OVAssertOnMainQueue failed: expected queue \"fennick.main\", running on "
               "\"com.orvane.actual.internal-queue\"");
  EXPECT_DEATH(OVAssertOnBackgroundQueue(),
               "OVAssertOnBackgroundQueue failed: .* running on \"fennick.main\"");
}
