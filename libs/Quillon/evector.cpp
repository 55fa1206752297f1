#include "evector.h"

double EVector::angle(const EVector& o) const
{
    double cosine = (x * o.x + y * o.y) / (length() * o.length());
    double deg = std::acos(cosine) * 180.0 / 3.141592653589793;
    if (cross(o) < 0)
        deg = -deg;
    if (std::isnan(deg))
        return 0.0;
    return deg;
}

bool EVector::segmentsIntersect(const EVectorSegment& s1, const EVectorSegment& s2)
{
    const EVector& a = s1.start;
    const EVector& b = s1.end;
    const EVector& c = s2.start;
    const EVector& d = s2.end;
    double c1 = (c - a).cross(c - d);
    double c2 = (c - b).cross(c - d);
    double c3 = (a - c).cross(a - b);
    double c4 = (a - d).cross(a - b);
    return c1 * c2 < 0 && c3 * c4 < 0;
}

bool xAscSort(EVector a, EVector b) { return a.x < b.x; }
bool xAscSort2(EVector a, EVector b) { return a.x < b.x; }
bool yAscSort(EVector a, EVector b) { return a.y < b.y; }
bool yAscSort2(EVector a, EVector b) { return a.y < b.y; }
bool xDescSort(EVector a, EVector b) { return a.x > b.x; }
bool xDescSort2(EVector a, EVector b) { return a.x > b.x; }
bool yDescSort(EVector a, EVector b) { return a.y > b.y; }
bool yDescSort2(EVector a, EVector b) { return a.y > b.y; }
bool weightDescSort(EVector a, EVector b) { return a.weight > b.weight; }
