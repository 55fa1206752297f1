// The index against the polygon's own test: star-shaped and self-crossing outlines, points on
// vertices, on edges and at the band limits, and points far outside.
#include "polygonindex.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

TEST(PolygonIndex, SameAnswerAsThePolygon)
{
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> u(0, 1);
    for (const int vertices : {4, 5, 17, 400}) {
        for (int shape = 0; shape < 20; ++shape) {
            EPolygon polygon;
            for (int i = 0; i < vertices; ++i) {
                const double angle = 2 * M_PI * i / vertices;
                // Every fifth outline crosses itself; every other one has whole-pixel vertices,
                // so that neighbours share rows and flat edges occur.
                const double radius = shape % 5 == 0 ? 50 + 200 * u(rng) : 100 + 50 * u(rng);
                EVector v(376 + radius * std::cos(angle), 240 + radius * std::sin(angle));
                if (shape % 2 == 0)
                    v = EVector(std::round(v.x), std::round(v.y));
                polygon.points.push_back(v);
            }
            const PolygonIndex index(polygon);
            std::vector<EVector> probes;
            for (int i = 0; i < 2000; ++i)
                probes.emplace_back(std::round(u(rng) * 800 - 24), std::round(u(rng) * 540 - 30));
            for (std::size_t i = 0; i < polygon.points.size(); ++i) {
                const EVector& v = polygon.points[i];
                const EVector& w = polygon.points[(i + 1) % polygon.points.size()];
                probes.push_back(v);
                probes.emplace_back(v.x + 0.5, v.y);
                probes.emplace_back((v.x + w.x) / 2, (v.y + w.y) / 2);
            }
            probes.emplace_back(0, std::numeric_limits<double>::quiet_NaN());
            for (const EVector& p : probes)
                ASSERT_EQ(index.HitTest(p), polygon.HitTest(p)) << vertices << " vertices, shape " << shape << " at "
                                                                << p.x << "," << p.y;
        }
    }
}
