#pragma once
// Sums progress steps and reports each running total to a handler (when
// there is one), as the unpacker's job and its disk-image step both do.
#include <functional>

namespace fennick::detail {

class ProgressAccumulator {
 public:
  explicit ProgressAccumulator(const std::function<void(double)>& handler) : handler_(handler) {}
  void step(double amount) {
    total_ += amount;
    if (handler_) handler_(total_);
  }

 private:
  const std::function<void(double)>& handler_;
  double total_ = 0;
};

}  // namespace fennick::detail
