#include "pointmatchers.h"

#include "epolygon.h"
#include "evector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>
#include <vector>

static EPolygon poly(std::initializer_list<std::pair<double, double>> pts)
{
    std::vector<EVector> v;
    for (auto [x, y] : pts)
        v.emplace_back(x, y);
    return EPolygon(v);
}

TEST(EVectorArithmetic, ResultsCarryNoPayloadButCompoundAssignmentKeepsIt)
{
    EVector a(6, 8);
    a.weight = 7;
    a.tag = 3;
    EVector sum = a + EVector(1, 1);
    EXPECT_EQ(std::tuple(sum.x, sum.weight, sum.tag), std::tuple(7, 0, 0));
    EXPECT_EQ(a.Clone().weight, 0) << "Clone drops the payload on purpose";

    a += EVector(1, 2);
    a *= 2.0;
    EXPECT_THAT(a, IsPoint(14, 20));
    EXPECT_EQ(std::tuple(a.weight, a.tag), std::tuple(7, 3));

    EVector p = EVector(2, 3) * EVector(4, 5);
    EXPECT_THAT(p, IsPoint(8, 15)) << "operator* of two vectors is componentwise";
    EXPECT_DOUBLE_EQ(EVector(3, 4).length(), 5);
    EXPECT_DOUBLE_EQ(EVector(1, 2).cross(EVector(3, 4)), -2);

    // Division by a vector with a zero component gives the origin.
    EVector q = EVector(6, 8) / EVector(2, 4);
    EXPECT_THAT(q, IsPoint(3, 2));
    for (EVector d : {EVector(2, 0), EVector(0, 2), EVector(0, 0)}) {
        EVector z = EVector(6, 8) / d;
        EXPECT_EQ(std::tuple(z.x, z.y), std::tuple(0, 0)) << d.x << "," << d.y;
    }

    // The alternative point carries the measurements.
    EVector v(1, 1);
    std::tie(v.altX, v.altY, v.measureC, v.measureD, v.weight) = std::tuple(10, 20, 42, 99, 5);
    EVector alt = v.altPoint();
    EXPECT_EQ(std::tuple(alt.x, alt.y, alt.measureC, alt.measureD, alt.weight), std::tuple(10, 20, 42, 99, 0));
}

TEST(EVectorAngle, IsSignedInDegreesAndZeroWhenUndefined)
{
    EXPECT_NEAR(EVector(1, 0).angle(EVector(0, 1)), 90, 1e-12);
    EXPECT_NEAR(EVector(0, 1).angle(EVector(1, 0)), -90, 1e-12);
    EXPECT_NEAR(EVector(1, 1).angle(EVector(1, 0)), -45, 1e-9);
    EXPECT_EQ(EVector(0, 0).angle(EVector(3, 4)), 0);
    // Intended: opposite vectors may come out as 0 when rounding pushes the cosine past -1.
    const double opposite = EVector(0.1, 0.3).angle(EVector(-0.1, -0.3));
    EXPECT_TRUE(opposite == 0 || std::abs(opposite) == 180) << opposite;
}

TEST(EVectorSegments, OnlyStrictCrossingsCount)
{
    auto seg = [](double ax, double ay, double bx, double by) {
        return EVectorSegment{EVector(ax, ay), EVector(bx, by)};
    };
    EXPECT_TRUE(EVector::segmentsIntersect(seg(0, 0, 2, 2), seg(0, 2, 2, 0)));
    EXPECT_FALSE(EVector::segmentsIntersect(seg(0, 0, 2, 2), seg(2, 2, 3, 0))) << "shared end";
    EXPECT_FALSE(EVector::segmentsIntersect(seg(0, 0, 2, 2), seg(1, 1, 3, 0))) << "end on the other";
    EXPECT_FALSE(EVector::segmentsIntersect(seg(0, 0, 2, 2), seg(1, 1, 3, 3))) << "collinear overlap";
    EXPECT_FALSE(EVector::segmentsIntersect(seg(0, 0, 1, 0), seg(0, 1, 1, 1))) << "parallel";
}

TEST(EVectorSorting, PredicatesOrderAndPayloadSurvivesTheSort)
{
    std::vector<EVector> v{EVector(3, 1), EVector(1, 3), EVector(2, 2)};
    for (size_t i = 0; i < v.size(); ++i)
        v[i].weight = v[i].x * 10;
    std::sort(v.begin(), v.end(), xAscSort);
    EXPECT_EQ(std::tuple(v[0].x, v[0].weight), std::tuple(1, 10));
    std::sort(v.begin(), v.end(), yDescSort2);
    EXPECT_EQ(v[0].y, 3);
    std::sort(v.begin(), v.end(), weightDescSort);
    EXPECT_EQ(v[0].weight, 30);
    EXPECT_FALSE(xAscSort(EVector(1, 0), EVector(1, 5))) << "strict";
}

TEST(EPolygonArea, FollowsTheTrapezoidSumWithItsReversedClosingTerm)
{
    EXPECT_DOUBLE_EQ(poly({{0, 0}, {1, 0}, {1, 1}, {0, 1}}).getArea(), 1);
    // Intended: the closing term runs the other way, so this triangle has "area" 0.
    EXPECT_DOUBLE_EQ(poly({{0, 0}, {2, 0}, {1, 2}}).getArea(), 0);
    EXPECT_DOUBLE_EQ(poly({{0, 0}, {5, 5}}).getArea(), 0);
    EXPECT_DOUBLE_EQ(poly({}).getArea(), 0);
    EXPECT_DOUBLE_EQ(poly({{1, 1}, {5, 1}, {5, 3}, {1, 3}}).getArea(), 8);
    // Intended: this right triangle of geometric area 4 comes out as 4 + 8 = 12.
    EXPECT_DOUBLE_EQ(poly({{0, 1}, {4, 1}, {4, 3}}).getArea(), 12);
}

TEST(EPolygonHitTest, TrianglesIncludeTheirEdgesLargerPolygonsAreHalfOpen)
{
    EPolygon tri = poly({{0, 0}, {4, 0}, {0, 4}});
    EXPECT_TRUE(tri.HitTest(EVector(0, 0)));
    EXPECT_TRUE(tri.HitTest(EVector(2, 2))) << "on the hypotenuse";
    EXPECT_TRUE(tri.HitTest(EVector(1, 1)));
    EXPECT_FALSE(tri.HitTest(EVector(3, 3)));
    EXPECT_FALSE(poly({{0, 0}, {1, 1}, {2, 2}}).HitTest(EVector(1, 1))) << "degenerate triangle";

    EPolygon square = poly({{0, 0}, {4, 0}, {4, 4}, {0, 4}});
    EXPECT_TRUE(square.HitTest(EVector(2, 2)));
    EXPECT_FALSE(square.HitTest(EVector(5, 2)));
    EXPECT_TRUE(square.HitTest(EVector(0, 0))) << "lower-left vertex is inside by the crossing rule";
    EXPECT_FALSE(square.HitTest(EVector(4, 4))) << "upper-right vertex is outside";
    EXPECT_FALSE(square.HitTest(EVector(4, 2))) << "right edge is outside";
    EXPECT_TRUE(square.HitTest(EVector(0, 2))) << "left edge is inside";
    EXPECT_FALSE(poly({}).HitTest(EVector(0, 0)));

    EPolygon concave = poly({{0, 0}, {6, 0}, {6, 6}, {3, 2}, {0, 6}});
    EXPECT_TRUE(concave.HitTest(EVector(1, 1)));
    EXPECT_FALSE(concave.HitTest(EVector(3, 4))) << "in the notch";
}

TEST(EPolygonClone, KeepsThePayloadOfEveryVertex)
{
    EPolygon p = poly({{0, 0}, {1, 0}, {1, 1}});
    p[1].weight = 9;
    EPolygon c = p.Clone();
    EXPECT_EQ(c[1].weight, 9);
    c[1].x = 5;
    EXPECT_EQ(p[1].x, 1) << "the clone is independent";
}
