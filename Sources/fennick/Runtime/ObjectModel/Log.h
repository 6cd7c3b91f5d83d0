#pragma once
// The framework's one logging channel: each line goes to standard error and to
// the system log (syslog, LOG_USER | LOG_NOTICE). There are no levels; the few
// operations that log use fixed texts. Callers render "%@"-style texts with
// fmt, filling each object argument with its description().
#include <fmt/format.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace fennick {

class Log {
 public:
  /// Receives each logged line (without a trailing newline).
  using Sink = std::function<void(std::string_view line)>;

  /// Writes one line. Thread-safe; a line is never interleaved with another.
  /// While a sink is installed the line goes to the sink only, so that tests
  /// can read what was logged without filling the system log.
  static void write(std::string_view line);

  /// Installs a sink (nil restores the default output) and returns the one it
  /// replaces, so that sinks can be stacked and restored. The sink may be
  /// called from any thread, concurrently; it must not log itself.
  static Sink setSink(Sink sink);
};

/// Formats with fmt and logs the result: OVLog("ERROR: {} in {}", name, where).
template <class... Args>
void OVLog(fmt::format_string<Args...> pattern, Args&&... args) {
  Log::write(fmt::format(pattern, std::forward<Args>(args)...));
}

/// Collects the lines logged during its lifetime (from every thread) and keeps
/// them out of standard error and the system log; restores the previous sink
/// when destroyed. Meant for tests.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// The lines captured so far, in the order they were logged.
  std::vector<std::string> lines() const;
  /// Whether some captured line contains `text`.
  bool contains(std::string_view text) const;
  void clear();

 private:
  struct Store {
    mutable std::mutex mutex;
    std::vector<std::string> lines;
  };
  std::shared_ptr<Store> store_;
  Log::Sink previous_;
};

}  // namespace fennick
