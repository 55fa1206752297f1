#include "pointmatchers.h"

#include "configfileerror.h"
#include "fisheyeundistortion.h"
#include "normalundistortion.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>

#include <QCoreApplication>

#include <cmath>
#include <string>
#include <tuple>

static std::string factoryFile(const char* name)
{
    return (QCoreApplication::applicationDirPath() + "/config/" + name).toStdString();
}

static cv::Mat readMatrix(const std::string& path, const char* node)
{
    cv::FileStorage fs(path, cv::FileStorage::READ);
    cv::Mat m;
    fs[node] >> m;
    return m;
}

class FactoryLens : public testing::Test {
protected:
    std::string intrinsic = factoryFile("intrinsic.xml");
    std::string distortion = factoryFile("distortion.xml");
    cv::Mat K = readMatrix(intrinsic, "Intrinsics");
    cv::Mat D = readMatrix(distortion, "Distortion");
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
