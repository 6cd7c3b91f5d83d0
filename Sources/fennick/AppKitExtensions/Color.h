#pragma once
// Colours as the interface layer passes them around: a colour space and four
// components, each from 0.0 to 1.0. The GTK backend converts them to GdkRGBA
// (fennick/GTK/GtkBackend.h).
#include <cstdint>
#include <optional>
#include <string_view>

namespace fennick {

/// The RGB spaces a colour can be given in. Linux desktops draw in sRGB, so
/// the toolkits treat generic and device RGB as sRGB when they render.
enum class ColorSpace { genericRGB, sRGB, deviceRGB };

/// A colour value. Plain data: copy it freely, from any thread.
struct Color {
  ColorSpace colorSpace = ColorSpace::genericRGB;
  double redComponent = 0;
  double greenComponent = 0;
  double blueComponent = 0;
  double alphaComponent = 1;

  /// The same colour with another alpha component.
  Color colorWithAlphaComponent(double alpha) const;
  friend bool operator==(const Color&, const Color&) = default;

  // -- Colours from packed hexadecimal values ----------------------------------
  /// 0xRRGGBBAA, each byte divided by 255, in `space` (generic RGB when absent).
  static Color ov_colorWithRGBAHex_colorSpace(std::uint32_t rgba, std::optional<ColorSpace> space);
  static Color ov_colorWithRGBAHex(std::uint32_t rgba);
  /// 0x00RRGGBB (the top byte is ignored), opaque, in `space` (generic RGB when absent).
  static Color ov_colorWithRGBHex_colorSpace(std::uint32_t rgb, std::optional<ColorSpace> space);
  static Color ov_colorWithRGBHex(std::uint32_t rgb);
  static Color ov_colorWithSRGBHex(std::uint32_t rgb);
  static Color ov_colorWithDeviceRGBHex(std::uint32_t rgb);
  /// The hexadecimal number at the start of `text` (after white space and an
  /// optional "0x"), read as 0x00RRGGBB in sRGB, with `alpha`. Text without
  /// hexadecimal digits gives black. Eight digits lose their top byte, so
  /// "FF8000CC" is the colour 0x8000CC: the value is RGB, never RGBA.
  static Color ov_colorWithSRGBHexString_alpha(std::string_view text, double alpha);
};

}  // namespace fennick
