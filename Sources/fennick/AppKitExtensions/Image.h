#pragma once
// An image for the interface layer: a themed icon name or encoded image data
// (PNG, JPEG, SVG … as the toolkit's loaders accept). The layer itself never
// decodes it; the backend does when it shows the image. Immutable and
// thread-safe.
#include "fennick/Runtime/Values/Data.h"
#include "fennick/Runtime/ObjectModel/Object.h"

#include <string>
#include <string_view>

namespace fennick {

class Image : public Object {
  FENNICK_DECLARE_CLASS(Image, Object)

 public:
  /// The icon of that name in the desktop's icon theme ("dialog-warning",
  /// "folder"); nullptr for an empty name.
  static Ref<Image> imageNamed(std::string_view name);
  /// The encoded bytes; nullptr for missing or empty data.
  static Ref<Image> imageWithData(const Ref<Data>& data);
  /// The file's bytes; nullptr when it cannot be read or is empty.
  static Ref<Image> imageWithContentsOfFile(const std::string& path);

  /// The icon name; empty for an image made from data.
  const std::string& name() const noexcept { return name_; }
  /// The encoded bytes; nullptr for a named icon.
  const Ref<Data>& data() const noexcept { return data_; }

  std::string description() const override;
  Id copy() const override { return std::const_pointer_cast<Object>(self()); }

 protected:
  Image(std::string name, Ref<Data> data) : name_(std::move(name)), data_(std::move(data)) {}

 private:
  const std::string name_;
  const Ref<Data> data_;
};

}  // namespace fennick
