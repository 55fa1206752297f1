#include "transformarea.h"

#include "icorrection.h"

#include <cstddef>

TransformArea::TransformArea(const EPolygon& src, const EPolygon& dst, const EPolygon& hit)
    : PerspectiveTransform(src, dst), hitArea(hit), sizePolygon(src)
{
}

namespace {

// fixed + factor * (moved - fixed), on x and y only.
void pushAway(EVector& moved, const EVector& oldMoved, const EVector& fixed, double factor)
{
    moved.x = fixed.x + factor * (oldMoved.x - fixed.x);
    moved.y = fixed.y + factor * (oldMoved.y - fixed.y);
}

} // namespace

void TransformArea::ExtendHitArea(float factor, int mode)
{
    if (hitArea.size() < 4)
        return;
    const double f = factor;
    EVector& a = hitArea[0];
    EVector& b = hitArea[1];
    EVector& c = hitArea[2];
    EVector& d = hitArea[3];
    const EVector A = a, B = b, C = c, D = d;
    switch (mode) {
    case 0: pushAway(a, A, C, f); pushAway(b, B, C, f); pushAway(d, D, C, f); break;
    case 1: pushAway(a, A, D, f); pushAway(b, B, D, f); pushAway(c, C, D, f); break;
    case 2: pushAway(a, A, B, f); pushAway(c, C, B, f); pushAway(d, D, B, f); break;
    case 3: pushAway(b, B, A, f); pushAway(c, C, A, f); pushAway(d, D, A, f); break;
    case 4: {
        const EVector m = (A + B + C + D) / 4.0;
        pushAway(a, A, m, f);
        pushAway(b, B, m, f);
        pushAway(c, C, m, f);
        pushAway(d, D, m, f);
        break;
    }
    case 5: pushAway(b, B, A, f); pushAway(c, C, D, f); break;
    case 6: pushAway(a, A, B, f); pushAway(d, D, C, f); break;
    case 7: pushAway(a, A, D, f); pushAway(b, B, C, f); break;
    case 8: pushAway(d, D, A, f); pushAway(c, C, B, f); break;
    default: break;
    }
}

double TransformArea::GetInterpolatedBlobsize(const EVector& p) const
{
    double product = 1.0;
    double sum = 0.0;
    for (const EVector& v : sizePolygon.points) {
        const double d = (v - p).length();
        if (d == 0.0)
            return v.measureC;
        product *= d;
        sum += v.measureC / d;
    }
    double weights = 0.0;
    for (const EVector& v : sizePolygon.points)
        weights += product / (v - p).length();
    return product * sum / weights;
}

void TransformArea::InterpolatetHitArea(int steps, ICorrection* correction)
{
    auto place = [correction](const EVector& v) { return correction ? correction->undistort(v) : v; };
    std::vector<EVector> dense;
    const std::size_t n = hitArea.points.size();
    for (std::size_t i = 0; i + 1 < n; i += 2) {
        const EVector a = hitArea.points[i];
        const EVector b = hitArea.points[i + 1];
        dense.push_back(place(a));
        for (int k = 0; k < steps; ++k)
            dense.push_back(place(a + (b - a) * (static_cast<double>(k) / steps)));
        dense.push_back(place(b));
    }
    hitArea = EPolygon(dense);
}
