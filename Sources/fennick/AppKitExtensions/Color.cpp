#include "fennick/AppKitExtensions/Color.h"

#include <limits>

namespace fennick {
namespace {

double byteComponent(std::uint32_t value, int shift) { return ((value >> shift) & 0xFF) / 255.0; }

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads a hexadecimal number the way a text scanner does: leading white space
// and an optional 0x are skipped, and a number too large for 32 bits gives
// the largest value. Nothing readable gives 0.
std::uint32_t scanHex(std::string_view text) {
  std::size_t at = 0;
  while (at < text.size() && isSpace(text[at])) ++at;
  if (text.substr(at, 2) == "0x" || text.substr(at, 2) == "0X") {
    if (at + 2 < text.size() && hexDigit(text[at + 2]) >= 0) at += 2;
  }
  std::uint64_t value = 0;
  for (; at < text.size() && hexDigit(text[at]) >= 0; ++at) {
    value = value * 16 + static_cast<std::uint64_t>(hexDigit(text[at]));
    if (value > std::numeric_limits<std::uint32_t>::max()) return std::numeric_limits<std::uint32_t>::max();
  }
  return static_cast<std::uint32_t>(value);
}

}  // namespace

Color Color::colorWithAlphaComponent(double alpha) const {
  Color color = *this;
  color.alphaComponent = alpha;
  return color;
}

Color Color::ov_colorWithRGBAHex_colorSpace(std::uint32_t rgba, std::optional<ColorSpace> space) {
  return Color{space.value_or(ColorSpace::genericRGB), byteComponent(rgba, 24), byteComponent(rgba, 16),
               byteComponent(rgba, 8), byteComponent(rgba, 0)};
}

Color Color::ov_colorWithRGBAHex(std::uint32_t rgba) { return ov_colorWithRGBAHex_colorSpace(rgba, std::nullopt); }

Color Color::ov_colorWithRGBHex_colorSpace(std::uint32_t rgb, std::optional<ColorSpace> space) {
  return ov_colorWithRGBAHex_colorSpace(static_cast<std::uint32_t>(rgb << 8) | 0xFFu, space);
}

Color Color::ov_colorWithRGBHex(std::uint32_t rgb) { return ov_colorWithRGBHex_colorSpace(rgb, std::nullopt); }

Color Color::ov_colorWithSRGBHex(std::uint32_t rgb) { return ov_colorWithRGBHex_colorSpace(rgb, ColorSpace::sRGB); }

Color Color::ov_colorWithDeviceRGBHex(std::uint32_t rgb) {
  return ov_colorWithRGBHex_colorSpace(rgb, ColorSpace::deviceRGB);
}

Color Color::ov_colorWithSRGBHexString_alpha(std::string_view text, double alpha) {
  return ov_colorWithSRGBHex(scanHex(text)).colorWithAlphaComponent(alpha);
}

}  // namespace fennick
