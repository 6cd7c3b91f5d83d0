#include "fennick/Runtime/ObjectModel/Log.h"

#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <utility>

namespace fennick {

namespace {

struct SinkSlot {
  std::mutex mutex;
  // Shared so that a writer can call the sink it found without holding the
  // lock while another thread installs a new one.
  std::shared_ptr<const Log::Sink> sink;
};

SinkSlot& sinkSlot() {
  static SinkSlot* slot = new SinkSlot;  // outlives static destructors that may log
  return *slot;
}

// "2024-05-01 12:00:00.123 name[pid:tid] ", the prefix users know from the
// platform's log lines on the terminal.
std::string standardErrorPrefix() {
  const auto now = std::chrono::system_clock::now();
  const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
  const auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm local{};
  localtime_r(&seconds, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  return fmt::format("{}.{:03} {}[{}:{}] ", stamp, millis, program_invocation_short_name, getpid(),
                     static_cast<long>(syscall(SYS_gettid)));
}

void writeToStandardError(std::string_view line) {
  // One write per line, so that lines of concurrent writers do not interleave.
  std::string text = standardErrorPrefix();
  text.append(line).push_back('\n');
  std::string_view rest = text;
  while (!rest.empty()) {
    const ssize_t written = ::write(STDERR_FILENO, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace

void Log::write(std::string_view line) {
  std::shared_ptr<const Sink> sink;
  {
    SinkSlot& slot = sinkSlot();
    std::lock_guard lock(slot.mutex);
    sink = slot.sink;
  }
  if (sink) return (*sink)(line);
  writeToStandardError(line);
  syslog(LOG_USER | LOG_NOTICE, "%.*s", static_cast<int>(line.size()), line.data());
}

Log::Sink Log::setSink(Sink sink) {
  auto replacement = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
  SinkSlot& slot = sinkSlot();
  std::lock_guard lock(slot.mutex);
  std::shared_ptr<const Sink> previous = std::exchange(slot.sink, std::move(replacement));
  return previous ? *previous : Sink();
}

LogCapture::LogCapture() : store_(std::make_shared<Store>()) {
  previous_ = Log::setSink([store = store_](std::string_view line) {
    std::lock_guard lock(store->mutex);
    store->lines.emplace_back(line);
  });
}

LogCapture::~LogCapture() { Log::setSink(std::move(previous_)); }

std::vector<std::string> LogCapture::lines() const {
  std::lock_guard lock(store_->mutex);
  return store_->lines;
}

bool LogCapture::contains(std::string_view text) const {
  std::lock_guard lock(store_->mutex);
  return std::any_of(store_->lines.begin(), store_->lines.end(),
                     [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

void LogCapture::clear() {
  std::lock_guard lock(store_->mutex);
  store_->lines.clear();
}

}  // namespace fennick
