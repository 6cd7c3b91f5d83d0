#include "fennick/Runtime/Collections/Collection.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

#include <fmt/format.h>

namespace fennick {

FENNICK_DEFINE_CLASS(Collection) {}

void Collection::willMutate(const char* operation) {
  if (!mutable_)
    throw Exception(NSInternalInconsistencyException,
                    fmt::format("-[{} {}]: mutating method sent to immutable object",
                                objectClass()->name(), operation));
  ++mutations_;
}

void Collection::checkNotMutatedSince(std::uint64_t seen) const {
  if (mutations_ != seen)
    throw Exception(NSGenericException,
                    fmt::format("*** Collection <{}: {}> was mutated while being enumerated.",
                                objectClass()->name(), static_cast<const void*>(this)));
}

void Collection::requireNonNil(const Id& object, const char* operation, const char* what) {
  if (!object)
    throw Exception(NSInvalidArgumentException,
                    fmt::format("*** {}: {} cannot be nil", operation, what));
}

void Collection::throwIndexOutOfRange(const char* operation, std::size_t index) const {
  const std::size_t size = count();
  throw Exception(NSRangeException,
                  size == 0 ? fmt::format("*** {}: index {} beyond bounds for empty array",
                                          operation, index)
                            : fmt::format("*** {}: index {} beyond bounds [0 .. {}]", operation,
                                          index, size - 1));
}

}  // namespace fennick
