#include "epolygon.h"

#include <cmath>

double EPolygon::getArea() const
{
    const size_t n = points.size();
    if (n < 3)
        return 0.0;
    double area = 0.0;
    for (size_t i = 1; i < n; ++i)
        area += (points[i - 1].y + points[i].y) * 0.5 * (points[i].x - points[i - 1].x);
    const EVector& last = points[n - 1];
    const EVector& first = points[0];
    area += (last.y + first.y) * 0.5 * (last.x - first.x);
    return std::fabs(area);
}

bool EPolygon::hitTestTriangle(const EVector& p) const
{
    const double x0 = points[0].x, y0 = points[0].y;
    const double x1 = points[1].x, y1 = points[1].y;
    const double x2 = points[2].x, y2 = points[2].y;
    const double a = ((x2 - x1) * y0 - y1 * x2 + (y1 - y2) * x0 + x1 * y2) * 0.5;
    const double k = 1.0 / (a + a);
    const double s = ((y2 - y0) * p.x + (y0 * x2 - x0 * y2) + (x0 - x2) * p.y) * k;
    const double t = ((x1 - x0) * p.y + ((y0 - y1) * p.x + (x0 * y1 - y0 * x1))) * k;
    return s >= 0 && t >= 0 && 1 - s - t >= 0;
}

bool EPolygon::HitTest(const EVector& p) const
{
    const size_t n = points.size();
    if (n == 3)
        return hitTestTriangle(p);
    if (n == 0)
        return false;
    bool inside = false;
    for (size_t i = 0, j = n - 1; i < n; j = i++) {
        const EVector& vi = points[i];
        const EVector& vj = points[j];
        if ((vi.y > p.y) != (vj.y > p.y)
            && (vj.x - vi.x) * (p.y - vi.y) / (vj.y - vi.y) + vi.x > p.x)
            inside = !inside;
    }
    return inside;
}
