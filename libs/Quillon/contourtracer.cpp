#include "contourtracer.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace {

// Chain code directions: right, then counter-clockwise in image coordinates (y down).
constexpr int StepX[8] = {1, 1, 0, -1, -1, -1, 0, 1};
constexpr int StepY[8] = {0, -1, -1, -1, 0, 1, 1, 1};

// A set pixel as a threshold leaves it (255), taken as the library's 1 without a pass that
// rewrites the picture.
constexpr signed char Set = -1;
// A traced border pixel: still open to its right, or the border's right end on its row.
constexpr signed char Traced = 2;
constexpr signed char RightEnd = static_cast<signed char>(2 | 0x80);

// The first x from x on, below end, where row[x] differs from row[x - 1]; else end.
int nextChange(const signed char* row, int x, int end)
{
#ifdef __SSE2__
    auto changes = [&](int at) {
        const __m128i here = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + at));
        const __m128i left = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + at - 1));
        return ~unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(here, left))) & 0xFFFFu;
    };
    for (; x + 16 <= end; x += 16) {
        if (const unsigned m = changes(x))
            return x + __builtin_ctz(m);
    }
    // The rest as the last sixteen, without what was looked at already.
    if (x < end && end >= 17) {
        const int at = end - 16;
        const unsigned m = changes(at) & ~((1u << (x - at)) - 1u);
        return m != 0 ? at + __builtin_ctz(m) : end;
    }
#endif
    for (; x < end; ++x) {
        if (row[x] != row[x - 1])
            return x;
    }
    return end;
}

} // namespace

void ContourTracer::follow(signed char* start, int step, cv::Point at, std::vector<cv::Point>& points) const
{
    // Twice round, so that a search that starts past direction 7 needs no wrap.
    int offset[16];
    for (int s = 0; s < 16; ++s)
        offset[s] = StepX[s & 7] + StepY[s & 7] * step;

    points.clear();
    // An outer border is entered from the left: look for the last neighbour clockwise from there.
    int s = 4;
    const signed char* last = nullptr;
    do {
        s = (s - 1) & 7;
        last = start + offset[s];
    } while (*last == 0 && s != 4);
    if (s == 4) {
        *start = RightEnd;
        points.push_back(at);
        return;
    }

    signed char* here = start;
    signed char* next = nullptr;
    int previous = s ^ 4;
    for (;;) {
        const int from = s;
        while (s < 15) {
            next = here + offset[++s];
            if (*next != 0)
                break;
        }
        s &= 7;
        if (static_cast<unsigned>(s - 1) < static_cast<unsigned>(from))
            *here = RightEnd;
        else if (*here == Set || *here == 1)
            *here = Traced;
        // Simple chains keep the points where the direction changes.
        if (s != previous) {
            points.push_back(at);
            previous = s;
        }
        at.x += StepX[s];
        at.y += StepY[s];
        if (next == start && here == last)
            break;
        here = next;
        s = (s + 4) & 7;
    }
}

void ContourTracer::trace(cv::Mat& binary, std::vector<std::vector<cv::Point>>& contours, cv::Range rows)
{
    CV_Assert(binary.type() == CV_8UC1);
    const int step = static_cast<int>(binary.step[0]);
    const int width = binary.cols - 1, height = binary.rows - 1;
    std::size_t found = 0;
    auto* image = reinterpret_cast<signed char*>(binary.data);
    const int first = rows == cv::Range::all() ? 1 : std::max(rows.start, 1);
    const int end = rows == cv::Range::all() ? height : std::min(rows.end, height);
    for (int y = first; y < end; ++y) {
        signed char* row = image + static_cast<std::ptrdiff_t>(y) * step;
        // The last border pixel met on this row; column 0 is never one.
        int lastBorder = 0;
        int prev = 0;
        // Only where a pixel differs from its left neighbour can anything happen: prev is always
        // the left neighbour's value.
        for (int x = 1; (x = nextChange(row, x, width)) < width; ++x) {
            const int p = row[x] == Set ? 1 : row[x];
            if (p == prev)
                continue;
            if (prev == 0 && p == 1) {
                // A new outer border, unless it lies in the hole of a border met before.
                if (row[lastBorder] <= 0) {
                    lastBorder = x;
                    if (contours.size() <= found)
                        contours.resize(found + 1);
                    follow(row + x, step, cv::Point(x, y), contours[found++]);
                    prev = row[x];
                    continue;
                }
            } else if (p == 0 && prev >= 1 && (prev & -2) != 0) {
                // Leaving a traced region: its right border pixel.
                lastBorder = x - 1;
            }
            prev = p;
            if ((prev & -2) != 0)
                lastBorder = x;
        }
    }
    contours.resize(found);
    std::reverse(contours.begin(), contours.end());
}

ContourTracer::Shape ContourTracer::shape(const std::vector<cv::Point>& contour)
{
    Shape s;
    if (contour.empty())
        return s;
    int left = contour[0].x, right = left, top = contour[0].y, bottom = top;
    // The library's sums in its order: the area and moment terms are whole numbers and exact,
    // the perimeter adds single-precision square roots.
    double a00 = 0, a10 = 0, a01 = 0;
    const cv::Point& last = contour.back();
    double xPrev = last.x, yPrev = last.y;
    float fxPrev = static_cast<float>(last.x), fyPrev = static_cast<float>(last.y);
    for (const cv::Point& p : contour) {
        left = std::min(left, p.x);
        right = std::max(right, p.x);
        top = std::min(top, p.y);
        bottom = std::max(bottom, p.y);
        const double x = p.x, y = p.y;
        const double dxy = xPrev * y - x * yPrev;
        a00 += dxy;
        a10 += dxy * (xPrev + x);
        a01 += dxy * (yPrev + y);
        xPrev = x;
        yPrev = y;
        const float fx = static_cast<float>(p.x), fy = static_cast<float>(p.y);
        const float dx = fx - fxPrev, dy = fy - fyPrev;
        s.perimeter += std::sqrt(dx * dx + dy * dy);
        fxPrev = fx;
        fyPrev = fy;
    }
    s.bounds = cv::Rect(left, top, right - left + 1, bottom - top + 1);
    s.area = std::fabs(a00 * 0.5);
    if (std::fabs(a00) > FLT_EPSILON) {
        const double half = a00 > 0 ? 0.5 : -0.5;
        const double sixth = a00 > 0 ? 0.16666666666666666666666666666667 : -0.16666666666666666666666666666667;
        s.m00 = a00 * half;
        s.m10 = a10 * sixth;
        s.m01 = a01 * sixth;
    }
    return s;
}
