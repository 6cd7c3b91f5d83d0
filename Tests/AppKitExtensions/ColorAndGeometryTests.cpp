#include <gtest/gtest.h>

#include "fennick/AppKitExtensions/Color.h"
#include "fennick/FoundationExtensions/GeometryExtensions.h"

using namespace fennick;

TEST(Color, PackedValuesGiveComponentsInTheirSpace) {
  EXPECT_EQ(Color::ov_colorWithRGBAHex(0xFF000080), (Color{ColorSpace::genericRGB, 1, 0, 0, 128 / 255.0}));
  EXPECT_EQ(Color::ov_colorWithRGBAHex_colorSpace(0x00FF00FF, ColorSpace::deviceRGB),
            (Color{ColorSpace::deviceRGB, 0, 1, 0, 1}));
  // The top byte of an RGB value is dropped; RGB colours are opaque.
  EXPECT_EQ(Color::ov_colorWithRGBHex(0x12345678), Color::ov_colorWithRGBAHex(0x345678FF));
  EXPECT_EQ(Color::ov_colorWithSRGBHex(0x0000FF).colorSpace, ColorSpace::sRGB);
  EXPECT_EQ(Color::ov_colorWithDeviceRGBHex(0x0000FF), (Color{ColorSpace::deviceRGB, 0, 0, 1, 1}));
  EXPECT_EQ(Color::ov_colorWithRGBHex_colorSpace(0x808080, std::nullopt).colorSpace, ColorSpace::genericRGB);
}

TEST(Color, HexTextsAreScannedLikeATextScanner) {
  EXPECT_EQ(Color::ov_colorWithSRGBHexString_alpha("FF8000", 0.5), (Color{ColorSpace::sRGB, 1, 128 / 255.0, 0, 0.5}));
  EXPECT_EQ(Color::ov_colorWithSRGBHexString_alpha("  0xff8000 trailing", 1), Color::ov_colorWithSRGBHex(0xFF8000));
  // Eight digits are an RGB value whose top byte is dropped, not RGBA.
  EXPECT_EQ(Color::ov_colorWithSRGBHexString_alpha("FF8000CC", 1), Color::ov_colorWithSRGBHex(0x8000CC));
  EXPECT_EQ(Color::ov_colorWithSRGBHexString_alpha("no digits", 0.25), (Color{ColorSpace::sRGB, 0, 0, 0, 0.25}));
  EXPECT_EQ(Color::ov_colorWithSRGBHexString_alpha("", 1), Color::ov_colorWithSRGBHex(0));
  // Too large for 32 bits: the largest value, so white.
  EXPECT_EQ(Color::ov_colorWithSRGBHexString_alpha("123456789A", 1), Color::ov_colorWithSRGBHex(0xFFFFFF));
}

TEST(Geometry, MixingExtrapolatesAndInsetsFollowTheFlip) {
  EXPECT_DOUBLE_EQ(CGFloatMix(2, 4, 0.5), 3);
  EXPECT_DOUBLE_EQ(CGFloatMix(2, 4, 2), 6);
  EXPECT_DOUBLE_EQ(CGFloatMix(2, 4, -1), 0);
  EXPECT_EQ(CGPointMix({0, 10}, {10, 20}, 0.25), (Point{2.5, 12.5}));
  const Rect rect{{10, 20}, {100, 50}};
  const EdgeInsets insets{1, 2, 3, 4};
  EXPECT_EQ(OVNSEdgeInsetsInsetRect(true, rect, insets), (Rect{{12, 21}, {94, 46}}));
  EXPECT_EQ(OVNSEdgeInsetsInsetRect(false, rect, insets), (Rect{{12, 23}, {94, 46}}));
  EXPECT_EQ(OVNSEdgeInsetsInsetRect(false, rect, EdgeInsets{40, 60, 30, 50}), (Rect{{70, 50}, {-10, -20}}));
}
