#pragma once
// Points, sizes, rectangles and edge insets, with interpolation and insetting.
// Plain values; the functions keep no state and accept any input.
namespace fennick {

struct Point {
  double x = 0;
  double y = 0;
  friend bool operator==(const Point&, const Point&) = default;
};

struct Size {
  double width = 0;
  double height = 0;
  friend bool operator==(const Size&, const Size&) = default;
};

struct Rect {
  Point origin;
  Size size;
  friend bool operator==(const Rect&, const Rect&) = default;
};

/// Distances to move each edge inwards.
struct EdgeInsets {
  double top = 0;
  double left = 0;
  double bottom = 0;
  double right = 0;
  friend bool operator==(const EdgeInsets&, const EdgeInsets&) = default;
};

/// (1 - t) * a + b * t; t outside 0...1 extrapolates.
double CGFloatMix(double a, double b, double t);
/// The point a fraction t of the way from p to q; t is not clamped.
Point CGPointMix(Point p, Point q, double t);
/// `rect` with its edges moved inwards by `insets`. In a flipped coordinate
/// system (`flipped`, y growing downwards) the origin moves by the top inset,
/// otherwise by the bottom one. Insets larger than the rectangle give a
/// negative width or height, returned as they come.
Rect OVNSEdgeInsetsInsetRect(bool flipped, Rect rect, EdgeInsets insets);

}  // namespace fennick
