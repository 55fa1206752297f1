#include "pointmatchers.h"
#include "shiftcorrection.h"
#include "blob.h"
#include "transformgrid.h"

#include <gtest/gtest.h>

#include <tuple>
#include <utility>

static EPolygon rect(double x0, double y0, double x1, double y1)
{
    return EPolygon({EVector(x0, y0), EVector(x1, y0), EVector(x1, y1), EVector(x0, y1)});
}

// An area over the cell whose map shifts every point by (dx, dy).
static TransformArea shiftingArea(EPolygon cell, double dx, double dy)
{
    EPolygon moved = cell.Clone();
    for (EVector& v : moved.points)
        v += EVector(dx, dy);
    return TransformArea(cell, moved, cell);
}

static void expectVertices(const EPolygon& p, std::vector<std::pair<double, double>> expected)
{
    ASSERT_EQ(p.size(), static_cast<int>(expected.size()));
    for (int i = 0; i < p.size(); ++i)
        EXPECT_THAT(p[i], IsNear(expected[i].first, expected[i].second, 1e-6)) << "vertex " << i;
}

TEST(TransformArea, ExtendHitAreaMovesTheVerticesOfEachMode)
{
    const std::vector<std::pair<int, std::vector<std::pair<double, double>>>> cases = {
        {0, {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}}},
        {1, {{0, -1}, {2, -1}, {2, 1}, {0, 1}}},
        {2, {{-1, 0}, {1, 0}, {1, 2}, {-1, 2}}},
        {3, {{0, 0}, {2, 0}, {2, 2}, {0, 2}}},
        {4, {{-0.5, -0.5}, {1.5, -0.5}, {1.5, 1.5}, {-0.5, 1.5}}},
        {5, {{0, 0}, {2, 0}, {2, 1}, {0, 1}}},
        {6, {{-1, 0}, {1, 0}, {1, 1}, {-1, 1}}},
        {7, {{0, -1}, {1, -1}, {1, 1}, {0, 1}}},
        {8, {{0, 0}, {1, 0}, {1, 2}, {0, 2}}},
        {9, {{0, 0}, {1, 0}, {1, 1}, {0, 1}}},
    };
    for (const auto& [mode, expected] : cases) {
        SCOPED_TRACE(mode);
        TransformArea a = shiftingArea(rect(0, 0, 1, 1), 0, 0);
        a.ExtendHitArea(2.0f, mode);
        expectVertices(a.hitArea, expected);
        expectVertices(a.srcPolygon, {{0, 0}, {1, 0}, {1, 1}, {0, 1}});
    }
}

TEST(TransformArea, BlobSizeIsBlendedByInverseDistance)
{
    EPolygon cell = rect(0, 0, 10, 10);
    for (int i = 0; i < 4; ++i)
        cell[i].measureC = i + 1;
    const TransformArea a(cell, cell, cell);
    EXPECT_DOUBLE_EQ(a.GetInterpolatedBlobsize(EVector(10, 10)), 3);
    EXPECT_NEAR(a.GetInterpolatedBlobsize(EVector(5, 5)), 2.5, 1e-12);
    // Closer to the vertex of size 4 than to any other.
    EXPECT_THAT(a.GetInterpolatedBlobsize(EVector(1, 9)), testing::AllOf(testing::Gt(3.0), testing::Lt(4.0)));
}

TEST(TransformArea, InterpolatedHitAreaWalksVertexPairsThroughTheCorrection)
{
    TransformArea a(rect(0, 0, 4, 4), rect(0, 0, 4, 4), rect(0, 0, 4, 4));
    ShiftCorrection shift(100);
    a.InterpolatetHitArea(2, &shift);
    // The start of each pair is listed twice.
    expectVertices(a.hitArea, {{100, 0}, {100, 0}, {102, 0}, {104, 0}, {104, 4}, {104, 4}, {102, 4}, {100, 4}});
}

TEST(TransformGrid, UnclaimedPointMapsToOriginAndKeepsItsPayload)
{
    TransformGrid grid;
    EXPECT_FALSE(grid.IsReady());
    grid.SetAreas({shiftingArea(rect(0, 0, 10, 10), 5, 5)});
    EXPECT_TRUE(grid.IsReady());
    EVector p(50, 50);
    p.tag = 3;
    p.measureD = 9;
    const EVector q = grid.Filter(p);
    EXPECT_EQ(std::tuple(q.x, q.y, q.tag, q.measureD), std::tuple(0, 0, 3, 9));
    EXPECT_EQ(std::tuple(grid.GetAreaIndex(p), grid.GetInterpolatedBlobsize(p)), std::tuple(-1, 0.0));

    EXPECT_THAT(grid.Filter(EVector(2, 3)), IsPoint(7, 8));
}

TEST(TransformGrid, OverlappingAreasGiveTheMeanEvenWhenAddedTwice)
{
    const std::vector<TransformArea> areas = {shiftingArea(rect(0, 0, 10, 10), 0, 0),
                                              shiftingArea(rect(5, 0, 15, 10), 10, 0)};
    TransformGrid grid;
    grid.SetAreas(areas);
    EXPECT_DOUBLE_EQ(grid.Filter(EVector(7, 5)).x, 12);
    EXPECT_DOUBLE_EQ(grid.Filter(EVector(2, 5)).x, 2);
    EXPECT_DOUBLE_EQ(grid.Filter(EVector(12, 5)).x, 22);
    EXPECT_EQ(grid.GetAreaIndex(EVector(12, 5)), 1);

    grid.SetAreas(areas);
    EXPECT_EQ(grid.areas.size(), 4u);
    EXPECT_DOUBLE_EQ(grid.Filter(EVector(7, 5)).x, 12);

    Blob b(7, 5, 2, 2, 0);
    EXPECT_DOUBLE_EQ(grid.Filter(b).x, 12);
}

TEST(TransformGrid, ExtendHitAreasPushesOnlyTheRimOutwards)
{
    // Three vertex columns, four cells, in the order down one column of cells after another.
    TransformGrid grid({shiftingArea(rect(0, 0, 1, 1), 0, 0), shiftingArea(rect(0, 1, 1, 2), 0, 0),
                        shiftingArea(rect(1, 0, 2, 1), 0, 0), shiftingArea(rect(1, 1, 2, 2), 0, 0)});
    grid.ExtendHitAreas(2.0f, 3);
    expectVertices(grid.areas[0].hitArea, {{-1, -1}, {1, -1}, {1, 1}, {-1, 1}}); // up and left
    expectVertices(grid.areas[1].hitArea, {{-1, 1}, {1, 1}, {1, 3}, {-1, 3}});   // left and down
    expectVertices(grid.areas[2].hitArea, {{1, -1}, {3, -1}, {3, 1}, {1, 1}});   // up and right
    expectVertices(grid.areas[3].hitArea, {{1, 1}, {3, 1}, {3, 3}, {1, 3}});     // down and right

    TransformGrid single({shiftingArea(rect(0, 0, 2, 2), 0, 0)});
    single.ExtendHitAreas(2.0f, 2);
    expectVertices(single.areas[0].hitArea, {{-1, -1}, {3, -1}, {3, 3}, {-1, 3}});
}
