#include "Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>

namespace fennick::tool {

Progress::Progress(std::FILE* out) : out_(out), live_(isatty(fileno(out)) != 0) {}

Progress::~Progress() { finish(); }

bool Progress::due() {
  const auto now = std::chrono::steady_clock::now();
  if (drawn_ && now - lastDraw_ < std::chrono::milliseconds(100)) return false;
  lastDraw_ = now;
  return true;
}

void Progress::draw(const std::string& line) {
  std::fprintf(out_, "\r\033[K%s", line.c_str());
  std::fflush(out_);
  drawn_ = true;
}

void Progress::status(std::string_view text) {
  std::lock_guard lock(mutex_);
  if (live_ && due()) draw(std::string(text));
}

void Progress::fraction(double done, std::string_view label) {
  std::lock_guard lock(mutex_);
  done = std::clamp(std::isnan(done) ? 0.0 : done, 0.0, 1.0);
  const int percent = static_cast<int>(done * 100);
  if (!live_) {
    if (percent == lastPercent_) return;
    lastPercent_ = percent;
    std::fprintf(out_, "%.*s %d%%\n", static_cast<int>(label.size()), label.data(), percent);
    return;
  }
  if (percent != 100 && percent == lastPercent_ && !due()) return;
  lastPercent_ = percent;
  constexpr int kWidth = 30;
  const int filled = static_cast<int>(done * kWidth);
  std::string line(label);
  line += " [";
  line.append(static_cast<std::size_t>(filled), '#');
  line.append(static_cast<std::size_t>(kWidth - filled), ' ');
  line += "] " + std::to_string(percent) + "%";
  draw(line);
}

void Progress::finish() {
  std::lock_guard lock(mutex_);
  if (live_ && drawn_) {
    std::fprintf(out_, "\r\033[K");
    std::fflush(out_);
  }
  drawn_ = false;
}

}  // namespace fennick::tool
