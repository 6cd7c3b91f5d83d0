#include "fennick/Helpers/Unarchiver/Internal/ToolWatchdog.h"

#include <charconv>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/syscall.h>
#include <unistd.h>

namespace fennick::detail {

namespace {

struct IOCounters {
  std::uint64_t read = 0;
  std::uint64_t written = 0;
};

std::optional<std::uint64_t> counter(std::string_view text, std::string_view name) {
  const std::size_t at = text.find(name);
  if (at == std::string_view::npos) return std::nullopt;
  const char* begin = text.data() + at + name.size();
  std::uint64_t value = 0;
  if (std::from_chars(begin, text.data() + text.size(), value).ec != std::errc()) return std::nullopt;
  return value;
}

std::optional<IOCounters> readIOCounters(pid_t pid) {
  const std::string path = "/proc/" + std::to_string(pid) + "/io";
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  char buffer[512];
  const ssize_t length = ::read(fd, buffer, sizeof buffer);
  ::close(fd);
  if (length <= 0) return std::nullopt;
  const std::string_view text(buffer, static_cast<std::size_t>(length));
  const auto read = counter(text, "rchar: "), written = counter(text, "wchar: ");
  if (!read || !written) return std::nullopt;
  return IOCounters{*read, *written};
}

}  // namespace

ToolWatchdog::ToolWatchdog(Ref<Process> tool, std::uint64_t maximumBytesWritten,
                           std::chrono::milliseconds stallTimeout)
    : tool_(std::move(tool)),
      maximumBytesWritten_(maximumBytesWritten),
      stallTimeout_(stallTimeout),
      pid_(tool_->processIdentifier()) {
  // Signals go through a pidfd, never to a bare process ID. The pidfd is
  // known to name our child when the child is still unreaped after it was
  // opened: until it is reaped, its process ID cannot be given to another.
  pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
  if (pidfd_ >= 0 && !tool_->isRunning()) {
    ::close(pidfd_);
    pidfd_ = -1;
  }
  thread_ = std::thread([this] { watch(); });
}

ToolWatchdog::~ToolWatchdog() {
  finish();
  if (pidfd_ >= 0) ::close(pidfd_);
}

ToolWatchdog::Verdict ToolWatchdog::finish() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
  std::lock_guard lock(mutex_);
  return verdict_;
}

void ToolWatchdog::watch() {
  auto lastProgress = std::chrono::steady_clock::now();
  std::uint64_t lastCount = 0;
  std::unique_lock lock(mutex_);
  while (!wake_.wait_for(lock, kInterval, [this] { return stopping_; })) {
    lock.unlock();
    const auto now = std::chrono::steady_clock::now();
    Verdict verdict = Verdict::Ran;
    if (const auto io = readIOCounters(pid_)) {
      if (io->written > maximumBytesWritten_) {
        verdict = Verdict::WroteTooMuch;
      } else if (io->read + io->written != lastCount) {
        lastCount = io->read + io->written;
        lastProgress = now;
      } else if (now - lastProgress >= stallTimeout_) {
        verdict = Verdict::Stalled;
      }
    } else {
      lastProgress = now;
    }
    if (verdict != Verdict::Ran) end();
    lock.lock();
    if (verdict != Verdict::Ran) {
      verdict_ = verdict;
      return;
    }
  }
}

void ToolWatchdog::end() {
  if (pidfd_ >= 0) {
    ::syscall(SYS_pidfd_send_signal, pidfd_, SIGKILL, nullptr, 0);
    return;
  }
  // Without a pidfd, the Process's own (safe) signals: a stopped tool must
  // be continued for its termination to take effect.
  tool_->terminate();
  tool_->resume();
}

}  // namespace fennick::detail
