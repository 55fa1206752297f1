#include "gridhelper.h"

#include "blobcorrectionbyformula.h"
#include "globalsettings.h"
#include "icorrection.h"
#include "transformgrid.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

double gridCoordinate(int i, int count, double margin, double extent)
{
    if (i == 0)
        return margin;
    if (i == count - 1)
        return extent - margin;
    return (extent - 2 * margin) / (count - 1) * i + margin;
}

} // namespace

std::vector<EVector> GridHelper::CalcVerticesNormal(int cols, int rows, double marginX, double marginY,
                                                    double width, double height)
{
    std::vector<EVector> result;
    if (cols < 2 || rows < 2)
        return result;
    result.reserve(static_cast<std::size_t>(cols) * rows);
    for (int c = 0; c < cols; ++c) {
        for (int r = 0; r < rows; ++r)
            result.emplace_back(gridCoordinate(c, cols, marginX, width), gridCoordinate(r, rows, marginY, height));
    }
    return result;
}

std::vector<EVector> GridHelper::CalcVertices(int cols, int rows, double marginX, double marginY, double width,
                                              double height)
{
    std::vector<EVector> result;
    if (cols < 2 || rows < 2)
        return result;
    result.reserve(static_cast<std::size_t>(cols) * rows);
    for (int c = 0; c < cols; ++c) {
        for (int r = 0; r < rows; ++r) {
            const int row = c % 2 == 1 ? rows - 1 - r : r;
            result.emplace_back(gridCoordinate(c, cols, marginX, width), gridCoordinate(row, rows, marginY, height));
        }
    }
    return result;
}

std::vector<std::vector<EVector>> GridHelper::VerticesToQuads(std::vector<EVector> vertices, int cols)
{
    std::vector<std::vector<EVector>> quads;
    const long long n = static_cast<long long>(vertices.size());
    if (cols < 1)
        return quads;
    const long long len = n / cols;
    if (cols >= 2) {
        // Undo the zigzag. Group starts step by cols, not by the group length.
        const int groups = (cols - 2) / 2 + 1;
        for (int g = 0; g < groups; ++g) {
            const long long start = std::min<long long>((2LL * g + 1) * cols, n);
            const long long end = std::min(start + len, n);
            std::reverse(vertices.begin() + start, vertices.begin() + end);
        }
    }
    if (n < 4 || n - cols == 1)
        return quads;
    long long i = 0;
    for (;;) {
        const long long a = (i + 1) % cols == 0 ? i + 1 : i;
        if (a + cols + 1 >= n)
            break;
        quads.push_back({vertices[a], vertices[a + cols], vertices[a + cols + 1], vertices[a + 1]});
        i = a + 1;
    }
    return quads;
}

std::vector<EPolygon> GridHelper::VerticesToPolygons(const std::vector<EVector>& vertices, int cols)
{
    std::vector<EPolygon> polygons;
    for (const auto& quad : VerticesToQuads(vertices, cols))
        polygons.emplace_back(quad);
    return polygons;
}

std::vector<TransformArea> GridHelper::VerticesToAreas(const std::vector<EVector>& src,
                                                       const std::vector<EVector>& dst,
                                                       const std::vector<EVector>& hit, int cols)
{
    return QuadsToAreas(VerticesToQuads(src, cols), VerticesToQuads(dst, cols), VerticesToQuads(hit, cols));
}

std::vector<TransformArea> GridHelper::QuadsToAreas(const std::vector<std::vector<EVector>>& srcQuads,
                                                    const std::vector<std::vector<EVector>>& dstQuads,
                                                    const std::vector<std::vector<EVector>>& hitQuads)
{
    std::vector<TransformArea> areas;
    if (srcQuads.size() != dstQuads.size()) {
        std::printf("srcQuads.size() != dstQuads.size()\n");
        std::fflush(stdout);
        return {};
    }
    areas.reserve(srcQuads.size());
    for (std::size_t i = 0; i < srcQuads.size(); ++i) {
        if (srcQuads[i].size() != 4 || dstQuads[i].size() != 4) {
            std::printf("srcQuads[i].size() != 4 || dstQuads[i].size() != 4\n");
            std::fflush(stdout);
            return {};
        }
        const EPolygon hit = i < hitQuads.size() ? EPolygon(hitQuads[i]) : EPolygon();
        areas.emplace_back(EPolygon(srcQuads[i]), EPolygon(dstQuads[i]), hit);
    }
    return areas;
}

std::vector<EVector> GridHelper::CalcCalibrationBorder(double width, double height, TransformGrid* grid,
                                                       double margin)
{
    std::vector<EVector> border;
    if (margin > 1 - margin)
        return border;
    const double end = 1 - margin;
    for (double t = margin; t <= end; t += 0.1)
        border.emplace_back(width * t, margin * height);
    for (double t = margin; t <= end; t += 0.1)
        border.emplace_back(width, height * t);
    for (double t = margin; t <= end; t += 0.1)
        border.emplace_back(width - (1 - t) * width * margin, height - margin * height);
    for (double t = margin; t <= end; t += 0.1)
        border.emplace_back(width * margin, (1 - t) * height);
    if (grid) {
        for (EVector& p : border)
            p = grid->Filter(p);
    }
    return border;
}

std::vector<EVector> GridHelper::calcBorder(int width, int height, TransformGrid* grid)
{
    const GS* gs = GS::instance();
    const double left = 1 - gs->blobFilterLeft;
    const double right = gs->blobFilterRight;
    const double top = 1 - gs->blobFilterTop;
    const double bottom = gs->blobFilterBottom;
    const double upperRight = gs->gridBorderA;
    const double upperLeft = 1 - gs->gridBorderB;

    std::vector<EVector> border;
    for (double t = left; t <= right; t += 0.1)
        border.emplace_back(t * width, top * height);
    for (double t = top; t <= bottom; t += 0.1)
        border.emplace_back((t < 0.33 ? upperRight : right) * width, t * height);
    for (double t = right; t >= left; t -= 0.1)
        border.emplace_back(t * width, bottom * height);
    for (double t = bottom; t >= top; t -= 0.1)
        border.emplace_back((t < 0.33 ? upperLeft : left) * width, t * height);
    if (grid) {
        for (EVector& p : border)
            p = grid->Filter(p);
    }
    return border;
}

double GridHelper::calcShiftsLinear(const std::vector<double>& table, double t)
{
    t = std::clamp(t, 0.0, 1.0);
    if (table.empty())
        return 0.0;
    if (table.size() == 1)
        return table[0];
    const double d = static_cast<double>(table.size() - 1);
    std::size_t i = 1;
    while (i < table.size() - 1 && i / d < t)
        ++i;
    const double f = (t - (i - 1) / d) * d;
    return (1 - f) * table[i - 1] + f * table[i];
}

double GridHelper::calcShiftsLinear(const std::vector<std::vector<double>>& table, double u, double v)
{
    if (table.empty())
        return 0.0;
    if (table.size() == 1)
        return calcShiftsLinear(table[0], v);
    u = std::clamp(u, 0.0, 1.0);
    const double d = static_cast<double>(table.size() - 1);
    std::size_t i = 1;
    while (i < table.size() - 1 && i / d < u)
        ++i;
    const double f = (u - (i - 1) / d) * d;
    return (1 - f) * calcShiftsLinear(table[i - 1], v) + f * calcShiftsLinear(table[i], v);
}

int GridHelper::getLocationThreshold(EVector position, double scale)
{
    const GS* gs = GS::instance();
    const EVector T = gs->cornerTopLeft;
    const EVector R = gs->cornerTopRight;
    const EVector B = gs->cornerBottomRight;
    const EVector L = gs->cornerBottomLeft;

    if (scale == -1.0)
        scale = (T - R).length();
    const double a = 1 - (position - T).length() / scale;
    const double b = 1 - std::fabs(position.y - T.y) / std::fabs(R.y - T.y);
    const double a2 = a >= 0 ? a * a : 0;
    const double b2 = b >= 0 ? b : 0;
    const double base = gs->fingerThreshold;
    int result = static_cast<int>(3 * base * a2 * b2 + base);

    // Far corners show a finger dimly.
    if (std::fabs(B.x - position.x) < std::fabs(T.x - B.x) * 0.8 &&
        std::fabs(B.y - position.y) < std::fabs(T.x - position.x) / 3.0)
        return static_cast<int>(result * gs->locationThresholdFactor);
    if (std::fabs(L.x - position.x) < std::fabs(T.x - L.x) * 0.8 &&
        std::fabs(L.y - position.y) < std::fabs(T.x - position.x) / 3.0)
        return static_cast<int>(result * gs->locationThresholdFactor);
    if (b2 >= 0.8)
        result = static_cast<int>(result * 2.5);
    return result;
}

std::vector<ScanBox> GridHelper::getScanBoxes(double radius, int step, int gridWidth, int gridHeight,
                                              TransformGrid* grid, int width, int height)
{
    std::vector<ScanBox> boxes;
    if (!grid || step < 1)
        return boxes;
    const int n = GS::instance()->boxStride;
    // The region of a raster coordinate: the last cell whose start lies below it.
    auto cellOf = [n](int v, int extent) {
        int cell = 0;
        for (int i = 0; i < n; ++i) {
            if (i * extent / n < v)
                cell = i;
        }
        return cell;
    };
    // The grid's own mapping, with each area first tried against its bounding box: a point
    // outside it (by more than rounding) cannot hit the area, so the same areas add up in the
    // same order, and the boxes are those of grid->Filter, only found faster.
    struct Bounds {
        double left, top, right, bottom;
    };
    std::vector<Bounds> bounds;
    bounds.reserve(grid->areas.size());
    for (const TransformArea& area : grid->areas) {
        Bounds b{1e300, 1e300, -1e300, -1e300};
        for (const EVector& v : area.hitArea.points) {
            b.left = std::min(b.left, v.x);
            b.top = std::min(b.top, v.y);
            b.right = std::max(b.right, v.x);
            b.bottom = std::max(b.bottom, v.y);
        }
        const double margin =
            1e-6 * (1.0 + std::max({std::fabs(b.left), std::fabs(b.top), std::fabs(b.right), std::fabs(b.bottom)}));
        bounds.push_back({b.left - margin, b.top - margin, b.right + margin, b.bottom + margin});
    }
    auto map = [&](const EVector& p) {
        double sumX = 0, sumY = 0;
        int hits = 0;
        for (std::size_t i = 0; i < grid->areas.size(); ++i) {
            const Bounds& b = bounds[i];
            if (!(p.x >= b.left && p.x <= b.right && p.y >= b.top && p.y <= b.bottom))
                continue;
            const TransformArea& area = grid->areas[i];
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
    };
    for (int y = 0; y < gridHeight; y += step) {
        const int ry = cellOf(y, gridHeight);
        for (int x = 0; x < gridWidth; x += step) {
            const EVector q = map(EVector(x, y));
            if (q.x < 0 || q.x > width || q.y < 0 || q.y > height)
                continue;
            const EVector left = map(EVector(x - radius, y));
            const EVector right = map(EVector(x + radius, y));
            const EVector up = map(EVector(x, y - radius));
            const EVector down = map(EVector(x, y + radius));
            double size = std::sqrt((right.x - left.x) * (right.x - left.x) + (up.y - down.y) * (up.y - down.y));
            double half;
            if (size < 20.0) {
                size = 20.0;
                half = 11.0;
            } else {
                half = static_cast<int>(size * 0.5 + 1.0);
            }
            // Near the frame's edge the box shrinks so that it stays inside.
            if (q.x + half >= width)
                size = (width - q.x - 1) * 2 - 1;
            if (q.y + half >= height)
                size = (height - q.y - 1) * 2 - 1;
            if (q.x - size < 0)
                size = q.x;
            if (q.y - size < 0)
                size = q.y;
            ScanBox box(q.x - size * 0.5, q.y - size * 0.5, size, size, width, -1);
            box.region = cellOf(x, gridWidth) + ry * n;
            boxes.push_back(std::move(box));
        }
    }
    return boxes;
}

EPolygon* GridHelper::CorrectBlobFilter(EPolygon* polygon, TransformGrid* grid, ICorrection* correction,
                                        BlobCorrectionByFormula* formula,
                                        const std::vector<std::vector<double>>& xShifts,
                                        const std::vector<std::vector<double>>& yShifts, bool negate, int width,
                                        int height)
{
    if (!correction || !formula || !polygon || !grid)
        return nullptr;
    const double sign = negate ? -1.0 : 1.0;
    auto* result = new EPolygon(polygon->points);
    for (EVector& v : result->points) {
        const EVector q = grid->Filter(formula->filter(correction->undistort(v)));
        const double u = q.x / width;
        const double w = q.y / height;
        const double dx = sign * calcShiftsLinear(xShifts, u, w);
        const double dy = sign * calcShiftsLinear(yShifts, u, w);
        v.x += dx;
        v.y += dy;
    }
    return result;
}
