#include "pointmatchers.h"

#include "perspectivetransform.h"

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <random>
#include <tuple>

// Four points of an ellipse in angular order always form a convex quad.
static EPolygon randomConvexQuad(std::mt19937& rng, double width, double height)
{
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const double cx = width * (0.3 + 0.4 * unit(rng)), cy = height * (0.3 + 0.4 * unit(rng));
    const double rx = width * (0.1 + 0.2 * unit(rng)), ry = height * (0.1 + 0.2 * unit(rng));
    const double start = 2 * M_PI * unit(rng);
    std::vector<EVector> v;
    for (int i = 0; i < 4; ++i) {
        const double a = start + i * M_PI / 2 + (unit(rng) - 0.5) * M_PI / 4;
        // OpenCV takes float corners: give both sides the same ones.
        v.emplace_back(static_cast<float>(cx + rx * std::cos(a)), static_cast<float>(cy + ry * std::sin(a)));
    }
    return EPolygon(v);
}

static std::vector<cv::Point2f> toCv(const EPolygon& p)
{
    std::vector<cv::Point2f> out;
    for (const EVector& v : p.points)
        out.emplace_back(static_cast<float>(v.x), static_cast<float>(v.y));
    return out;
}

TEST(PerspectiveTransform, QuadToQuadAgreesWithOpenCvOnCornersAndInterior)
{
    std::mt19937 rng(20240611);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const double tolerance = 1e-6 * 1920;
    for (int round = 0; round < 500; ++round) {
        const EPolygon src = randomConvexQuad(rng, 752, 480);
        const EPolygon dst = randomConvexQuad(rng, 1920, 1080);
        const PerspectiveTransform t(src, dst);
        const cv::Mat h = cv::getPerspectiveTransform(toCv(src), toCv(dst));

        std::vector<cv::Point2d> probes;
        for (const EVector& v : src.points)
            probes.emplace_back(v.x, v.y);
        for (int i = 0; i < 20; ++i) {
            // Interior points as convex blends of the corners.
            double w[4], sum = 0;
            for (double& x : w)
                sum += (x = unit(rng));
            cv::Point2d p(0, 0);
            for (int k = 0; k < 4; ++k)
                p += cv::Point2d(src.points[k].x, src.points[k].y) * (w[k] / sum);
            probes.push_back(p);
        }
        std::vector<cv::Point2d> expected;
        cv::perspectiveTransform(probes, expected, h);
        for (std::size_t i = 0; i < probes.size(); ++i) {
            const EVector got = t.Filter(EVector(probes[i].x, probes[i].y));
            ASSERT_THAT(got, IsNear(expected[i].x, expected[i].y, tolerance)) << "round " << round << " probe " << i;
            if (i < 4) {
                ASSERT_THAT(got, IsNear(dst.points[i].x, dst.points[i].y, tolerance));
            }
        }
    }
}

TEST(PerspectiveTransform, ParallelogramTakesTheAffinePath)
{
    const auto a = PerspectiveTransform::getSquareToQuad(10, 10, 110, 30, 130, 130, 30, 110);
    EXPECT_EQ(std::tuple(a.m20, a.m21), std::tuple(0.0, 0.0));
    EXPECT_THAT(a.Filter(EVector(1, 1)), IsPoint(130, 130));

    const auto p = PerspectiveTransform::getSquareToQuad(0, 0, 100, 0, 80, 50, 20, 50);
    EXPECT_TRUE(p.m20 != 0.0 || p.m21 != 0.0);
    EXPECT_NEAR(p.Filter(EVector(1, 1)).x, 80, 1e-9);
}

TEST(PerspectiveTransform, AdjointUndoesTheMapWithoutNormalising)
{
    PerspectiveTransform t = PerspectiveTransform::getQuadToSquare(3, 4, 200, 15, 180, 170, 12, 160);
    EXPECT_THAT(t.Filter(EVector(180, 170)), IsNear(1, 1, 1e-12));
    t.makeAdjoint();
    const EVector back = t.Filter(EVector(0.5, 0.25));
    const EVector direct =
        PerspectiveTransform::getSquareToQuad(3, 4, 200, 15, 180, 170, 12, 160).Filter(EVector(0.5, 0.25));
    EXPECT_THAT(back, IsNear(direct.x, direct.y, 1e-9));

    t.normalize();
    EXPECT_EQ(t.m22, 1.0);
    EXPECT_NEAR(t.Filter(EVector(0.5, 0.25)).x, direct.x, 1e-9);
}

TEST(PerspectiveTransform, ElementaryTransformsAndTheirOrder)
{
    PerspectiveTransform after;
    after.scale(2, 2);
    after.translate(1, 0);
    EXPECT_THAT(after.Filter(EVector(1, 1)), IsPoint(3, 2));

    PerspectiveTransform before, shift;
    before.setToScale(2, 2);
    shift.setToTranslation(1, 0);
    before.preConcatenate(shift);
    EXPECT_THAT(before.Filter(EVector(1, 1)), IsPoint(4, 2));

    PerspectiveTransform t;
    t.rotate(M_PI / 2);
    t.rotate(-M_PI / 2, 2, 2);
    // A quarter turn about the origin and back about (2, 2) is a shift by (0, 4).
    EXPECT_THAT(t.Filter(EVector(3, 4)), IsNear(3, 8, 1e-12));

    t.setToShear(0.5, 0.25);
    EXPECT_THAT(t.Filter(EVector(2, 4)), IsPoint(4, 4.5));

    t.setTransform({{2, 0, 1}, {0, 3, 0}, {0, 0, 1}});
    EXPECT_DOUBLE_EQ(t.getDeterminant(), 6);
    EXPECT_DOUBLE_EQ(t.Filter(EVector(1, 1)).x, 3);
    EXPECT_TRUE(t.getMatrix().empty());

    // isIdentity compares the diagonal to m22.
    EXPECT_TRUE(PerspectiveTransform().isIdentity());
    t.setTransform({{2, 0, 0}, {0, 2, 0}, {0, 0, 2}});
    EXPECT_TRUE(t.isIdentity());
    t.setTransform({{2, 0, 0}, {0, 1, 0}, {0, 0, 1}});
    EXPECT_FALSE(t.isIdentity());
    t.setTransform({{0, 0, 0}, {0, 0, 0}, {0, 0, 0}});
    EXPECT_FALSE(t.isIdentity());
    t.setToTranslation(0, 1e-9);
    EXPECT_FALSE(t.isIdentity());
}
