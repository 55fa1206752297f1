#include "transformgrid.h"

#include "blob.h"

TransformGrid::TransformGrid(const std::vector<TransformArea>& areas_) : areas(areas_) {}

void TransformGrid::SetAreas(const std::vector<TransformArea>& newAreas)
{
    areas.insert(areas.end(), newAreas.begin(), newAreas.end());
}

int TransformGrid::GetAreaIndex(const EVector& p) const
{
    for (std::size_t i = 0; i < areas.size(); ++i) {
        if (areas[i].HitTest(p))
            return static_cast<int>(i);
    }
    return -1;
}

EVector TransformGrid::Filter(const EVector& p) const
{
    double sumX = 0, sumY = 0;
    int hits = 0;
    for (const TransformArea& area : areas) {
        if (area.HitTest(p)) {
            const EVector q = area.Filter(p);
            sumX += q.x;
            sumY += q.y;
            ++hits;
        }
    }
    EVector result = p;
    if (hits != 0) {
        sumX /= hits;
        sumY /= hits;
    }
    result.x = sumX;
    result.y = sumY;
    return result;
}

EVector TransformGrid::Filter(const Blob& b) const
{
    return Filter(b.center());
}

double TransformGrid::GetInterpolatedBlobsize(const EVector& p) const
{
    const int i = GetAreaIndex(p);
    return i < 0 ? 0.0 : areas[i].GetInterpolatedBlobsize(p);
}

void TransformGrid::ExtendHitAreas(float factor, unsigned int columns)
{
    std::vector<TransformArea*> all;
    all.reserve(areas.size());
    for (TransformArea& a : areas)
        all.push_back(&a);
    ExtendHitAreas(all, factor, columns);
}

void TransformGrid::ExtendHitAreas(const std::vector<TransformArea*>& areas, float factor,
                                   unsigned int columns)
{
    const std::size_t size = areas.size();
    if (size == 1) {
        areas[0]->ExtendHitArea(factor, 4);
        return;
    }
    // Areas in one line of the grid; consecutive areas run down one column of cells.
    const std::size_t n = columns - 1;
    if (n == 0)
        return;
    for (std::size_t i = 0; i < size; ++i) {
        TransformArea* a = areas[i];
        if (i % n == 0)
            a->ExtendHitArea(factor, 7); // top row: side AB
        if (i < n)
            a->ExtendHitArea(factor, 6); // first column: side AD
        if ((i + 1) % n == 0)
            a->ExtendHitArea(factor, 8); // bottom row: side CD
        if (size >= n && i >= size - n)
            a->ExtendHitArea(factor, 5); // last column: side BC
    }
}
