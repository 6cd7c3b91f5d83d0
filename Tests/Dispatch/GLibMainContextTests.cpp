#include <glib.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "fennick/Dispatch/GLibMainContext.h"
#include "fennick/Dispatch/Main.h"
#include "fennick/Dispatch/Queue.h"

using namespace fennick::dispatch;
using namespace std::chrono_literals;

namespace {

// Each test runs in its own process, so attaching once per test is attaching
// once per process. A watchdog ends a loop that was never woken, so that a
// lost wake-up fails the test instead of hanging it.
class GLibMainContextTest : public ::testing::Test {
 protected:
  void SetUp() override { attachMainQueueToGLibMainContext(); }
  void TearDown() override { g_main_loop_unref(loop_); }

  void runLoop() {
    const guint watchdog = g_timeout_add_seconds(60, [](gpointer data) {
      auto* self = static_cast<GLibMainContextTest*>(data);
      self->timedOut_ = true;
      g_main_loop_quit(self->loop_);
      return G_SOURCE_REMOVE;
    }, this);
    g_main_loop_run(loop_);
    if (!timedOut_) g_source_remove(watchdog);
    ASSERT_FALSE(timedOut_) << "the loop was not woken";
  }
 public:
  void quitLoop() { g_main_loop_quit(loop_); }

 protected:

  GMainLoop* loop_ = g_main_loop_new(nullptr, FALSE);
  bool timedOut_ = false;
};

struct IdleCall {
  std::vector<std::string>* log;
  std::string name;
};

void addIdle(std::vector<std::string>& log, std::string name) {
  g_idle_add_full(G_PRIORITY_DEFAULT_IDLE, [](gpointer data) {
    auto* call = static_cast<IdleCall*>(data);
    call->log->push_back(call->name);
    return G_SOURCE_REMOVE;
  }, new IdleCall{&log, std::move(name)}, [](gpointer data) { delete static_cast<IdleCall*>(data); });
}

}  // namespace

TEST_F(GLibMainContextTest, QueuedBlocksRunBeforeIdleCallbacksAndInOrder) {
  EXPECT_TRUE(isMainQueueAttachedToGLibMainContext());
  std::vector<std::string> log;
  mainQueue()->async([&] { log.push_back("block 1"); });
  addIdle(log, "idle 1");
  mainQueue()->async([&] {
    log.push_back("block 2");
    // Work queued from a block runs before the idle callbacks queued earlier.
    mainQueue()->async([&] { log.push_back("block 3"); });
    addIdle(log, "idle 2");
  });
  addIdle(log, "idle last");
  g_idle_add_full(G_PRIORITY_LOW, [](gpointer self) {
    static_cast<GLibMainContextTest*>(self)->quitLoop();
    return G_SOURCE_REMOVE;
  }, this, nullptr);
  runLoop();
  EXPECT_EQ(log, (std::vector<std::string>{"block 1", "block 2", "block 3", "idle 1", "idle last", "idle 2"}));
}

TEST_F(GLibMainContextTest, AnIdleContextHasNoTimeoutAndWakesForABlock) {
  GMainContext* context = g_main_context_default();
  ASSERT_TRUE(g_main_context_acquire(context));
  auto prepare = [&](gint* timeout) {
    gint priority = 0;
    const gboolean ready = g_main_context_prepare(context, &priority);
    std::array<GPollFD, 16> fds{};
    g_main_context_query(context, priority, timeout, fds.data(), fds.size());
    return ready;
  };
  gint timeout = 0;
  EXPECT_FALSE(prepare(&timeout));
  EXPECT_EQ(timeout, -1) << "nothing queued must not make the loop poll";
  g_main_context_release(context);

  // A block from another thread ends a blocking iteration by itself.
  bool ran = false;
  std::thread producer([&] {
    std::this_thread::sleep_for(20ms);
    mainQueue()->async([&] { ran = isMainThread(); });
  });
  const auto start = std::chrono::steady_clock::now();
  while (!ran) g_main_context_iteration(context, TRUE);
  producer.join();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
}

TEST_F(GLibMainContextTest, BlocksFromEightThreadsRunOnTheMainThreadInPerThreadOrder) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 100'000 / kThreads;
  std::array<int, kThreads> next{};
  std::atomic<int> misordered{0};
  std::atomic<int> offMain{0};
  int finished = 0;
  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        mainQueue()->async([&, t, i] {
          if (!isMainThread()) ++offMain;
          if (next[t]++ != i) ++misordered;
          if (i == kPerThread - 1 && ++finished == kThreads) quitLoop();
        });
      }
    });
  }
  runLoop();
  for (auto& producer : producers) producer.join();
  EXPECT_EQ(offMain.load(), 0);
  EXPECT_EQ(misordered.load(), 0);
  for (int count : next) EXPECT_EQ(count, kPerThread);
}

TEST_F(GLibMainContextTest, RunMainQueueUntilStillServesTheQueue) {
  bool ran = false;
  std::thread([&] { mainQueue()->async([&] { ran = true; }); }).join();
  EXPECT_TRUE(runMainQueueUntil([&] { return ran; }, 20s));
}

namespace {

// The two ways a block serves the main queue from inside itself: a nested
// GLib loop on the default context (a modal dialog's) and a nested
// runMainQueueUntil (the headless backend's modal run). Either gives up
// after 20 s, so that a starved queue fails the test instead of hanging it.
enum class NestedLoopKind { glibLoop, runMainQueueUntil };

class NestedLoop {
 public:
  explicit NestedLoop(NestedLoopKind kind) : kind_(kind) {}
  ~NestedLoop() { g_main_loop_unref(loop_); }

  // False when the loop ran out of time instead of being quit.
  bool run() {
    if (kind_ == NestedLoopKind::runMainQueueUntil) return runMainQueueUntil([this] { return quit_; }, 20s);
    const guint watchdog = g_timeout_add_seconds(20, [](gpointer loop) {
      g_main_loop_quit(static_cast<GMainLoop*>(loop));
      return G_SOURCE_REMOVE;
    }, loop_);
    g_main_loop_run(loop_);
    if (quit_) g_source_remove(watchdog);
    return quit_;
  }
  void quit() {
    quit_ = true;
    g_main_loop_quit(loop_);
  }

 private:
  const NestedLoopKind kind_;
  GMainLoop* loop_ = g_main_loop_new(nullptr, FALSE);
  bool quit_ = false;
};

class NestedLoopTest : public GLibMainContextTest, public ::testing::WithParamInterface<NestedLoopKind> {
 protected:
  // Every block notes whether it ran as main-queue work should.
  void note(const std::string& entry) {
    log.push_back(entry);
    if (!isMainThread() || Queue::current() != mainQueue()) misplaced.push_back(entry);
  }

  std::vector<std::string> log;
  std::vector<std::string> misplaced;
};

INSTANTIATE_TEST_SUITE_P(Kinds, NestedLoopTest,
                         ::testing::Values(NestedLoopKind::glibLoop, NestedLoopKind::runMainQueueUntil),
                         [](const auto& info) {
                           return info.param == NestedLoopKind::glibLoop ? "GLibLoop" : "RunMainQueueUntil";
                         });

}  // namespace

// The blocks behind a block that runs a nested loop run inside that loop, in
// order: one already waiting in the same batch, blocks and a sync from a
// worker that arrive meanwhile, and those behind a second level of nesting.
TEST_P(NestedLoopTest, BlocksBehindABlockRunningANestedLoopRunInsideItInOrder) {
  NestedLoop outerNested(GetParam()), innerNested(GetParam());
  std::thread worker;
  bool timedOut = false;
  mainQueue()->async([&] {
    note("A begins");
    worker = std::thread([&] {
      mainQueue()->async([&] { note("B1"); });
      mainQueue()->sync([&] { note("sync from a worker"); });
      mainQueue()->async([&] {
        note("B2 begins");
        mainQueue()->async([&] {
          note("C");
          innerNested.quit();
        });
        mainQueue()->async([&] {
          note("D");
          outerNested.quit();
        });
        timedOut |= !innerNested.run();
        note("B2 ends");
      });
    });
    timedOut |= !outerNested.run();
    note("A ends");
    mainQueue()->async([&] {
      note("E");
      quitLoop();
    });
  });
  mainQueue()->async([&] { note("B0"); });
  runLoop();
  worker.join();
  EXPECT_FALSE(timedOut) << "a nested loop was not served";
  EXPECT_EQ(log, (std::vector<std::string>{"A begins", "B0", "B1", "sync from a worker", "B2 begins", "C", "D",
                                           "B2 ends", "A ends", "E"}));
  EXPECT_EQ(misplaced, std::vector<std::string>{});
}

// Only the main queue itself is served from the nested loop: a queue that
// targets it keeps its blocks waiting behind the suspended one.
TEST_P(NestedLoopTest, AQueueOnTheMainQueueStaysSerialWhileItsBlockIsSuspended) {
  const auto onMain = Queue::createSerial("on-main", fennick::QOS_CLASS_UNSPECIFIED, mainQueue());
  NestedLoop nested(GetParam());
  bool timedOut = false;
  onMain->async([&] {
    log.push_back("Q1 begins");
    onMain->async([&] {
      log.push_back("Q2");
      quitLoop();
    });
    mainQueue()->async([&] { log.push_back("M1"); });
    mainQueue()->async([&] {
      log.push_back("M2");
      nested.quit();
    });
    timedOut = !nested.run();
    log.push_back("Q1 ends");
  });
  runLoop();
  EXPECT_FALSE(timedOut) << "the nested loop was not served";
  EXPECT_EQ(log, (std::vector<std::string>{"Q1 begins", "M1", "M2", "Q1 ends", "Q2"}));
}
