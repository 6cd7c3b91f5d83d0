#include "fennick/Helpers/Unarchiver/Internal/ToolOutputCollector.h"

#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/Processes/FileHandle.h"

namespace fennick::detail {

ToolOutputCollector::ToolOutputCollector(Ref<Pipe> pipe) : pipe_(std::move(pipe)) {}

ToolOutputCollector::~ToolOutputCollector() {
  if (thread_.joinable()) thread_.join();
}

void ToolOutputCollector::start() {
  thread_ = std::thread([this] {
    if (auto data = pipe_->fileHandleForReading()->readDataToEndOfFileAndReturnError(nullptr))
      text_ = std::string(data->stringView());
  });
}

std::string ToolOutputCollector::take() {
  if (thread_.joinable()) thread_.join();
  return std::move(text_);
}

}  // namespace fennick::detail
