#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"
#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/Source.h"

using namespace fennick;
using namespace fennick::dispatch;
using namespace std::chrono_literals;
using fennick::dispatch::testing::eventually;

namespace {

int openDescriptorCount() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

int reactorThreadCount() {
  int count = 0;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(task.path() / "comm");
    std::string name;
    std::getline(comm, name);
    if (name == "fennick-reactor") ++count;
  }
  return count;
}

// Records the data of every event handler run, and the cancel handler.
struct Recorder {
  std::mutex mutex;
  std::vector<std::uintptr_t> data;
  std::atomic<int> cancels{0};

  void attach(const Ref<Source>& source) {
    Source* raw = source.get();
    source->setEventHandler([this, raw] {
      std::lock_guard lock(mutex);
      data.push_back(raw->data());
    });
    source->setCancelHandler([this] { cancels.fetch_add(1); });
  }
  std::vector<std::uintptr_t> snapshot() {
    std::lock_guard lock(mutex);
    return data;
  }
  std::uintptr_t total() {
    std::uintptr_t sum = 0;
    for (auto value : snapshot()) sum += value;
    return sum;
  }
};

}  // namespace

TEST(Source, DataOrCoalescesMergesIntoOneRunWithTheirUnion) {
  auto queue = Queue::createSerial("source.data-or");
  auto source = Source::createDataOr(queue);
  Recorder recorder;
  recorder.attach(source);
  std::atomic<bool> gate{false};
  queue->async([&] { eventually([&] { return gate.load(); }); });
  source->mergeData(1);  // kept while suspended
  source->resume();
  source->mergeData(2);
  source->mergeData(4);
  source->mergeData(0);
  gate = true;
  ASSERT_TRUE(eventually([&] { return recorder.snapshot().size() == 1; }));
  queue->sync([] {});
  source->mergeData(8);
  ASSERT_TRUE(eventually([&] { return recorder.snapshot().size() == 2; }));
  EXPECT_EQ(recorder.snapshot(), (std::vector<std::uintptr_t>{7, 8}));

  source->suspend();
  source->mergeData(16);
  source->mergeData(32);
  std::this_thread::sleep_for(10ms);
  EXPECT_EQ(recorder.snapshot().size(), 2u) << "no run while suspended";
  source->resume();
  ASSERT_TRUE(eventually([&] { return recorder.snapshot().size() == 3; }));
  EXPECT_EQ(recorder.snapshot().back(), 48u);
  source->cancel();
  EXPECT_TRUE(eventually([&] { return recorder.cancels.load() == 1; }));
  EXPECT_TRUE(source->isCancelled());
}

TEST(Source, TimersFireOnTheirClockAndCountExpirations) {
  auto queue = Queue::createSerial("source.timer");
  auto repeating = Source::createTimer(queue);
  auto oneShot = Source::createTimer(queue);
  auto wall = Source::createTimer(queue);
  Recorder repeats, once, onWall;
  repeats.attach(repeating);
  once.attach(oneShot);
  onWall.attach(wall);
  repeating->setTimer(Time::NOW, 2 * NSEC_PER_MSEC, 0);
  oneShot->setTimer(time(Time::NOW, 5 * NSEC_PER_MSEC), 0, 0);
  wall->setTimer(walltime(nullptr, 5 * NSEC_PER_MSEC), UINT64_MAX, 0);
  for (const auto& source : {repeating, oneShot, wall}) source->resume();
  EXPECT_TRUE(eventually([&] { return repeats.total() >= 10; }));
  EXPECT_TRUE(eventually([&] { return once.total() == 1 && onWall.total() == 1; }));
  repeating->cancel();
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(once.snapshot(), std::vector<std::uintptr_t>{1});
  EXPECT_EQ(onWall.snapshot(), std::vector<std::uintptr_t>{1});
  EXPECT_EQ(repeats.cancels.load(), 1);
  const auto firesAtCancel = repeats.snapshot().size();
  std::this_thread::sleep_for(10ms);
  EXPECT_EQ(repeats.snapshot().size(), firesAtCancel);
  oneShot->cancel();
  wall->cancel();
  EXPECT_TRUE(eventually([&] { return once.cancels.load() == 1 && onWall.cancels.load() == 1; }));
}

TEST(Source, ReadSourceReportsBytesThenEndOfFile) {
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  auto queue = Queue::createSerial("source.read");
  auto source = Source::createRead(pipeFds[0], queue);
  ASSERT_NE(source, nullptr);
  std::vector<std::uintptr_t> reads;
  std::atomic<bool> closed{false};
  source->setEventHandler([&, raw = source.get()] {
    reads.push_back(raw->data());
    char buffer[64];
    if (read(pipeFds[0], buffer, sizeof buffer) == 0) raw->cancel();
  });
  source->setCancelHandler([&] {
    close(pipeFds[0]);
    closed = true;
  });
  source->resume();
  ASSERT_EQ(write(pipeFds[1], "hello", 5), 5);
  ASSERT_TRUE(eventually([&] { return queue->sync([&] { return reads.size(); }) == 1; }));
  close(pipeFds[1]);
  ASSERT_TRUE(eventually([&] { return closed.load(); }));
  EXPECT_EQ(reads, (std::vector<std::uintptr_t>{5, 0}));
}

TEST(Source, ReadSourceOnARegularFileFiresWhileDataRemains) {
  char path[] = "/tmp/fennick-source-XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  unlink(path);
  ASSERT_EQ(write(fd, "0123456789", 10), 10);
  ASSERT_EQ(lseek(fd, 4, SEEK_SET), 4);
  auto queue = Queue::createSerial("source.file");
  auto source = Source::createRead(fd, queue);
  ASSERT_NE(source, nullptr);
  std::vector<std::uintptr_t> reads;
  source->setEventHandler([&, raw = source.get()] {
    reads.push_back(raw->data());
    char buffer[4];
    ASSERT_GT(read(fd, buffer, sizeof buffer), 0);
  });
  source->resume();
  ASSERT_TRUE(eventually([&] { return queue->sync([&] { return reads.size(); }) == 2; }));
  std::this_thread::sleep_for(10ms);
  EXPECT_EQ(queue->sync([&] { return reads; }), (std::vector<std::uintptr_t>{6, 2}));
  source->cancel();
  queue->sync([] {});
  close(fd);
  EXPECT_EQ(Source::createRead(-1, queue), nullptr);
  EXPECT_EQ(Source::createRead(fd, queue), nullptr) << "closed descriptor";
}

// Producers keep merging while another thread cancels: once the cancel handler
// has started, no event handler may start, and it must run exactly once. The
// queue is concurrent, so the source alone keeps its handlers apart.
TEST(Source, CancelWhileEventsFlowEndsWithOneCancelHandlerAfterTheLastEvent) {
  auto queue = Queue::createConcurrent("source.cancel");
  for (int round = 0; round < 20; ++round) {
    auto source = Source::createDataOr(queue);
    std::atomic<int> inHandler{0};
    std::atomic<int> overlaps{0};
    std::atomic<int> events{0};
    std::atomic<int> eventsAfterCancel{0};
    std::atomic<int> cancels{0};
    source->setEventHandler([&] {
      if (inHandler.fetch_add(1) != 0) overlaps.fetch_add(1);
      if (cancels.load() != 0) eventsAfterCancel.fetch_add(1);
      events.fetch_add(1);
      inHandler.fetch_sub(1);
    });
    source->setCancelHandler([&] {
      if (inHandler.load() != 0) overlaps.fetch_add(1);
      cancels.fetch_add(1);
    });
    source->resume();
    std::atomic<bool> stop{false};
    std::vector<std::thread> producers;
    for (int p = 0; p < 3; ++p) {
      producers.emplace_back([&, p] {
        while (!stop.load()) source->mergeData(std::uintptr_t{1} << p);
      });
    }
    eventually([&] { return events.load() >= 5; });
    std::thread canceller([&] { source->cancel(); });
    canceller.join();
    ASSERT_TRUE(eventually([&] { return cancels.load() == 1; }));
    std::this_thread::sleep_for(2ms);
    stop = true;
    for (auto& producer : producers) producer.join();
    std::this_thread::sleep_for(2ms);
    EXPECT_EQ(cancels.load(), 1);
    EXPECT_EQ(eventsAfterCancel.load(), 0);
    EXPECT_EQ(overlaps.load(), 0);
  }
}

TEST(Source, ReleasedSourcesLeaveNoDescriptorsOrReactorThread) {
  auto queue = Queue::createSerial("source.release");
  queue->sync([] {});
  eventually([] { return reactorThreadCount() == 0; });
  const int descriptorsBefore = openDescriptorCount();
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  std::atomic<int> cancels{0};
  {
    auto reader = Source::createRead(pipeFds[0], queue);
    auto timer = Source::createTimer(queue);
    timer->setTimer(Time::NOW, NSEC_PER_MSEC, 0);
    timer->setCancelHandler([&] { cancels.fetch_add(1); });
    reader->setCancelHandler([&] { cancels.fetch_add(1); });
    timer->resume();
    reader->resume();
    EXPECT_EQ(reactorThreadCount(), 1);
    std::this_thread::sleep_for(5ms);
  }
  close(pipeFds[0]);
  close(pipeFds[1]);
  EXPECT_TRUE(eventually([&] { return cancels.load() == 2; })) << "released sources still cancel";
  EXPECT_TRUE(eventually([&] { return openDescriptorCount() == descriptorsBefore; }));
  EXPECT_TRUE(eventually([] { return reactorThreadCount() == 0; }));
}

TEST(SourceDeathTest, MisuseAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto queue = Queue::createSerial("source.death");
  EXPECT_DEATH(
      {
        auto source = Source::createDataOr(queue);
        source->resume();
        source->resume();
      },
      "not suspended");
  EXPECT_DEATH(Source::createTimer(queue)->mergeData(1), "not a data-or source");
  EXPECT_DEATH(Source::createDataOr(queue)->setTimer(Time::NOW, 0, 0), "not a timer");
}
