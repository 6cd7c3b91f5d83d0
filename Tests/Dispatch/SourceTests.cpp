#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Support/ChildTestRun.h"
#include "Dispatch/TestSupport.h"
#include "fennick/Dispatch/Queue.h"
#include "fennick/Dispatch/Source.h"

using namespace fennick;
using namespace fennick::dispatch;
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

// Records the data of every event handler run, and the cancel handler. Shared
// with the handlers, which may still be queued when a failed test returns.
struct Recorder {
  std::mutex mutex;
  std::vector<std::uintptr_t> data;
  std::atomic<int> cancels{0};
  std::atomic<int> eventsAfterCancel{0};

  static std::shared_ptr<Recorder> attachedTo(const Ref<Source>& source) {
    auto recorder = std::make_shared<Recorder>();
    Source* raw = source.get();
    source->setEventHandler([recorder, raw] {
      if (recorder->cancels.load() != 0) recorder->eventsAfterCancel.fetch_add(1);
      std::lock_guard lock(recorder->mutex);
      recorder->data.push_back(raw->data());
    });
    source->setCancelHandler([recorder] { recorder->cancels.fetch_add(1); });
    return recorder;
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
  auto recorder = Recorder::attachedTo(source);
  auto gate = std::make_shared<std::atomic<bool>>(false);
  queue->async([gate] { eventually([&] { return gate->load(); }); });
  source->mergeData(1);  // kept while suspended
  source->resume();
  source->mergeData(2);
  source->mergeData(4);
  source->mergeData(0);
  *gate = true;
  ASSERT_TRUE(eventually([&] { return recorder->snapshot().size() == 1; }));
  queue->sync([] {});
  source->mergeData(8);
  ASSERT_TRUE(eventually([&] { return recorder->snapshot().size() == 2; }));
  EXPECT_EQ(recorder->snapshot(), (std::vector<std::uintptr_t>{7, 8}));

  source->suspend();
  source->mergeData(16);
  source->mergeData(32);
  // A merge schedules its run on the queue at once, so a block queued after
  // the merges runs after any run they caused.
  queue->sync([] {});
  EXPECT_EQ(recorder->snapshot().size(), 2u) << "no run while suspended";
  source->resume();
  ASSERT_TRUE(eventually([&] { return recorder->snapshot().size() == 3; }));
  EXPECT_EQ(recorder->snapshot().back(), 48u);
  source->cancel();
  EXPECT_TRUE(eventually([&] { return recorder->cancels.load() == 1; }));
  EXPECT_TRUE(source->isCancelled());
}

TEST(Source, TimersFireOnTheirClockAndCountExpirations) {
  auto queue = Queue::createSerial("source.timer");
  auto repeating = Source::createTimer(queue);
  auto oneShot = Source::createTimer(queue);
  auto wall = Source::createTimer(queue);
  auto repeats = Recorder::attachedTo(repeating);
  auto once = Recorder::attachedTo(oneShot);
  auto onWall = Recorder::attachedTo(wall);
  repeating->setTimer(Time::NOW, 2 * NSEC_PER_MSEC, 0);
  oneShot->setTimer(time(Time::NOW, 5 * NSEC_PER_MSEC), 0, 0);
  wall->setTimer(walltime(nullptr, 5 * NSEC_PER_MSEC), UINT64_MAX, 0);
  for (const auto& source : {repeating, oneShot, wall}) source->resume();
  EXPECT_TRUE(eventually([&] { return repeats->total() >= 10; }));
  EXPECT_TRUE(eventually([&] { return once->total() == 1 && onWall->total() == 1; }));
  // While the repeating timer fires twice more, a one-shot timer that wrongly
  // repeated would fire again too; all three deliver on the same queue.
  const auto repeatsBefore = repeats->snapshot().size();
  EXPECT_TRUE(eventually([&] { return repeats->snapshot().size() >= repeatsBefore + 2; }));
  queue->sync([] {});
  EXPECT_EQ(once->snapshot(), std::vector<std::uintptr_t>{1});
  EXPECT_EQ(onWall->snapshot(), std::vector<std::uintptr_t>{1});
  for (const auto& source : {repeating, oneShot, wall}) source->cancel();
  EXPECT_TRUE(eventually([&] {
    return repeats->cancels.load() == 1 && once->cancels.load() == 1 && onWall->cancels.load() == 1;
  }));
  queue->sync([] {});
  for (const auto& recorder : {repeats, once, onWall}) {
    EXPECT_EQ(recorder->cancels.load(), 1);
    EXPECT_EQ(recorder->eventsAfterCancel.load(), 0);
  }
}

TEST(Source, ReadSourceReportsBytesThenEndOfFile) {
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  auto queue = Queue::createSerial("source.read");
  auto source = Source::createRead(pipeFds[0], queue);
  ASSERT_NE(source, nullptr);
  // Touched only on the queue, by the handlers and by the test's syncs.
  struct Shared {
    std::vector<std::uintptr_t> reads;
    std::atomic<bool> closed{false};
  };
  auto shared = std::make_shared<Shared>();
  const int readEnd = pipeFds[0];
  source->setEventHandler([shared, readEnd, raw = source.get()] {
    shared->reads.push_back(raw->data());
    char buffer[64];
    if (read(readEnd, buffer, sizeof buffer) == 0) raw->cancel();
  });
  source->setCancelHandler([shared, readEnd] {
    close(readEnd);
    shared->closed = true;
  });
  source->resume();
  ASSERT_EQ(write(pipeFds[1], "hello", 5), 5);
  ASSERT_TRUE(eventually([&] { return queue->sync([&] { return shared->reads.size(); }) == 1; }));
  close(pipeFds[1]);
  ASSERT_TRUE(eventually([&] { return shared->closed.load(); }));
  EXPECT_EQ(queue->sync([&] { return shared->reads; }), (std::vector<std::uintptr_t>{5, 0}));
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
  auto reads = std::make_shared<std::vector<std::uintptr_t>>();  // touched only on the queue
  auto cancelled = std::make_shared<std::atomic<bool>>(false);
  source->setEventHandler([reads, fd, raw = source.get()] {
    reads->push_back(raw->data());
    char buffer[4];
    EXPECT_GT(read(fd, buffer, sizeof buffer), 0);
  });
  source->setCancelHandler([cancelled] { *cancelled = true; });
  source->resume();
  ASSERT_TRUE(eventually([&] { return queue->sync([&] { return reads->size(); }) >= 2; }));
  // The cancel handler comes after every event: a source that fired again at
  // the end of the file would show a third read here.
  source->cancel();
  ASSERT_TRUE(eventually([&] { return cancelled->load(); }));
  EXPECT_EQ(queue->sync([&] { return *reads; }), (std::vector<std::uintptr_t>{6, 2}));
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
    struct Shared {
      std::atomic<int> inHandler{0};
      std::atomic<int> overlaps{0};
      std::atomic<int> events{0};
      std::atomic<int> eventsAfterCancel{0};
      std::atomic<int> cancels{0};
      std::atomic<int> mergesAfterCancel{0};
      std::atomic<bool> stop{false};
    };
    auto shared = std::make_shared<Shared>();
    source->setEventHandler([shared] {
      if (shared->inHandler.fetch_add(1) != 0) shared->overlaps.fetch_add(1);
      if (shared->cancels.load() != 0) shared->eventsAfterCancel.fetch_add(1);
      shared->events.fetch_add(1);
      shared->inHandler.fetch_sub(1);
    });
    source->setCancelHandler([shared] {
      if (shared->inHandler.load() != 0) shared->overlaps.fetch_add(1);
      shared->cancels.fetch_add(1);
    });
    source->resume();
    std::vector<std::thread> producers;
    for (int p = 0; p < 3; ++p) {
      producers.emplace_back([shared, source, p] {
        while (!shared->stop.load()) {
          source->mergeData(std::uintptr_t{1} << p);
          if (shared->cancels.load() != 0) shared->mergesAfterCancel.fetch_add(1);
        }
      });
    }
    ASSERT_TRUE(eventually([&] { return shared->events.load() >= 5; }));
    std::thread canceller([&] { source->cancel(); });
    canceller.join();
    ASSERT_TRUE(eventually([&] { return shared->cancels.load() == 1; }));
    // Merges that follow the cancel handler must start nothing.
    EXPECT_TRUE(eventually([&] { return shared->mergesAfterCancel.load() >= 100; }));
    shared->stop = true;
    for (auto& producer : producers) producer.join();
    queue->barrierSync([] {});
    EXPECT_EQ(shared->cancels.load(), 1);
    EXPECT_EQ(shared->eventsAfterCancel.load(), 0);
    EXPECT_EQ(shared->overlaps.load(), 0);
  }
}

TEST(Source, ReleasedSourcesLeaveNoDescriptorsOrReactorThread) {
  auto queue = Queue::createSerial("source.release");
  queue->sync([] {});
  eventually([] { return reactorThreadCount() == 0; });
  const int descriptorsBefore = openDescriptorCount();
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  auto cancels = std::make_shared<std::atomic<int>>(0);
  auto fired = std::make_shared<std::atomic<int>>(0);
  {
    auto reader = Source::createRead(pipeFds[0], queue);
    auto timer = Source::createTimer(queue);
    timer->setTimer(Time::NOW, NSEC_PER_MSEC, 0);
    timer->setEventHandler([fired] { fired->fetch_add(1); });
    timer->setCancelHandler([cancels] { cancels->fetch_add(1); });
    reader->setCancelHandler([cancels] { cancels->fetch_add(1); });
    timer->resume();
    reader->resume();
    EXPECT_EQ(reactorThreadCount(), 1);
    EXPECT_TRUE(eventually([&] { return fired->load() >= 2; })) << "released while the timer is live";
  }
  close(pipeFds[0]);
  close(pipeFds[1]);
  EXPECT_TRUE(eventually([&] { return cancels->load() == 2; })) << "released sources still cancel";
  EXPECT_TRUE(eventually([&] { return openDescriptorCount() == descriptorsBefore; }));
  EXPECT_TRUE(eventually([] { return reactorThreadCount() == 0; }));
}

TEST(Source, WithoutDescriptorsSourcesAreNilAndDelayedWorkStillRuns) {
  FENNICK_RUN_IN_CHILD("Source.InsideDescriptorExhaustion", {.exhaustsDescriptors = true});
}

// A fresh process (no reactor yet) with every descriptor taken: the reactor
// cannot start, which must not end the process.
TEST(Source, InsideDescriptorExhaustion) {
  FENNICK_ONLY_IN_CHILD();
  auto queue = Queue::createSerial("source.exhausted");
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  const rlimit limit{64, 64};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  std::vector<int> filler;
  for (int fd; (fd = dup(STDERR_FILENO)) >= 0;) filler.push_back(fd);
  ASSERT_EQ(errno, EMFILE);
  // Room for the duplicate only, not for the reactor's descriptors.
  close(filler.back());
  filler.pop_back();

  EXPECT_EQ(Source::createRead(pipeFds[0], queue), nullptr);
  EXPECT_EQ(Source::createTimer(queue), nullptr);
  auto ran = std::make_shared<std::atomic<int>>(0);
  const auto start = std::chrono::steady_clock::now();
  queue->after(Time::after(std::chrono::milliseconds(20)), [ran] { ran->fetch_add(1); });
  queue->after(Time(std::chrono::system_clock::now() + std::chrono::milliseconds(20)), [ran] { ran->fetch_add(1); });
  EXPECT_TRUE(eventually([&] { return ran->load() == 2; }));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20));
  for (int fd : filler) close(fd);
  close(pipeFds[0]);
  close(pipeFds[1]);
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
