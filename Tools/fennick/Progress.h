#pragma once
// Progress of long work, for commands that walk, unpack or digest. On a
// terminal it redraws one live line (at most ten times a second); otherwise it
// prints a plain line only when the whole percentage changes, so that logs
// stay short. Thread-safe: work may report from any queue.
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>

namespace fennick::tool {

class Progress {
 public:
  explicit Progress(std::FILE* out = stderr);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  bool isLive() const { return live_; }
  /// A counter with no known end ("12,345 items walked"): shown only when live.
  void status(std::string_view text);
  /// A fraction of known work, 0 to 1, with a label.
  void fraction(double done, std::string_view label);
  /// Clears the live line; later output starts on a clean line.
  void finish();

 private:
  bool due();
  void draw(const std::string& line);

  std::FILE* out_;
  bool live_;
  std::mutex mutex_;
  std::chrono::steady_clock::time_point lastDraw_{};
  int lastPercent_ = -1;
  bool drawn_ = false;
};

}  // namespace fennick::tool
