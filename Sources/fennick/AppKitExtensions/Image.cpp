#include "fennick/AppKitExtensions/Image.h"

#include <fstream>
#include <iterator>
#include <vector>

#include "fennick/Runtime/ObjectModel/ClassBuilder.h"

namespace fennick {

FENNICK_DEFINE_CLASS(Image) {
  builder.property("name", &Image::name);
  builder.property("data", &Image::data);
}

Ref<Image> Image::imageNamed(std::string_view name) {
  return name.empty() ? nullptr : make<Image>(std::string(name), nullptr);
}

Ref<Image> Image::imageWithData(const Ref<Data>& data) {
  return data && data->length() ? make<Image>(std::string(), data) : nullptr;
}

Ref<Image> Image::imageWithContentsOfFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return nullptr;
  std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  if (file.bad()) return nullptr;
  return imageWithData(Data::dataWithBytes(std::move(bytes)));
}

std::string Image::description() const {
  return name_.empty() ? fmt::format("<Image: {} bytes>", data_->length()) : fmt::format("<Image: {}>", name_);
}

}  // namespace fennick
