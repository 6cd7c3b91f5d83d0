#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "fennick/Dispatch/Main.h"
#include "fennick/Dispatch/Queue.h"

using namespace fennick;
using namespace fennick::dispatch;
using namespace std::chrono_literals;

namespace {

// Waits (without the main queue) until `done` holds or a generous timeout.
template <class Predicate>
bool eventually(Predicate done, std::chrono::milliseconds timeout = 10s) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

}  // namespace

TEST(Queue, SerialRunsInOrder) {
  auto queue = Queue::createSerial("order");
  std::vector<int> seen;
  for (int i = 0; i < 1000; ++i) queue->async([&seen, i] { seen.push_back(i); });
  queue->sync([] {});
  ASSERT_EQ(seen.size(), 1000u);
  for (int i = 0; i < 1000; ++i) EXPECT_EQ(seen[i], i);
}

TEST(Queue, SyncReturnsValue) {
  auto queue = Queue::createSerial("value");
  EXPECT_EQ(queue->sync([] { return 42; }), 42);
  int x = 1;
  int& ref = queue->sync([&x]() -> int& { return x; });
  EXPECT_EQ(&ref, &x);
}
