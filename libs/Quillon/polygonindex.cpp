#include "polygonindex.h"

#include <algorithm>
#include <cmath>

PolygonIndex::PolygonIndex(const EPolygon& polygon_) : polygon(polygon_)
{
    const std::vector<EVector>& v = polygon.points;
    const std::size_t n = v.size();
    if (n <= 3)
        return;
    top = bottom = v[0].y;
    for (const EVector& p : v) {
        top = std::min(top, p.y);
        bottom = std::max(bottom, p.y);
    }
    if (!(bottom > top))
        return;
    const int count = std::clamp(int(n / 4), 1, 256);
    bandHeight = (bottom - top) / count;
    bands.resize(std::size_t(count));
    for (std::size_t i = 0, j = n - 1; i < n; j = i++) {
        const double low = std::min(v[i].y, v[j].y), high = std::max(v[i].y, v[j].y);
        // A point crosses this edge only with low <= y < high.
        if (!(high > low))
            continue;
        for (int b = bandOf(low); b <= bandOf(high); ++b)
            bands[std::size_t(b)].push_back(int(i));
    }
}

int PolygonIndex::bandOf(double y) const
{
    // Rises with y, so the band of a point lies between those of an edge's ends.
    return std::clamp(int(std::floor((y - top) / bandHeight)), 0, int(bands.size()) - 1);
}

bool PolygonIndex::HitTest(const EVector& p) const
{
    if (bands.empty())
        return polygon.HitTest(p);
    // Outside [top, bottom) every edge has both ends on one side; NaN fails here too.
    if (!(p.y >= top && p.y < bottom))
        return false;
    const std::vector<EVector>& v = polygon.points;
    const std::size_t n = v.size();
    bool inside = false;
    for (int e : bands[std::size_t(bandOf(p.y))]) {
        const EVector& vi = v[std::size_t(e)];
        const EVector& vj = v[e == 0 ? n - 1 : std::size_t(e) - 1];
        if ((vi.y > p.y) != (vj.y > p.y) && (vj.x - vi.x) * (p.y - vi.y) / (vj.y - vi.y) + vi.x > p.x)
            inside = !inside;
    }
    return inside;
}
