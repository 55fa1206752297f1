#pragma once

#include "epolygon.h"

#include <vector>

// EPolygon::HitTest for a polygon that stays as it is and is asked often, such as the screen's
// outline in the sensor image, which has hundreds of vertices: its edges are kept in bands of
// y, and a point meets only the edges of its band. The same answer, bit for bit, as the
// polygon's own test, since the edges a point can cross are all in its band and each is
// tested with the same expression.
class PolygonIndex {
public:
    explicit PolygonIndex(const EPolygon& polygon);

    bool HitTest(const EVector& p) const;

private:
    int bandOf(double y) const;

    EPolygon polygon;
    double top = 0, bottom = 0, bandHeight = 1;
    // Per band, the edges (index of their first vertex) whose y range reaches into it.
    std::vector<std::vector<int>> bands;
};
