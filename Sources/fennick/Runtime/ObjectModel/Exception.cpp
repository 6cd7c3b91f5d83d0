#include "fennick/Runtime/ObjectModel/Exception.h"

#include <utility>

namespace fennick {

Exception::Exception(std::string name, std::string reason, Ref<Dictionary> userInfo)
    : name_(std::move(name)),
      reason_(std::move(reason)),
      userInfo_(std::move(userInfo)),
      what_(name_ + ": " + reason_) {}

void Exception::raise(std::string name, std::string reason) {
  throw Exception(std::move(name), std::move(reason));
}

}  // namespace fennick
