#pragma once
// The one epoll thread behind all descriptor-based event sources.
//
// It exists while at least one source needs it: the first source starts it,
// the last one to go stops it and joins its thread, so an idle process keeps
// no reactor thread or descriptor. Registrations are keyed by a unique id, not
// by pointer, so an event still in flight for a source that is gone is dropped.
#include <sys/epoll.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "fennick/Dispatch/Ref.h"

namespace fennick::dispatch {
class Source;
}

namespace fennick::dispatch::internal {

class Reactor {
 public:
  /// The running reactor, started if there is none.
  static Ref<Reactor> acquire();

  Reactor();
  ~Reactor();
  Reactor(const Reactor&) = delete;
  Reactor& operator=(const Reactor&) = delete;

  /// Watches `fd` for `events` on behalf of `source`. Returns the registration
  /// id, or 0 with errno set when epoll refuses the descriptor.
  std::uint64_t add(int fd, std::uint32_t events, WeakRef<Source> source);
  /// Changes the events of a registration (re-arms one-shot ones).
  void modify(int fd, std::uint64_t id, std::uint32_t events);
  /// Ends a registration. Events already collected for it are dropped.
  void remove(int fd, std::uint64_t id);

 private:
  // What the thread needs; it keeps its own reference, so the thread may
  // outlive the Reactor when the last source goes away on the thread itself.
  struct Core {
    Core();
    ~Core();
    int epoll = -1;
    int wake = -1;  // eventfd registered with id 0
    std::atomic<bool> stopping{false};
    std::mutex mutex;  // guards the members below
    std::unordered_map<std::uint64_t, WeakRef<Source>> sources;
    std::uint64_t nextId = 1;
  };

  static void loop(const Ref<Core>& core);

  Ref<Core> core_;
  std::thread thread_;
};

}  // namespace fennick::dispatch::internal
