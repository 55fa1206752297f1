#include "pointmatchers.h"

#include "globalsettings.h"
#include "gridhelper.h"
#include "transformgrid.h"

#include <gtest/gtest.h>

#include <cmath>

static EPolygon rect(double x0, double y0, double x1, double y1)
{
    return EPolygon({EVector(x0, y0), EVector(x1, y0), EVector(x1, y1), EVector(x0, y1)});
}

// A grid whose one big area shifts every point by (dx, dy).
static TransformGrid shiftingGrid(double dx, double dy)
{
    const EPolygon src = rect(-10000, -10000, 10000, 10000);
    return TransformGrid({TransformArea(src, rect(-10000 + dx, -10000 + dy, 10000 + dx, 10000 + dy), src)});
}

static auto at(double x, double y) { return IsNear(x, y, 1e-9); }

static void expectPoint(const EVector& p, double x, double y) { EXPECT_THAT(p, at(x, y)); }

TEST(GridHelper, VerticesComeColumnByColumnAndZigzag)
{
    using testing::_;
    EXPECT_THAT(GridHelper::CalcVerticesNormal(3, 3, 10, 20, 110, 220),
                testing::ElementsAre(at(10, 20), _, _, at(55, 20), _, _, _, _, at(100, 200)));
    // The middle column runs bottom up.
    EXPECT_THAT(GridHelper::CalcVertices(3, 3, 10, 20, 110, 220),
                testing::ElementsAre(_, _, at(10, 200), at(55, 200), _, at(55, 20), at(100, 20), _, _));
    EXPECT_TRUE(GridHelper::CalcVertices(3, 1, 0, 0, 10, 10).empty());
}

TEST(GridHelper, ZigzagVerticesBecomeQuadsDownEachColumnOfCells)
{
    const auto quads = GridHelper::VerticesToQuads(GridHelper::CalcVertices(3, 3, 0, 0, 2, 2), 3);
    ASSERT_EQ(quads.size(), 4u);
    const double topLeft[4][2] = {{0, 0}, {0, 1}, {1, 0}, {1, 1}};
    for (int i = 0; i < 4; ++i) {
        const double x = topLeft[i][0], y = topLeft[i][1];
        EXPECT_THAT(quads[i], testing::ElementsAre(at(x, y), at(x + 1, y), at(x + 1, y + 1), at(x, y + 1))) << i;
    }
    EXPECT_EQ(GridHelper::VerticesToPolygons(GridHelper::CalcVertices(5, 5, 0, 0, 4, 4), 5).size(), 16u);
    EXPECT_TRUE(GridHelper::VerticesToQuads({EVector(0, 0), EVector(1, 0), EVector(1, 1)}, 2).empty());
    EXPECT_TRUE(GridHelper::VerticesToQuads(std::vector<EVector>(4), 3).empty());
}

TEST(GridHelper, QuadsThatDoNotPairUpAreReportedAndGiveNoAreas)
{
    const std::vector<EVector> q = {EVector(0, 0), EVector(1, 0), EVector(1, 1), EVector(0, 1)};
    testing::internal::CaptureStdout();
    EXPECT_TRUE(GridHelper::QuadsToAreas({q, q}, {q}, {q, q}).empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "srcQuads.size() != dstQuads.size()\n");

    testing::internal::CaptureStdout();
    EXPECT_TRUE(GridHelper::QuadsToAreas({q, q}, {q, {q[0], q[1], q[2]}}, {q, q}).empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "srcQuads[i].size() != 4 || dstQuads[i].size() != 4\n");

    const auto areas = GridHelper::QuadsToAreas({q}, {q}, {q});
    ASSERT_EQ(areas.size(), 1u);
    expectPoint(areas[0].Filter(EVector(0.25, 0.5)), 0.25, 0.5);
}

TEST(GridHelper, CalibrationBorderWalksTheInsetRectangleThroughTheGrid)
{
    EXPECT_TRUE(GridHelper::CalcCalibrationBorder(100, 100, nullptr, 0.6).empty());

    const auto plain = GridHelper::CalcCalibrationBorder(200, 100, nullptr, 0.1);
    ASSERT_FALSE(plain.empty());
    ASSERT_EQ(plain.size() % 4, 0u);
    const std::size_t side = plain.size() / 4;
    expectPoint(plain[0], 20, 10);                // top edge
    expectPoint(plain[side], 200, 10);            // right edge has no inset
    expectPoint(plain[2 * side], 200 - 0.9 * 200 * 0.1, 90); // bottom edge shrinks by margin times itself
    expectPoint(plain[3 * side], 20, 90);         // left edge runs upwards

    TransformGrid grid = shiftingGrid(5, -5);
    const auto mapped = GridHelper::CalcCalibrationBorder(200, 100, &grid, 0.1);
    ASSERT_EQ(mapped.size(), plain.size());
    for (std::size_t i = 0; i < plain.size(); ++i)
        expectPoint(mapped[i], plain[i].x + 5, plain[i].y - 5);
}

TEST(GridHelper, BorderOfTheAcceptedRegionHasAStepInItsUpperThird)
{
    GS* gs = GS::instance();
    gs->blobFilterLeft = gs->blobFilterRight = 0.9; // sides at 0.1 and 0.9
    gs->blobFilterTop = gs->blobFilterBottom = 0.8; // top and bottom at 0.2 and 0.8
    gs->gridBorderA = 0.95;                         // upper third of the right side
    gs->gridBorderB = 0.97;                         // upper third of the left side, at 0.03
    TransformGrid grid = shiftingGrid(0, 0);
    const auto border = GridHelper::calcBorder(1000, 500, &grid);
    ASSERT_FALSE(border.empty());
    expectPoint(border.front(), 100, 100);
    int upperRight = 0, lowerRight = 0, upperLeft = 0, lowerLeft = 0;
    for (const EVector& p : border) {
        EXPECT_TRUE(p.x > 30 - 1e-9 && p.x < 950 + 1e-9 && p.y > 100 - 1e-9 && p.y < 400 + 1e-9);
        const bool upper = p.y < 0.33 * 500;
        upperRight += upper && std::abs(p.x - 950) < 1e-9;
        lowerRight += !upper && std::abs(p.x - 900) < 1e-9;
        upperLeft += upper && std::abs(p.x - 30) < 1e-9;
        lowerLeft += !upper && std::abs(p.x - 100) < 1e-9;
    }
    EXPECT_TRUE(upperRight && lowerRight && upperLeft && lowerLeft);
}

TEST(GridHelper, ShiftTablesAreReadLinearlyAndBilinearly)
{
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear(std::vector<double>{0, 10}, 0.5), 5);
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear(std::vector<double>{0, 10}, 2.0), 10);
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear(std::vector<double>{0, 10, 30}, 0.75), 20);
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear(std::vector<double>{7}, 0.3), 7);
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear(std::vector<double>{}, 0.3), 0);

    const std::vector<std::vector<double>> table = {{0, 10}, {20, 30}};
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear(table, 0.5, 0.5), 15);
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear({{4, 8}}, 0.9, 0.25), 5);
    EXPECT_DOUBLE_EQ(GridHelper::calcShiftsLinear(std::vector<std::vector<double>>{}, 0.5, 0.5), 0);
}

TEST(GridHelper, LocationThresholdIsCutNearTheFarCorners)
{
    GS* gs = GS::instance();
    gs->cornerTopLeft = EVector(100, 100);
    gs->cornerTopRight = EVector(600, 140);
    gs->cornerBottomRight = EVector(640, 420);
    gs->cornerBottomLeft = EVector(80, 400);
    gs->fingerThreshold = 40;
    gs->locationThresholdFactor = 0.25;

    // Far from T and more than its height below the top edge: the base itself.
    EXPECT_EQ(GridHelper::getLocationThreshold(EVector(360, 300), -1.0), 40);
    // Next to the bottom right corner.
    EXPECT_EQ(GridHelper::getLocationThreshold(EVector(630, 415), -1.0), 10);
    // Next to the bottom left corner the same cut applies.
    EXPECT_EQ(GridHelper::getLocationThreshold(EVector(82, 399), -1.0), 10);
    const int nearTop = GridHelper::getLocationThreshold(EVector(110, 102), -1.0);
    EXPECT_GT(nearTop, 4 * 40);
}
