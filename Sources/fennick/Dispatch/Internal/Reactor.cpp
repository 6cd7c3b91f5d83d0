#include "fennick/Dispatch/Internal/Reactor.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <system_error>

#include "fennick/Dispatch/Internal/QueueAccess.h"
#include "fennick/Dispatch/Source.h"

namespace fennick::dispatch::detail {
namespace {

struct Registry {
  std::mutex mutex;
  WeakRef<Reactor> current;
};

Registry& registry() {
  static Registry* registry = new Registry;  // immortal: sources may die during exit
  return *registry;
}

constexpr int kWallClock = 1;

// Heap order: the earliest deadline on top, ties in submission order.
struct Later {
  template <class Delayed>
  bool operator()(const Delayed& a, const Delayed& b) const noexcept {
    return a.when != b.when ? a.when > b.when : a.order > b.order;
  }
};

std::int64_t nowOn(int clock) {
  timespec now{};
  clock_gettime(clock == kWallClock ? CLOCK_REALTIME : CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * NSEC_PER_SEC + now.tv_nsec;
}

std::int64_t nanosecondsOf(Time when) {
  const auto since = when.isWallClock() ? when.toSystem().time_since_epoch()
                                        : when.toSteady().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(since).count();
}

}  // namespace

Reactor::Core::Core() {
  epoll = epoll_create1(EPOLL_CLOEXEC);
  wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (epoll < 0 || wake < 0) return;
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = 0;
  ready = epoll_ctl(epoll, EPOLL_CTL_ADD, wake, &event) == 0;
}

Reactor::Core::~Core() {
  for (int timer : timers) {
    if (timer >= 0) close(timer);
  }
  if (wake >= 0) close(wake);
  if (epoll >= 0) close(epoll);
}

Ref<Reactor> Reactor::acquire() {
  Registry& shared = registry();
  std::lock_guard lock(shared.mutex);
  Ref<Reactor> reactor = shared.current.lock();
  if (reactor) return reactor;
  auto core = std::make_shared<Core>();
  if (!core->ready) return nullptr;
  try {
    reactor = std::make_shared<Reactor>(std::move(core));
  } catch (const std::system_error&) {
    return nullptr;  // no thread to run it on
  }
  shared.current = reactor;
  return reactor;
}

Reactor::Reactor(Ref<Core> core) : core_(std::move(core)) {
  thread_ = std::thread([core = core_] { loop(core); });
  pthread_setname_np(thread_.native_handle(), "fennick-reactor");
}

Reactor::~Reactor() {
  core_->stopping.store(true, std::memory_order_release);
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(core_->wake, &one, sizeof one);
  if (thread_.get_id() == std::this_thread::get_id()) {
    thread_.detach();  // the loop ends after the event it is handling
  } else {
    thread_.join();
  }
}

std::uint64_t Reactor::add(int fd, std::uint32_t events, WeakRef<Source> source) {
  std::lock_guard lock(core_->mutex);
  const std::uint64_t id = core_->nextId++;
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  if (epoll_ctl(core_->epoll, EPOLL_CTL_ADD, fd, &event) != 0) return 0;
  core_->sources.emplace(id, std::move(source));
  return id;
}

void Reactor::modify(int fd, std::uint64_t id, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = id;
  epoll_ctl(core_->epoll, EPOLL_CTL_MOD, fd, &event);
}

void Reactor::remove(int fd, std::uint64_t id) {
  std::lock_guard lock(core_->mutex);
  epoll_ctl(core_->epoll, EPOLL_CTL_DEL, fd, nullptr);
  core_->sources.erase(id);
}

void Reactor::loop(const Ref<Core>& core) {
  constexpr int kBatch = 64;
  epoll_event events[kBatch];
  while (!core->stopping.load(std::memory_order_acquire)) {
    const int count = epoll_wait(core->epoll, events, kBatch, -1);
    if (count < 0) {
      if (errno == EINTR) continue;
      fail("the event reactor's epoll_wait failed");
    }
    for (int index = 0; index < count; ++index) {
      const std::uint64_t id = events[index].data.u64;
      if (id == 0) {
        std::uint64_t drained = 0;
        [[maybe_unused]] const ssize_t read = ::read(core->wake, &drained, sizeof drained);
        continue;
      }
      if (id < kFirstSourceId) {
        fireDelayed(*core, static_cast<int>(id - 1));
        continue;
      }
      Ref<Source> source;
      {
        std::lock_guard lock(core->mutex);
        const auto found = core->sources.find(id);
        if (found != core->sources.end()) source = found->second.lock();
      }
      if (source) source->reactorEvent(events[index].events);
    }
  }
}

void Reactor::submitAt(Time when, Ref<QueueCore> queue, WorkItem* item) {
  Ref<Reactor> reactor = acquire();
  if (!reactor || !reactor->schedule(when, queue, item)) waitOnThread(when, std::move(queue), item);
}

bool Reactor::schedule(Time when, Ref<QueueCore>& queue, WorkItem* item) {
  Core& core = *core_;
  const int clock = when.isWallClock() ? kWallClock : 0;
  std::lock_guard lock(core.mutex);
  if (core.timers[clock] < 0) {
    const int timer = timerfd_create(clock == kWallClock ? CLOCK_REALTIME : CLOCK_MONOTONIC,
                                     TFD_NONBLOCK | TFD_CLOEXEC);
    if (timer < 0) return false;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = static_cast<std::uint64_t>(clock) + 1;
    if (epoll_ctl(core.epoll, EPOLL_CTL_ADD, timer, &event) != 0) {
      close(timer);
      return false;
    }
    core.timers[clock] = timer;
  }
  std::vector<Delayed>& heap = core.delayed[clock];
  heap.push_back(Delayed{nanosecondsOf(when), core.delayedOrder++, std::move(queue), item});
  std::push_heap(heap.begin(), heap.end(), Later{});
  if (!core.keeper) core.keeper = shared_from_this();
  if (heap.front().item == item) armLocked(core, clock);
  return true;
}

void Reactor::waitOnThread(Time when, Ref<QueueCore> queue, WorkItem* item) {
  // Out of descriptors the reactor cannot keep the deadline, but delayed
  // work cannot fail: a thread of its own (which needs no descriptor) sleeps
  // until then. Only with neither a descriptor nor a thread is there no way
  // left to honour the delay.
  try {
    std::thread([when, queue = std::move(queue), item] {
      if (when.isWallClock()) {
        std::this_thread::sleep_until(when.toSystem());
      } else {
        std::this_thread::sleep_until(when.toSteady());
      }
      queue->enqueue(item, true);
    }).detach();
  } catch (const std::system_error&) {
    fail("cannot wait for delayed work without a descriptor or a thread");
  }
}

void Reactor::armLocked(Core& core, int clock) {
  itimerspec setting{};
  if (!core.delayed[clock].empty()) {
    const std::int64_t when = std::max<std::int64_t>(core.delayed[clock].front().when, 1);
    setting.it_value.tv_sec = static_cast<time_t>(when / NSEC_PER_SEC);
    setting.it_value.tv_nsec = static_cast<long>(when % NSEC_PER_SEC);
  }
  // On the wall clock, a change of the system time wakes us to look again.
  const int flags = TFD_TIMER_ABSTIME | (clock == kWallClock ? TFD_TIMER_CANCEL_ON_SET : 0);
  timerfd_settime(core.timers[clock], flags, &setting, nullptr);
}

void Reactor::fireDelayed(Core& core, int clock) {
  std::vector<Delayed> due;
  Ref<Reactor> keeper;
  {
    std::lock_guard lock(core.mutex);
    std::uint64_t expirations = 0;
    [[maybe_unused]] const ssize_t read = ::read(core.timers[clock], &expirations, sizeof expirations);
    std::vector<Delayed>& heap = core.delayed[clock];
    const std::int64_t now = nowOn(clock);
    while (!heap.empty() && heap.front().when <= now) {
      std::pop_heap(heap.begin(), heap.end(), Later{});
      due.push_back(std::move(heap.back()));
      heap.pop_back();
    }
    armLocked(core, clock);
    if (core.delayed[0].empty() && core.delayed[kWallClock].empty()) keeper = std::move(core.keeper);
  }
  for (Delayed& delayed : due) delayed.queue->enqueue(delayed.item, true);
  // Dropping the keeper may end this reactor; its thread then stops after
  // this event.
}

}  // namespace fennick::dispatch::detail
