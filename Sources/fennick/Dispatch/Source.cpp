#include "fennick/Dispatch/Source.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

#include "fennick/Dispatch/Internal/QueueAccess.h"
#include "fennick/Dispatch/Internal/Reactor.h"

namespace fennick::dispatch {
namespace {

constexpr std::uint32_t kReadArmed = EPOLLIN | EPOLLONESHOT;

timespec toTimespec(std::int64_t nanoseconds) {
  timespec result{};
  result.tv_sec = static_cast<time_t>(nanoseconds / NSEC_PER_SEC);
  result.tv_nsec = static_cast<long>(nanoseconds % NSEC_PER_SEC);
  return result;
}

std::int64_t nanosecondsSinceEpoch(Time start) {
  const auto since = start.isWallClock() ? start.toSystem().time_since_epoch()
                                         : start.toSteady().time_since_epoch();
  const auto count = std::chrono::duration_cast<std::chrono::nanoseconds>(since).count();
  return count > 0 ? count : 1;  // a zero value would disarm the timer
}

}  // namespace

Source::Source(Private, Kind kind, Ref<Queue> queue)
    : kind_(kind), queue_(queue ? std::move(queue) : global(QOS_CLASS_DEFAULT)) {}

Source::~Source() {
  // Nothing is scheduled any more: a queued run holds a reference.
  Handler cancelHandler;
  Ref<detail::Reactor> reactor;
  {
    std::lock_guard lock(mutex_);
    cancelled_.store(true, std::memory_order_release);
    disconnectLocked();
    reactor = std::move(reactor_);
    if (!cancelDelivered_) cancelHandler = std::move(cancelHandler_);
  }
  if (cancelHandler) queue_->async([cancelHandler] { (*cancelHandler)(); });
}

Ref<Source> Source::createRead(int fd, Ref<Queue> queue) {
  if (fd < 0) return nullptr;
  const int duplicate = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (duplicate < 0) return nullptr;
  auto source = std::make_shared<Source>(Private{}, Kind::Read, std::move(queue));
  std::lock_guard lock(source->mutex_);
  source->fd_ = duplicate;
  source->reactor_ = detail::Reactor::acquire();
  if (!source->reactor_) return nullptr;  // the destructor closes the duplicate
  source->registration_ = source->reactor_->add(duplicate, EPOLLONESHOT, source);
  if (source->registration_ == 0) {
    if (errno != EPERM) return nullptr;  // the destructor closes the duplicate
    source->pollable_ = false;
    source->reactor_.reset();
  }
  return source;
}

Ref<Source> Source::createTimer(Ref<Queue> queue) {
  auto source = std::make_shared<Source>(Private{}, Kind::Timer, std::move(queue));
  std::lock_guard lock(source->mutex_);
  source->reactor_ = detail::Reactor::acquire();
  if (!source->reactor_ || !source->openTimer(false)) return nullptr;
  return source;
}

Ref<Source> Source::createDataOr(Ref<Queue> queue) {
  return std::make_shared<Source>(Private{}, Kind::DataOr, std::move(queue));
}

bool Source::openTimer(bool wallClock) {
  const int fd = timerfd_create(wallClock ? CLOCK_REALTIME : CLOCK_MONOTONIC,
                                TFD_NONBLOCK | TFD_CLOEXEC);
  if (fd < 0) return false;
  const std::uint64_t registration = reactor_->add(fd, EPOLLIN, weak_from_this());
  if (registration == 0) {
    close(fd);
    return false;
  }
  disconnectLocked();
  fd_ = fd;
  registration_ = registration;
  timerOnWallClock_ = wallClock;
  return true;
}

void Source::disconnectLocked() {
  if (registration_ != 0) reactor_->remove(fd_, registration_);
  registration_ = 0;
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

void Source::setEventHandler(std::function<void()> handler) {
  Handler stored = handler ? std::make_shared<const std::function<void()>>(std::move(handler)) : nullptr;
  std::lock_guard lock(mutex_);
  if (!cancelDelivered_) eventHandler_ = std::move(stored);
}

void Source::setCancelHandler(std::function<void()> handler) {
  Handler stored = handler ? std::make_shared<const std::function<void()>>(std::move(handler)) : nullptr;
  std::lock_guard lock(mutex_);
  if (!cancelDelivered_) cancelHandler_ = std::move(stored);
}

void Source::setTimer(Time start, std::uint64_t intervalNanos, std::uint64_t) {
  if (kind_ != Kind::Timer) detail::fail("setTimer() on a source that is not a timer");
  std::lock_guard lock(mutex_);
  if (cancelled_.load(std::memory_order_relaxed)) return;
  if (start.isWallClock() != timerOnWallClock_ && !openTimer(start.isWallClock())) {
    detail::fail("cannot create a timer descriptor");
  }
  itimerspec setting{};
  if (!start.isForever()) {
    setting.it_value = toTimespec(nanosecondsSinceEpoch(start));
    constexpr auto kMaxInterval = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (intervalNanos != 0 && intervalNanos <= kMaxInterval) {
      setting.it_interval = toTimespec(static_cast<std::int64_t>(intervalNanos));
    }
  }
  timerfd_settime(fd_, TFD_TIMER_ABSTIME, &setting, nullptr);
  pending_ = 0;
  hasPending_ = false;
}

void Source::mergeData(std::uintptr_t value) {
  if (kind_ != Kind::DataOr) detail::fail("mergeData() on a source that is not a data-or source");
  if (value == 0) return;
  std::lock_guard lock(mutex_);
  if (cancelled_.load(std::memory_order_relaxed)) return;
  pending_ |= value;
  hasPending_ = true;
  scheduleLocked();
}

void Source::resume() {
  std::lock_guard lock(mutex_);
  if (suspendCount_ == 0) detail::fail("resume() of a source that is not suspended");
  if (--suspendCount_ > 0) return;
  if (!runScheduled_) armLocked();
  scheduleLocked();
}

void Source::suspend() {
  std::lock_guard lock(mutex_);
  ++suspendCount_;
}

void Source::cancel() {
  Ref<detail::Reactor> reactor;
  {
    std::lock_guard lock(mutex_);
    if (cancelled_.load(std::memory_order_relaxed)) return;
    cancelled_.store(true, std::memory_order_release);
    disconnectLocked();
    reactor = std::move(reactor_);
    scheduleLocked();
  }
  // Dropping the reactor may stop its thread, which may be waiting for our lock.
}

void Source::reactorEvent(std::uint32_t) {
  std::lock_guard lock(mutex_);
  if (cancelled_.load(std::memory_order_relaxed)) return;
  if (kind_ == Kind::Timer) {
    std::uint64_t expirations = 0;
    if (read(fd_, &expirations, sizeof expirations) != sizeof expirations || expirations == 0) return;
    pending_ += static_cast<std::uintptr_t>(expirations);
  }
  hasPending_ = true;
  scheduleLocked();
}

// Queues a run when one is due and none is queued or running.
void Source::scheduleLocked() {
  if (runScheduled_ || suspendCount_ > 0) return;
  const bool cancelDue = cancelled_.load(std::memory_order_relaxed) && !cancelDelivered_;
  if (!cancelDue && (!hasPending_ || cancelled_.load(std::memory_order_relaxed))) return;
  runScheduled_ = true;
  queue_->async([self = shared_from_this()] { self->run(); });
}

// Read sources: watch for the next readiness.
void Source::armLocked() {
  if (kind_ != Kind::Read || cancelled_.load(std::memory_order_relaxed) || suspendCount_ > 0) return;
  if (pollable_) {
    reactor_->modify(fd_, registration_, kReadArmed);
    return;
  }
  int available = 0;
  if (ioctl(fd_, FIONREAD, &available) == 0 && available > 0) hasPending_ = true;
}

std::uintptr_t Source::takeDataLocked() {
  std::uintptr_t data = pending_;
  if (kind_ == Kind::Read) {
    int available = 0;
    data = ioctl(fd_, FIONREAD, &available) == 0 && available > 0
               ? static_cast<std::uintptr_t>(available)
               : 0;
  }
  pending_ = 0;
  hasPending_ = false;
  return data;
}

void Source::run() {
  Handler handler;
  std::uintptr_t data = 0;
  bool cancelRun = false;
  {
    std::lock_guard lock(mutex_);
    if (cancelled_.load(std::memory_order_relaxed)) {
      runScheduled_ = false;
      if (suspendCount_ > 0 || cancelDelivered_) return;
      cancelDelivered_ = true;
      cancelRun = true;
      handler = std::move(cancelHandler_);
      eventHandler_.reset();
    } else if (suspendCount_ > 0 || !hasPending_) {
      runScheduled_ = false;
      return;
    } else {
      data = takeDataLocked();
      handler = eventHandler_;
    }
  }
  if (cancelRun) {
    // Nothing runs after the cancel handler.
    if (handler) (*handler)();
    return;
  }
  if (handler) {
    data_.store(data, std::memory_order_relaxed);
    (*handler)();
  }
  std::lock_guard lock(mutex_);
  runScheduled_ = false;
  armLocked();
  scheduleLocked();
}

}  // namespace fennick::dispatch
