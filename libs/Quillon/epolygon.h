#pragma once

#include "evector.h"

#include <vector>

// Vertices in order, not closed: the last vertex does not repeat the first.
class EPolygon {
public:
    std::vector<EVector> points;

    EPolygon() = default;
    explicit EPolygon(const std::vector<EVector>& vertices) : points(vertices) {}

    EVector& operator[](int i) { return points[i]; }
    const EVector& operator[](int i) const { return points[i]; }
    int size() const { return static_cast<int>(points.size()); }

    // A full copy, payload included.
    EPolygon Clone() const { return EPolygon(points); }

    // Trapezoid sum whose closing term runs the other way round; for most
    // polygons this is not the geometric area, and callers rely on that.
    double getArea() const;
    // Barycentric test on vertices 0..2; the boundary counts as inside.
    bool hitTestTriangle(const EVector& p) const;
    // Triangles by hitTestTriangle, larger polygons by the even-odd crossing rule.
    bool HitTest(const EVector& p) const;
};
