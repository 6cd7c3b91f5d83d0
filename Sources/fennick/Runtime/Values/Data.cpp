#include "fennick/Runtime/Values/Data.h"

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

#include <cstring>

namespace fennick {

FENNICK_DEFINE_CLASS(Data) {
  builder.archiveNames({"NSData", "NSMutableData"});
  builder.property("length", &Data::length);
}

Ref<Data> Data::data() { return make<Data>(); }

Ref<Data> Data::dataWithBytes(const void* bytes, std::size_t length) {
  const auto* first = static_cast<const std::uint8_t*>(bytes);
  return make<Data>(length ? std::vector<std::uint8_t>(first, first + length)
                           : std::vector<std::uint8_t>());
}

Ref<Data> Data::dataWithBytes(std::vector<std::uint8_t> bytes) { return make<Data>(std::move(bytes)); }

Ref<Data> Data::dataWithString(std::string_view text) { return dataWithBytes(text.data(), text.size()); }

bool Data::isEqual(const Object* other) const {
  if (other == this) return true;
  auto* data = Data::dynamicCastObject(other);
  return data && data->bytes_ == bytes_;
}

std::size_t Data::hash() const {
  // Like the platform, hash a bounded prefix: long blobs stay cheap to hash.
  return std::hash<std::string_view>()(stringView().substr(0, 80)) ^ bytes_.size();
}

std::string Data::description() const {
  std::string text = fmt::format("{{length = {}, bytes = 0x", bytes_.size());
  for (std::uint8_t byte : bytes_) text += fmt::format("{:02x}", byte);
  return text + "}";
}

Id Data::copy() const { return std::const_pointer_cast<Object>(self()); }

}  // namespace fennick
