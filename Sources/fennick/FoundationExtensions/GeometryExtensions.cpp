#include "fennick/FoundationExtensions/GeometryExtensions.h"

namespace fennick {

double CGFloatMix(double a, double b, double t) { return (1.0 - t) * a + b * t; }

Point CGPointMix(Point p, Point q, double t) {
  return Point{(1.0 - t) * p.x + t * q.x, (1.0 - t) * p.y + t * q.y};
}

Rect OVNSEdgeInsetsInsetRect(bool flipped, Rect rect, EdgeInsets insets) {
  return Rect{{rect.origin.x + insets.left, rect.origin.y + (flipped ? insets.top : insets.bottom)},
              {rect.size.width - (insets.left + insets.right), rect.size.height - (insets.top + insets.bottom)}};
}

}  // namespace fennick
