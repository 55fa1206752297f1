#include "perspectivetransform.h"

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>

namespace {

EPolygon quad(std::array<double, 8> c)
{
    return EPolygon({EVector(c[0], c[1]), EVector(c[2], c[3]), EVector(c[4], c[5]), EVector(c[6], c[7])});
}

// Four points of an ellipse in angular order always form a convex quad.
EPolygon randomConvexQuad(std::mt19937& rng, double width, double height)
{
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const double cx = width * (0.3 + 0.4 * unit(rng));
    const double cy = height * (0.3 + 0.4 * unit(rng));
    const double rx = width * (0.1 + 0.2 * unit(rng));
    const double ry = height * (0.1 + 0.2 * unit(rng));
    const double start = 2 * M_PI * unit(rng);
    std::vector<EVector> v;
    for (int i = 0; i < 4; ++i) {
        // Clockwise on screen, with every gap between 45 and 135 degrees.
        const double a = start + i * M_PI / 2 + (unit(rng) - 0.5) * M_PI / 4;
        // OpenCV takes float corners: give both sides the same ones.
        v.emplace_back(static_cast<float>(cx + rx * std::cos(a)), static_cast<float>(cy + ry * std::sin(a)));
    }
    return EPolygon(v);
}

std::vector<cv::Point2f> toCv(const EPolygon& p)
{
    std::vector<cv::Point2f> out;
    for (const EVector& v : p.points)
        out.emplace_back(static_cast<float>(v.x), static_cast<float>(v.y));
    return out;
}

} // namespace

TEST(PerspectiveTransform, QuadToQuadAgreesWithOpenCvOnCornersAndInterior)
{
    std::mt19937 rng(20240611);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const double width = 1920, height = 1080;
    const double tolerance = 1e-6 * width;
    for (int round = 0; round < 500; ++round) {
        const EPolygon src = randomConvexQuad(rng, 752, 480);
        const EPolygon dst = randomConvexQuad(rng, width, height);
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
            ASSERT_NEAR(got.x, expected[i].x, tolerance) << "round " << round << " probe " << i;
            ASSERT_NEAR(got.y, expected[i].y, tolerance) << "round " << round << " probe " << i;
        }
        for (int i = 0; i < 4; ++i) {
            const EVector corner = t.Filter(src.points[i]);
            ASSERT_NEAR(corner.x, dst.points[i].x, tolerance);
            ASSERT_NEAR(corner.y, dst.points[i].y, tolerance);
        }
    }
}

TEST(PerspectiveTransform, QuadOntoItselfKeepsVerticesAndKeepsPolygons)
{
    const EPolygon q = quad({10, 12, 300, 20, 290, 250, 5, 240});
    const PerspectiveTransform t(q, q);
    for (const EVector& v : q.points) {
        const EVector m = t.Filter(v);
        EXPECT_NEAR(m.x, v.x, 1e-9);
        EXPECT_NEAR(m.y, v.y, 1e-9);
    }
    EXPECT_EQ(t.srcPolygon.size(), 4);
    EXPECT_EQ(t.dstPolygon[2].x, 290);
}

TEST(PerspectiveTransform, ParallelogramTakesTheAffinePath)
{
    const PerspectiveTransform a = PerspectiveTransform::getSquareToQuad(10, 10, 110, 30, 130, 130, 30, 110);
    EXPECT_EQ(a.m20, 0.0);
    EXPECT_EQ(a.m21, 0.0);
    const EVector c = a.Filter(EVector(1, 1));
    EXPECT_DOUBLE_EQ(c.x, 130);
    EXPECT_DOUBLE_EQ(c.y, 130);

    const PerspectiveTransform p = PerspectiveTransform::getSquareToQuad(0, 0, 100, 0, 80, 50, 20, 50);
    EXPECT_TRUE(p.m20 != 0.0 || p.m21 != 0.0);
    const EVector far = p.Filter(EVector(1, 1));
    EXPECT_NEAR(far.x, 80, 1e-9);
    EXPECT_NEAR(far.y, 50, 1e-9);
}

TEST(PerspectiveTransform, QuadToSquareUndoesSquareToQuad)
{
    const std::array<double, 8> c{3, 4, 200, 15, 180, 170, 12, 160};
    PerspectiveTransform t = PerspectiveTransform::getQuadToSquare(c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7]);
    const EVector corner = t.Filter(EVector(180, 170));
    EXPECT_NEAR(corner.x, 1, 1e-12);
    EXPECT_NEAR(corner.y, 1, 1e-12);
    // The adjoint serves as inverse without any division by the determinant.
    t.makeAdjoint();
    const EVector back = t.Filter(EVector(0.5, 0.25));
    const EVector direct =
        PerspectiveTransform::getSquareToQuad(c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7]).Filter(EVector(0.5, 0.25));
    EXPECT_NEAR(back.x, direct.x, 1e-9);
    EXPECT_NEAR(back.y, direct.y, 1e-9);
}

TEST(PerspectiveTransform, ConcatenateActsAfterAndPreConcatenateBefore)
{
    PerspectiveTransform after;
    after.scale(2, 2);
    after.translate(1, 0);
    EXPECT_DOUBLE_EQ(after.Filter(EVector(1, 1)).x, 3);
    EXPECT_DOUBLE_EQ(after.Filter(EVector(1, 1)).y, 2);

    PerspectiveTransform before;
    before.setToScale(2, 2);
    PerspectiveTransform shift;
    shift.setToTranslation(1, 0);
    before.preConcatenate(shift);
    EXPECT_DOUBLE_EQ(before.Filter(EVector(1, 1)).x, 4);
    EXPECT_DOUBLE_EQ(before.Filter(EVector(1, 1)).y, 2);
}

TEST(PerspectiveTransform, ElementaryTransforms)
{
    PerspectiveTransform t;
    t.setToRotation(M_PI / 2);
    EXPECT_NEAR(t.Filter(EVector(1, 0)).x, 0, 1e-12);
    EXPECT_NEAR(t.Filter(EVector(1, 0)).y, 1, 1e-12);

    t.setToRotation(0.7, 5, -3);
    EXPECT_NEAR(t.Filter(EVector(5, -3)).x, 5, 1e-12);
    EXPECT_NEAR(t.Filter(EVector(5, -3)).y, -3, 1e-12);
    EXPECT_NEAR((t.Filter(EVector(6, -3)) - EVector(5, -3)).length(), 1, 1e-12);

    t.setToIdentity();
    t.rotate(M_PI / 2);
    t.rotate(-M_PI / 2, 2, 2);
    // A quarter turn about the origin and back about (2, 2) is a shift by (0, 4).
    EXPECT_NEAR(t.Filter(EVector(3, 4)).x, 3, 1e-12);
    EXPECT_NEAR(t.Filter(EVector(3, 4)).y, 8, 1e-12);
    t.setToShear(0.5, 0.25);
    EXPECT_DOUBLE_EQ(t.Filter(EVector(2, 4)).x, 4);
    EXPECT_DOUBLE_EQ(t.Filter(EVector(2, 4)).y, 4.5);
    t.setToIdentity();
    t.shear(1, 0);
    t.scale(1, 3);
    EXPECT_DOUBLE_EQ(t.Filter(EVector(1, 1)).x, 2);
    EXPECT_DOUBLE_EQ(t.Filter(EVector(1, 1)).y, 3);

    t.setTransform({{2, 0, 1}, {0, 3, 0}, {0, 0, 1}});
    EXPECT_DOUBLE_EQ(t.getDeterminant(), 6);
    EXPECT_DOUBLE_EQ(t.Filter(EVector(1, 1)).x, 3);
    EXPECT_TRUE(t.getMatrix().empty());
}

TEST(PerspectiveTransform, IsIdentityComparesTheDiagonalToM22)
{
    PerspectiveTransform t;
    EXPECT_TRUE(t.isIdentity());
    t.setTransform({{2, 0, 0}, {0, 2, 0}, {0, 0, 2}});
    EXPECT_TRUE(t.isIdentity());
    t.setTransform({{2, 0, 0}, {0, 1, 0}, {0, 0, 1}});
    EXPECT_FALSE(t.isIdentity());
    t.setTransform({{0, 0, 0}, {0, 0, 0}, {0, 0, 0}});
    EXPECT_FALSE(t.isIdentity());
    t.setToTranslation(0, 1e-9);
    EXPECT_FALSE(t.isIdentity());
}

TEST(PerspectiveTransform, NormalizeKeepsTheMap)
{
    PerspectiveTransform t = PerspectiveTransform::getQuadToSquare(3, 4, 200, 15, 180, 170, 12, 160);
    const EVector before = t.Filter(EVector(50, 60));
    t.normalize();
    EXPECT_EQ(t.m22, 1.0);
    const EVector after = t.Filter(EVector(50, 60));
    EXPECT_NEAR(after.x, before.x, 1e-12);
    EXPECT_NEAR(after.y, before.y, 1e-12);
}

TEST(PerspectiveTransform, DegenerateQuadGivesNaNRatherThanAnError)
{
    const PerspectiveTransform t(quad({0, 0, 1, 1, 2, 2, 3, 3}), quad({0, 0, 1, 0, 1, 1, 0, 1}));
    EXPECT_TRUE(std::isnan(t.Filter(EVector(0.5, 0.5)).x));
}

TEST(PerspectiveTransform, FilterGivesAFreshPayload)
{
    PerspectiveTransform t;
    EVector p(1, 2);
    p.tag = 7;
    p.measureD = 3;
    const EVector q = t.Filter(p);
    EXPECT_EQ(q.tag, 0);
    EXPECT_EQ(q.measureD, 0);
}
