#include "pointmatchers.h"

#include "calibrationhelper.h"

#include <gtest/gtest.h>

#include <tuple>

using Cols = CalibrationHelper::Cols;

static std::vector<double> coords(const std::vector<EVector>& v, double EVector::*c)
{
    std::vector<double> out;
    for (const EVector& p : v)
        out.push_back(p.*c);
    return out;
}
static std::vector<double> xsOf(const std::vector<EVector>& v) { return coords(v, &EVector::x); }
static std::vector<double> ysOf(const std::vector<EVector>& v) { return coords(v, &EVector::y); }

static Cols threeByThree()
{
    Cols grid(3);
    for (int c = 0; c < 3; ++c)
        for (int r = 0; r < 3; ++r)
            grid[c].emplace_back(c * 10.0, r * 10.0);
    return grid;
}

TEST(CalibrationHelper, RelativeMarginLayoutRunsDownEachColumnAndWidensPerRow)
{
    EXPECT_TRUE(CalibrationHelper::calcCalibrationPointsRelativeMargin(1, 5, 1000, 1000, 100, 100, 0).empty());

    const auto flat = CalibrationHelper::calcCalibrationPointsRelativeMargin(5, 5, 1000, 1000, 100, 100, 0);
    ASSERT_EQ(flat.size(), 25u);
    for (int c = 0; c < 5; ++c)
        for (int r = 0; r < 5; ++r)
            EXPECT_THAT(flat[c * 5 + r], IsPoint(100 + 200 * c, 100 + 200 * r));

    const auto trapezoid = CalibrationHelper::calcCalibrationPointsRelativeMargin(2, 3, 1000, 600, 100, 50, 0.5);
    EXPECT_DOUBLE_EQ(trapezoid[0].x, 100); // row 0: margins as given
    EXPECT_DOUBLE_EQ(trapezoid[1].x, 150); // row 1: 1.5 times
    EXPECT_DOUBLE_EQ(trapezoid[2].x, 200);
    EXPECT_DOUBLE_EQ(trapezoid[5].x, 800);
    EXPECT_DOUBLE_EQ(trapezoid[2].y, 2 * ((600 - 200) / 2.0) + 100);
}

TEST(CalibrationHelper, SpacedLayoutStartsAtTheRightMarginWithATruncatedSpareWidth)
{
    EXPECT_TRUE(CalibrationHelper::calcCalibrationPoints(1, 3, 100, 100, 0, 0, 0, 0, 0, 0, 0).empty());
    // Spare width int(1001 - 30.7) = 970 over two gaps; the first column stands at marginRight.
    const auto p = CalibrationHelper::calcCalibrationPoints(3, 2, 1001, 501, 10, 4, 10.5, 20.2, 20.6, 1, 2);
    ASSERT_EQ(p.size(), 6u);
    EXPECT_DOUBLE_EQ(p[0].x, 20.2 + 1);
    EXPECT_DOUBLE_EQ(p[2].x, (970 - 20) / 2.0 + 10 + 20.2 + 1);
    EXPECT_DOUBLE_EQ(p[4].x, 2 * ((970 - 20) / 2.0 + 10) + 20.2 + 1);
    // Spare height int(501 - 41.2) = 459 over one gap.
    EXPECT_DOUBLE_EQ(p[0].y, 20.6 + 2);
    EXPECT_DOUBLE_EQ(p[1].y, 459 + 20.6 + 2);
}

TEST(CalibrationHelper, CloudsAreSortedIntoRowsAndColumns)
{
    const std::vector<EVector> cloud = {EVector(21, 52), EVector(0, 1), EVector(19, 0), EVector(1, 50),
                                        EVector(40, 2), EVector(42, 49)};
    const Cols rows = CalibrationHelper::extractRows(cloud, 3, 2, true);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(xsOf(rows[0]), (std::vector<double>{0, 19, 40}));
    EXPECT_EQ(xsOf(rows[1]), (std::vector<double>{1, 21, 42}));

    const Cols cols = CalibrationHelper::extractCols(rows, 3, 2);
    ASSERT_EQ(cols.size(), 3u);
    EXPECT_EQ(ysOf(cols[1]), (std::vector<double>{0, 52}));
    EXPECT_TRUE(CalibrationHelper::extractCols(rows, 0, 2).empty());

    // Without the sort by y the cloud must already come in rows.
    const std::vector<EVector> ordered = {EVector(5, 0), EVector(0, 0), EVector(5, 9), EVector(0, 9)};
    const Cols fromFlat = CalibrationHelper::extractCols(ordered, 2, 2);
    EXPECT_EQ(xsOf(fromFlat[0]), (std::vector<double>{0, 0}));
    EXPECT_EQ(ysOf(fromFlat[0]), (std::vector<double>{0, 9}));

    const Cols snake = CalibrationHelper::extractColsZickZack(ordered, 2, 2);
    EXPECT_EQ(ysOf(snake[0]), (std::vector<double>{0, 9}));
    EXPECT_EQ(ysOf(snake[1]), (std::vector<double>{9, 0}));
}

TEST(CalibrationHelper, ZigzagReversesOddColumnsOnly)
{
    const Cols z = CalibrationHelper::extractColsZickZack(threeByThree(), 3, 3);
    EXPECT_EQ(ysOf(z[0]), (std::vector<double>{0, 10, 20}));
    EXPECT_EQ(ysOf(z[1]), (std::vector<double>{20, 10, 0}));
    EXPECT_EQ(ysOf(z[2]), (std::vector<double>{0, 10, 20}));
    EXPECT_EQ(ysOf(CalibrationHelper::extractColsZickZack(threeByThree(), 1, 3)[1]),
              (std::vector<double>{0, 10, 20}));
    EXPECT_EQ(ysOf(CalibrationHelper::flattenCols(z)), (std::vector<double>{0, 10, 20, 20, 10, 0, 0, 10, 20}));
}

TEST(CalibrationHelper, InversionsShiftsAndSideCorrections)
{
    EXPECT_TRUE(CalibrationHelper::invertColsHorizontally({}).empty());
    EXPECT_EQ(CalibrationHelper::invertColsHorizontally(threeByThree())[0][0].x, 20);
    EXPECT_EQ(ysOf(CalibrationHelper::invertColsVertically(threeByThree())[0]), (std::vector<double>{20, 10, 0}));
    EXPECT_TRUE(CalibrationHelper::isInvertedCMOS({EVector(0, 5), EVector(9, 5)}));
    EXPECT_FALSE(CalibrationHelper::isInvertedCMOS({EVector(0, 1), EVector(9, 5)}));

    Cols g = threeByThree();
    CalibrationHelper::shiftPoints(&g, 1, -2);
    CalibrationHelper::correctSideCols(&g, 2);
    EXPECT_EQ(xsOf(CalibrationHelper::flattenCols(g)), (std::vector<double>{3, 3, 3, 11, 11, 11, 19, 19, 19}));
    EXPECT_EQ(g[2][2].y, 18);

    // Nine columns: the first half's outer column gets the whole ratio, the last
    // column only 3/4.5 of it and the middle one nothing. Intended.
    Cols nine(9, {EVector(0, 0)});
    CalibrationHelper::correctOneSideXPositionWithRatio(&nine, true, 9);
    CalibrationHelper::correctOneSideXPositionWithRatio(&nine, false, 9);
    EXPECT_DOUBLE_EQ(nine[0][0].x, 9);
    EXPECT_DOUBLE_EQ(nine[3][0].x, 9 * (1 - 3 / 4.5));
    EXPECT_DOUBLE_EQ(nine[4][0].x, 0);
    EXPECT_DOUBLE_EQ(nine[8][0].x, 9 * 3 / 4.5);
    Cols single(1, {EVector(0, 0)});
    CalibrationHelper::correctOneSideYPositionWithRatio(&single, false, 5);
    CalibrationHelper::correctOneSideYPositionWithRatio(&single, true, 5);
    EXPECT_EQ(single[0][0].y, 0);
}

TEST(CalibrationHelper, CornersMoveTowardsTheCentre)
{
    for (int mode : {0, 1, 2, 3}) {
        SCOPED_TRACE(mode);
        Cols g = threeByThree();
        CalibrationHelper::correctCornersTowardsCenter(&g, 0.5, mode);
        const bool top = mode == 0 || mode == 2, bottom = mode == 1 || mode == 2;
        // Top-left x, top-right y, bottom-left y, bottom-right x, the centre's x.
        EXPECT_EQ(std::tuple(g[0][0].x, g[2][0].y, g[0][2].y, g[2][2].x, g[1][1].x),
                  std::tuple(top ? 5 : 0, top ? 5 : 0, bottom ? 15 : 20, bottom ? 15 : 20, 10));
    }
}
