#include "pointmatchers.h"

#include "blobcorrectionbyformula.h"
#include "configfileerror.h"
#include "contourtracer.h"
#include "densityclustering.h"
#include "epolygon.h"
#include "evector.h"
#include "fisheyeundistortion.h"
#include "interpolation.h"
#include "normalundistortion.h"
#include "perspectivetransform.h"
#include "polygonindex.h"
#include "quillonimagehelper.h"
#include "utility.h"

#include <gtest/gtest.h>

#include <QImage>
#include <QTemporaryDir>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/imgproc/imgproc_c.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
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
    std::sort(v.begin(), v.end(), [](EVector a, EVector b) { return xAscSort(a, b); });
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

static Blob at(double x, double y, int sessionId, int state = 2)
{
    Blob b(x, y, 4, 4, 0);
    b.sessionId = sessionId;
    b.state = state;
    return b;
}

// The position filters and the density clustering.
TEST(BezierFilter, ThirdFrameOnIsTheMeanOfTheLastSmoothedAndTheNewPosition)
{
    Interpolation f(0.6);
    auto smooth = [&](double x, double y, int sessionId, int state = 2) {
        Blob b = at(x, y, sessionId, state);
        f.BezierCurveFilter(&b, false);
        return b;
    };
    EXPECT_DOUBLE_EQ(smooth(10, 10, 1).x, 10);
    EXPECT_DOUBLE_EQ(smooth(20, 10, 1).x, 20);
    EXPECT_THAT(smooth(30, 30, 1), IsPoint(25, 20));
    EXPECT_DOUBLE_EQ(smooth(45, 20, 1, 1).x, 35) << "lost: smoothed once more, then forgotten";
    EXPECT_EQ(Interpolation::find(&f.ids, 1), -1);
    EXPECT_DOUBLE_EQ(smooth(100, 100, 2).x, 100) << "touches do not share a path";
}

TEST(InertiaFilter, FollowsTheCurveWithTheGivenOrAutomaticFactor)
{
    Interpolation f(0.5);
    auto follow = [&](double x, double y, double factor) {
        Blob b = at(x, y, 4);
        f.InertiaCurveFilter(&b, factor);
        return b;
    };
    follow(0, 0, 0.0);
    EXPECT_DOUBLE_EQ(follow(10, 0, 0.0).x, 10) << "too short a path: unchanged";
    EXPECT_THAT(follow(30, 6, 0.0), IsPoint(10, 0)) << "t 0 holds the last path position";
    // Factor 0.5 at speed 0; p0 (10,0), p1 (10,0), p2 (20,0): 0.25 * 10 + 10.
    EXPECT_DOUBLE_EQ(follow(20, 0, -1.0).x, 12.5);
    EXPECT_DOUBLE_EQ(follow(20, 0, -0.5).x, 0.25 * (20 + 10 - 25) + 12.5 - 0.5 * 2.5) << "used as it stands";
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

// Perspective transforms against OpenCV.

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

// Lens undistortion against OpenCV and the factory lens.
class FactoryLens : public testing::Test {
protected:
    std::string intrinsic = std::string(VELORA_SOURCE_DIR) + "/config/intrinsic.xml";
    std::string distortion = std::string(VELORA_SOURCE_DIR) + "/config/distortion.xml";
    cv::Mat K = cv::FileStorage(intrinsic, cv::FileStorage::READ)["Intrinsics"].mat();
    cv::Mat D = cv::FileStorage(distortion, cv::FileStorage::READ)["Distortion"].mat();
};

TEST_F(FactoryLens, NormalUndistortionMovesPointsAsOpenCvDoes)
{
    // The factory lens at full and half size, then the library's longer models on the same camera:
    // rational (8), thin prism (12), a tilted sensor (14), and a barrel so strong that the far
    // corners fold back.
    std::vector<std::pair<cv::Mat, cv::Mat>> lenses;
    for (double scale : {1.0, 0.5}) {
        NormalUndistortion lens;
        ASSERT_TRUE(lens.initByFiles(intrinsic.c_str(), distortion.c_str(), scale, scale));
        cv::Mat k = K.clone();
        k.rowRange(0, 2) *= scale; // focal lengths and principal point
        EXPECT_DOUBLE_EQ(lens.intrinsicMatrix.at<double>(0, 0), k.at<double>(0, 0));
        lenses.emplace_back(k, D);
    }
    lenses.emplace_back(K, (cv::Mat_<double>(8, 1) << -0.12, 0.05, 4e-4, -3e-4, -0.01, 0.02, -0.01, 0.003));
    lenses.emplace_back(K, (cv::Mat_<double>(12, 1) << -0.12, 0.05, 4e-4, -3e-4, -0.01, 0, 0, 0, 1e-3, -2e-4, 5e-4, 1e-4));
    lenses.emplace_back(K, (cv::Mat_<double>(14, 1) << -0.12, 0.05, 4e-4, -3e-4, -0.01, 0, 0, 0, 0, 0, 0, 0, 0.01, -0.02));
    lenses.emplace_back(K, (cv::Mat_<double>(5, 1) << -0.9, 0, 0, 0, 0));
    for (const auto& [k, d] : lenses) {
        SCOPED_TRACE(cv::format("fx %g, %d coefficients", k.at<double>(0, 0), int(d.total())));
        NormalUndistortion lens;
        lens.intrinsicMatrix = k;
        lens.distortionCoeffs = d;
        lens.ready = true;
        for (double y = -100.25; y <= 600; y += 37.7) {
            for (double x = -150.5; x <= 900; x += 43.1) {
                std::vector<cv::Point2d> in{{x, y}}, out;
                cv::undistortPoints(in, out, k, d, cv::noArray(), k);
                const EVector got = lens.undistort(EVector(x, y));
                ASSERT_EQ(std::tuple(got.x, got.y), std::tuple(out[0].x, out[0].y)) << x << "," << y;
            }
        }
    }
}

TEST_F(FactoryLens, DistortingTheUndistortedPointReturnsIt)
{
    NormalUndistortion lens;
    ASSERT_TRUE(lens.initByFiles(intrinsic.c_str(), distortion.c_str(), 1.0, 1.0));
    const double fx = K.at<double>(0, 0), fy = K.at<double>(1, 1), cx = K.at<double>(0, 2), cy = K.at<double>(1, 2);
    double worst = 0, moved = 0;
    for (double y = 0; y <= 480; y += 24) {
        for (double x = 0; x <= 752; x += 47) {
            const EVector u = lens.undistort(EVector(x, y));
            moved = std::max(moved, std::hypot(u.x - x, u.y - y));
            std::vector<cv::Point3d> ray{{(u.x - cx) / fx, (u.y - cy) / fy, 1.0}};
            std::vector<cv::Point2d> image;
            cv::projectPoints(ray, cv::Vec3d(0, 0, 0), cv::Vec3d(0, 0, 0), K, D, image);
            worst = std::max(worst, std::hypot(image[0].x - x, image[0].y - y));
        }
    }
    EXPECT_LT(worst, 0.01);
    EXPECT_GT(moved, 5.0); // the lens does bend the corners
}

TEST_F(FactoryLens, MissingFilesLeaveTheCorrectionInactiveOrStopTheSetUp)
{
    NormalUndistortion lens;
    EXPECT_FALSE(lens.initByFiles(intrinsic.c_str(), "/nonexistent/distortion.xml", 1.0, 1.0));
    EXPECT_FALSE(lens.ready);
    EVector p(123.25, 45.5);
    p.tag = 4;
    p.measureC = 17;
    const EVector same = lens.undistort(p);
    EXPECT_EQ(std::tuple(same.x, same.y, same.tag, same.measureC), std::tuple(123.25, 45.5, 4, 17.0));
    EXPECT_FALSE(lens.initByIntrinsic(1, 2, 3, 4));

    NormalUndistortion broken;
    EXPECT_THROW(broken.initByFiles("/nonexistent/intrinsic.xml", distortion.c_str(), 1.0, 1.0), ConfigFileError);
    // The distortion file holds no 3x3 matrix.
    EXPECT_THROW(broken.initByFiles(distortion.c_str(), distortion.c_str(), 1.0, 1.0), ConfigFileError);

    // The principal point moves to the mean of the points.
    double points[] = {100, 200, 300, 400, 500, 0};
    lens.correctIntrinsicFileCenter(points, 6);
    EXPECT_DOUBLE_EQ(lens.intrinsicMatrix.at<double>(0, 2), 300);
    EXPECT_DOUBLE_EQ(lens.intrinsicMatrix.at<double>(1, 2), 200);
}

TEST(FisheyeUndistortion, FollowsTheTangentOfTheRadius)
{
    FisheyeUndistortion lens;
    EVector p(576, 240);
    p.weight = 8;
    EXPECT_EQ(lens.undistort(p).weight, 8); // not initialised: unchanged
    EXPECT_EQ((std::pair{lens.initByFiles("a", "b", 1, 1), bool(lens.ready)}), std::pair(false, false));

    ASSERT_TRUE(lens.initByIntrinsic(376, 240, 400, 300));
    const EVector q = lens.undistort(p);
    EXPECT_THAT(q, IsPoint(400 * std::tan(0.5) + 376, 240));
    EXPECT_EQ(q.weight, 0);

    const EVector diagonal = lens.undistort(EVector(376 + 0.3 * 400, 240 + 0.4 * 300));
    EXPECT_THAT(diagonal, IsNear(0.3 * std::tan(0.5) / 0.5 * 400 + 376, 0.4 * std::tan(0.5) / 0.5 * 300 + 240, 1e-9));
    // At the principal point the ratio tan(0)/0 is not a number.
    EXPECT_TRUE(std::isnan(lens.undistort(EVector(376, 240)).x));
}

// Picture measurements and helpers.

// Pixels at odd rows or columns carry 255, so any visit of them would show in the results.
static cv::Mat checkerboard()
{
    cv::Mat m(4, 6, CV_8UC1, cv::Scalar(255));
    for (int y = 0; y < 4; y += 2)
        for (int x = 0; x < 6; x += 2)
            m.at<uint8_t>(y, x) = static_cast<uint8_t>(10 * (x + 1) + y);
    return m;
}

TEST(PictureMeasurements, VisitEverySecondPixelOfEverySecondRowAndGiveZeroForNone)
{
    const cv::Mat m = checkerboard();
    // Visited: rows 0 and 2, columns 0, 2, 4: 10 30 50 and 12 32 52.
    EXPECT_DOUBLE_EQ(utility::totalBrightness(m), 186);
    EXPECT_DOUBLE_EQ(utility::calcAvg(m, 20), (30 + 50 + 32 + 52) / 4.0);
    EXPECT_DOUBLE_EQ(utility::calcAvgBelow(m, 31), (10 + 30 + 12) / 3.0);
    cv::Mat mask = cv::Mat::zeros(4, 6, CV_8UC1);
    mask.at<uint8_t>(2, 4) = 1;
    mask.at<uint8_t>(0, 0) = 1;
    mask.at<uint8_t>(1, 1) = 1; // not visited
    EXPECT_DOUBLE_EQ(utility::calcAvg(m, mask), (10 + 52) / 2.0);
    EXPECT_DOUBLE_EQ(utility::calcVariance(m, 31, -1, false), (21 + 1 + 19 + 19 + 1 + 21) / 6.0);
    EXPECT_DOUBLE_EQ(utility::calcVarianceMasked(m, 31, -1, false, mask), (21 + 21) / 2.0);
    // An empty selection gives zero.
    EXPECT_EQ(std::tuple(utility::calcAvg(m, 255), utility::calcAvgBelow(m, 0),
                         utility::calcAvg(m, cv::Mat::zeros(4, 6, CV_8UC1)), utility::calcVariance(m, 5, 255, false)),
              std::tuple(0.0, 0.0, 0.0, 0.0));
}

TEST(PictureMeasurements, TextHelpers)
{
    EXPECT_EQ(utility::Trim("  a b "), "a b");
    EXPECT_THROW(utility::Trim("   "), std::out_of_range);
    EXPECT_EQ(std::pair(utility::CharToInt("42 apples"), utility::CharToInt("apples")), std::pair(42, 0));
}

TEST(DebugPictures, AreWrittenIntoAFolderMadeOnDemand)
{
    QTemporaryDir dir;
    const std::string folder = dir.filePath("debug/nested").toStdString();
    ASSERT_TRUE(utility::SaveDebugImage(checkerboard(), folder, "pattern", 3));
    QImage back(QString::fromStdString(folder + "/pattern3.png"));
    ASSERT_FALSE(back.isNull());
    back = back.convertToFormat(QImage::Format_Grayscale8);
    const cv::Mat read(back.height(), back.width(), CV_8UC1, back.bits(), static_cast<size_t>(back.bytesPerLine()));
    EXPECT_EQ(cv::norm(read, checkerboard(), cv::NORM_INF), 0);
}

TEST(BlobCorrectionByFormula, ZoomScalesAboutTheCentreAndKeepsThePayload)
{
    BlobCorrectionByFormula f;
    EXPECT_EQ(std::tuple(f.center.x, f.center.y), std::tuple(320, 240));

    EVector p(420, 190);
    p.measureD = 6;
    f.config(EVector(400, 200), -1.0, 0, 0, 0, 0, 0);
    EXPECT_EQ(f.zoom(p).measureD, 6);
    EXPECT_EQ(f.zoom(p).x, 420);

    f.config(EVector(400, 200), 1.0, 0, 0, 0, 0, 0);
    EXPECT_THAT(f.zoom(p), IsPoint(420, 190));

    f.config(EVector(400, 200), 1.5, 0, 0, 0, 0, 0);
    EXPECT_THAT(f.zoom(p), IsPoint(430, 185));
    EXPECT_EQ(f.zoom(p).measureD, 6);
    EXPECT_TRUE(std::isnan(f.zoom(EVector(400, 200)).x));
}

TEST(BlobCorrectionByFormula, FilterAppliesRadialAndTangentialTerms)
{
    BlobCorrectionByFormula f;
    EXPECT_THAT(f.filter(EVector(17, -3)), IsPoint(17, -3));
    EXPECT_THAT(BlobCorrectionByFormula::filter(EVector(10, 0), EVector(0, 0), 0.01, 0, 0, 0, 0), IsPoint(11, 0))
        << "radial";
    EXPECT_THAT(BlobCorrectionByFormula::filter(EVector(10, 0), EVector(0, 0), 0, 0, 0, 0.001, 0), IsPoint(10.3, 0))
        << "tangential";

    // r = 5 about (1, 1): s = 1 + 0.02*5 + 0.001*25 + 0.0001*625.
    f.config(EVector(1, 1), -1.0, 0.02, 0.001, 0.0001, 0, 0.002);
    const double s = 1 + 0.1 + 0.025 + 0.0625;
    EXPECT_THAT(f.filter(EVector(4, 5)),
                IsNear(3 * s + 2 * 0.002 * 3 * 4 + 1, 4 * s + 0.002 * (2 * 16 + 25) + 1, 1e-12));
}

// Pixel access and sub-pixel centres.
TEST(Pixels, AccessorsReadWriteAndKeepTheirRangeRules)
{
    cv::Mat image = cv::Mat::zeros(4, 6, CV_8UC1);
    image.at<unsigned char>(0, 0) = 7;
    image.at<unsigned char>(1, 0) = 9;
    EXPECT_EQ(QuillonImageHelper::intensityAtByPos(&image, 0, -1), -1) << "position 0 is never readable";
    EXPECT_EQ(QuillonImageHelper::intensityAtByPos(&image, 6, -1), 9);
    EXPECT_EQ(QuillonImageHelper::intensityAtByPos(&image, 24, -1), -1);
    EXPECT_EQ(QuillonImageHelper::intensityAt(&image, 6, 0, -1), 9) << "x == width is the next row";
    EXPECT_EQ(QuillonImageHelper::intensityAt(&image, -1, 0, -1), -1);
    EXPECT_EQ(QuillonImageHelper::intensityAt(&image, 7, 0, -1), -1);
    EXPECT_EQ(QuillonImageHelper::intensityAt(&image, 2, 3, 200), 200);
    EXPECT_EQ(image.at<unsigned char>(3, 2), 200);
    EXPECT_EQ(QuillonImageHelper::intensityAt(image.data, 2, 3, 6, -1), 200);
    EXPECT_EQ(QuillonImageHelper::intensityAt(image.data, 2, 7, 6, -1), -1);
}

TEST(Pixels, SubPixIsTheWeightedCentroidAboveTheThreshold)
{
    cv::Mat image = cv::Mat::zeros(4, 6, CV_8UC1);
    double sum = -1;
    EVector none = QuillonImageHelper::subPix(&image, cv::Rect(0, 0, 6, 4), 0, false, &sum, 0);
    EXPECT_EQ(std::tuple(none.x, none.y, sum), std::tuple(-1, -1, 0));

    image.at<unsigned char>(2, 3) = 255;
    EVector one = QuillonImageHelper::subPix(&image, cv::Rect(0, 0, 6, 4), 10, false, &sum, 0);
    EXPECT_THAT(one, IsPoint(3, 2));
    image.at<unsigned char>(2, 4) = 255;
    image.at<unsigned char>(0, 0) = 10; // at the threshold: does not count
    EVector two = QuillonImageHelper::subPix(&image, cv::Rect(0, 0, 6, 4), 10, true, &sum, 1);
    EXPECT_DOUBLE_EQ(two.x, 3.5);
    EXPECT_DOUBLE_EQ(sum, 2.0);
    EXPECT_EQ(std::tuple(two.measureC, two.measureD), std::tuple(2, 255));
    EXPECT_EQ(image.at<unsigned char>(2, 4), 1) << "erased";
    EXPECT_EQ(image.at<unsigned char>(0, 0), 10);
}

// The index against the polygon's own test: star-shaped and self-crossing outlines, points on
// vertices, on edges and at the band limits, and points far outside.
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

// The tracer against the library's own external, simple-chain contour search on the same
// pictures (spots, rings, islands in rings, single pixels and noise, at several sizes), and the
// measures of each contour against the library's.
static std::vector<std::vector<cv::Point>> libraryContours(cv::Mat& binary)
{
    std::vector<std::vector<cv::Point>> out;
    CvMemStorage* storage = cvCreateMemStorage(0);
    CvMat image = cvMat(binary);
    CvSeq* first = nullptr;
    cvFindContours(&image, storage, &first, sizeof(CvContour), CV_RETR_EXTERNAL, CV_CHAIN_APPROX_SIMPLE,
                   cvPoint(0, 0));
    if (first) {
        CvSeq* all = cvTreeToNodeSeq(first, sizeof(CvSeq), storage);
        for (int i = 0; i < all->total; ++i) {
            CvSeq* c = *reinterpret_cast<CvSeq**>(cvGetSeqElem(all, i));
            out.emplace_back(std::size_t(c->total));
            cvCvtSeqToArray(c, out.back().data());
        }
    }
    cvReleaseMemStorage(&storage);
    return out;
}

// Blobs of random size, some with holes and islands in them, over sparse noise.
static cv::Mat picture(unsigned seed, cv::Size size, double noise)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(0, 1);
    cv::Mat m = cv::Mat::zeros(size, CV_8UC1);
    const int blobs = 1 + int(u(rng) * 6);
    for (int i = 0; i < blobs; ++i) {
        const cv::Point c(int(u(rng) * size.width), int(u(rng) * size.height));
        const int r = 1 + int(u(rng) * size.width / 4);
        cv::circle(m, c, r, 255, -1);
        if (u(rng) < 0.4 && r > 3)
            cv::circle(m, c, r / 2, 0, -1);
        if (u(rng) < 0.3 && r > 6)
            cv::circle(m, c, r / 5, 255, -1);
    }
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x)
            if (u(rng) < noise)
                m.at<unsigned char>(y, x) ^= 255;
    m.row(0).setTo(0);
    m.row(m.rows - 1).setTo(0);
    m.col(0).setTo(0);
    m.col(m.cols - 1).setTo(0);
    return m;
}

TEST(ContourTracer, SameContoursAndMarksAsTheLibrary)
{
    ContourTracer tracer;
    std::vector<std::vector<cv::Point>> mine;
    const struct {
        cv::Size size;
        double noise;
    } cases[] = {{{3, 3}, 0.5}, {{5, 4}, 0.3}, {{23, 23}, 0.0}, {{23, 38}, 0.05}, {{40, 32}, 0.2}, {{64, 64}, 0.5}};
    for (const auto& c : cases) {
        for (unsigned seed = 0; seed < 200; ++seed) {
            SCOPED_TRACE(testing::Message() << c.size << " noise " << c.noise << " seed " << seed);
            cv::Mat theirs = picture(seed, c.size, c.noise), ours = theirs.clone();
            const auto expected = libraryContours(theirs);
            // Told where the set rows are, it finds the same.
            cv::Mat banded = ours.clone();
            cv::Range rows(ours.rows, 0);
            for (int y = 0; y < ours.rows; ++y)
                if (cv::countNonZero(ours.row(y)) > 0)
                    rows = cv::Range(std::min(rows.start, y), y + 1);
            tracer.trace(banded, mine, rows);
            ASSERT_EQ(mine, expected);
            tracer.trace(ours, mine);
            ASSERT_EQ(mine, expected);
            // The library has rewritten 255 to 1 where no border passed.
            ours.setTo(1, ours == 255);
            ASSERT_EQ(cv::countNonZero(ours != theirs), 0);
            for (const auto& contour : mine) {
                const ContourTracer::Shape s = ContourTracer::shape(contour);
                const cv::Moments m = cv::moments(contour);
                // Bit for bit: a threshold on area over perimeter must fall the same way.
                ASSERT_EQ(std::make_tuple(s.bounds, s.area, s.perimeter, s.m00, s.m10, s.m01),
                          std::make_tuple(cv::boundingRect(contour), std::fabs(cv::contourArea(contour)),
                                          cv::arcLength(contour, true), m.m00, m.m10, m.m01));
            }
        }
    }
}
