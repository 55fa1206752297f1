#include "pointmatchers.h"

#include "densityclustering.h"
#include "interpolation.h"

#include <gtest/gtest.h>

static Blob at(double x, double y, int sessionId, int state = 2)
{
    Blob b(x, y, 4, 4, 0);
    b.sessionId = sessionId;
    b.state = state;
    return b;
}

TEST(BezierFilter, ThirdFrameOnIsTheMeanOfTheLastSmoothedAndTheNewPosition)
{
    Interpolation f(0.6);
    Blob b1 = at(10, 10, 1);
    f.BezierCurveFilter(&b1, false);
    EXPECT_DOUBLE_EQ(b1.x, 10);
    Blob b2 = at(20, 10, 1);
    f.BezierCurveFilter(&b2, false);
    EXPECT_DOUBLE_EQ(b2.x, 20);
    Blob b3 = at(30, 30, 1);
    f.BezierCurveFilter(&b3, false);
    EXPECT_THAT(b3, IsPoint(25, 20));
    Blob b4 = at(45, 20, 1, 1); // lost: smoothed once more, then forgotten
    f.BezierCurveFilter(&b4, false);
    EXPECT_DOUBLE_EQ(b4.x, 35);
    EXPECT_EQ(Interpolation::find(&f.ids, 1), -1);

    Blob other = at(100, 100, 2);
    f.BezierCurveFilter(&other, false);
    EXPECT_DOUBLE_EQ(other.x, 100) << "touches do not share a path";
}

TEST(InertiaFilter, FollowsTheCurveWithTheGivenOrAutomaticFactor)
{
    Interpolation f(0.5);
    Blob a = at(0, 0, 4), b = at(10, 0, 4);
    f.InertiaCurveFilter(&a, 0.0);
    f.InertiaCurveFilter(&b, 0.0);
    EXPECT_DOUBLE_EQ(b.x, 10) << "too short a path: unchanged";
    Blob c = at(30, 6, 4);
    f.InertiaCurveFilter(&c, 0.0);
    EXPECT_THAT(c, IsPoint(10, 0)) << "t 0 holds the last path position";
    Blob d = at(20, 0, 4);
    f.InertiaCurveFilter(&d, -1.0); // factor 0.5, speed 0
    // p0 (10,0), p1 (10,0), p2 (20,0): 0.25 * 10 + 10
    EXPECT_DOUBLE_EQ(d.x, 12.5);
    Blob e = at(20, 0, 4);
    f.InertiaCurveFilter(&e, -0.5); // used as it stands
    EXPECT_DOUBLE_EQ(e.x, 0.25 * (20 + 10 - 25) + 12.5 - 0.5 * 2.5);
    EXPECT_DOUBLE_EQ(Interpolation::InertiaCurve(EVector(1, 2), EVector(3, 5), EVector(7, 1), 1.0).x, 7);
}

TEST(Filters, ResetListAndLongSessionsKeepTheHistoryBounded)
{
    Interpolation f(0.5);
    Blob b = at(1, 1, 9);
    f.BezierCurveFilter(&b, false);
    Blob unknown = at(0, 0, 77);
    f.ResetList(&unknown);
    EXPECT_EQ(f.ids.size(), 1u);
    f.ResetList(&b);
    EXPECT_TRUE(f.ids.empty() && f.history.empty());

    for (int frame = 0; frame < 100000; ++frame) {
        Blob live = at(frame % 500, 100, 1000);
        f.BezierCurveFilter(&live, false);
        f.InertiaCurveFilter(&live, -1.0);
        Blob shortLived = at(5, 5, 2000 + frame, 1); // lost on its first frame
        f.BezierCurveFilter(&shortLived, false);
    }
    ASSERT_EQ(f.ids.size(), 1u);
    EXPECT_LE(f.history[0].size(), Interpolation::MaxPathLength);
    EXPECT_GE(f.history[0].size(), 2u);
}

TEST(DensityClustering, GroupsDenseRunsAndKeepsEntryZeroEmpty)
{
    DensityClustering dc;
    const std::vector<EVector> none;
    const auto empty = dc.cluster(&none, 1.0f, 2);
    ASSERT_EQ(empty.size(), 1u);
    EXPECT_TRUE(empty[0].empty());

    const std::vector<EVector> line = {EVector(0, 0), EVector(1, 0), EVector(2, 0)};
    EXPECT_EQ(dc.regionQuery(&line, &line[1], 1.0f), (std::vector<int>{0, 2}));
    const auto c = dc.cluster(&line, 1.0f, 2);
    ASSERT_EQ(c.size(), 2u);
    ASSERT_EQ(c[1].size(), 3u);
    EXPECT_DOUBLE_EQ(c[1][0].x, 1);

    const std::vector<EVector> twins = {EVector(5, 5), EVector(5, 5), EVector(50, 50)};
    EXPECT_TRUE(dc.regionQuery(&twins, &twins[0], 10.0f).empty()) << "same place is no neighbour";
    EXPECT_EQ(dc.cluster(&twins, 10.0f, 0).size(), 4u) << "minPoints 0: every point starts one";
}
