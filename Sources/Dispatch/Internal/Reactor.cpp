#include "fennick/Dispatch/Internal/Reactor.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>

#include "fennick/Dispatch/Internal/QueueAccess.h"
#include "fennick/Dispatch/Source.h"

namespace fennick::dispatch::internal {
namespace {

struct Registry {
  std::mutex mutex;
  WeakRef<Reactor> current;
};

Registry& registry() {
  static Registry* registry = new Registry;  // immortal: sources may die during exit
  return *registry;
}

}  // namespace

Reactor::Core::Core() {
  epoll = epoll_create1(EPOLL_CLOEXEC);
  wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (epoll < 0 || wake < 0) fail("cannot create the event reactor's descriptors");
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.u64 = 0;
  if (epoll_ctl(epoll, EPOLL_CTL_ADD, wake, &event) != 0) fail("cannot set up the event reactor");
}

Reactor::Core::~Core() {
  close(wake);
  close(epoll);
}

Ref<Reactor> Reactor::acquire() {
  Registry& shared = registry();
  std::lock_guard lock(shared.mutex);
  Ref<Reactor> reactor = shared.current.lock();
  if (!reactor) {
    reactor = std::make_shared<Reactor>();
    shared.current = reactor;
  }
  return reactor;
}

Reactor::Reactor() : core_(std::make_shared<Core>()) {
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

}  // namespace fennick::dispatch::internal
