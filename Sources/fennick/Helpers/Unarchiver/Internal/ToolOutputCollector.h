#pragma once
// Reads what a tool writes to a pipe on a thread of its own, so that a tool
// that writes much there never blocks while it is fed or waited for.
#include "fennick/Runtime/Processes/Pipe.h"

#include <string>
#include <thread>

namespace fennick::detail {

class ToolOutputCollector {
 public:
  /// Collects from `pipe`'s reading end; `pipe` must not be nil.
  explicit ToolOutputCollector(Ref<Pipe> pipe);
  ~ToolOutputCollector();
  ToolOutputCollector(const ToolOutputCollector&) = delete;
  ToolOutputCollector& operator=(const ToolOutputCollector&) = delete;

  /// Starts reading; call after the tool has been launched (which closes our
  /// copy of the writing end, so that reading ends when the tool exits).
  void start();
  /// Everything read; waits for the end of the output.
  std::string take();

 private:
  Ref<Pipe> pipe_;
  std::thread thread_;
  std::string text_;
};

}  // namespace fennick::detail
