// The tracking front end: from frames to screen-space blobs through a calibration.
#include "activepen.h"
#include "blob.h"
#include "calibration.h"
#include "globalsettings.h"
#include "itrackingengine.h"
#include "transformgrid.h"

#include <gtest/gtest.h>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <memory>
#include <vector>

namespace {

constexpr int SensorWidth = 752;
constexpr int SensorHeight = 480;
constexpr int ScreenWidth = 1920;
constexpr int ScreenHeight = 1080;

// Where the screen's corners fall on the sensor: a tilted projector seen by the camera.
cv::Mat screenToSensor()
{
    const std::vector<cv::Point2f> screen{{0, 0}, {ScreenWidth, 0}, {ScreenWidth, ScreenHeight}, {0, ScreenHeight}};
    const std::vector<cv::Point2f> sensor{{90, 60}, {660, 75}, {640, 420}, {110, 400}};
    return cv::getPerspectiveTransform(screen, sensor);
}

EVector apply(const cv::Mat& h, EVector p)
{
    std::vector<cv::Point2d> in{{p.x, p.y}}, out;
    cv::perspectiveTransform(in, out, h);
    return EVector(out[0].x, out[0].y);
}

// A calibration whose dots were seen exactly where the projective map puts them.
std::unique_ptr<Calibration> calibrationOf(int n, bool withRefPoints = false)
{
    std::vector<EVector> placeholder(n * n, EVector(0, 0));
    std::vector<EVector> ref;
    if (withRefPoints)
        ref = {EVector(5, 5), EVector(700, 5), EVector(700, 470), EVector(5, 470)};
    auto c = std::make_unique<Calibration>(n, n, placeholder, ref, 0.05, 0.05, 0.0, false, true);
    const std::vector<EVector> dst = c->calcDstPoints(ScreenWidth, ScreenHeight);
    const cv::Mat h = screenToSensor();
    for (size_t i = 0; i < dst.size(); ++i)
        c->srcPoints[i] = apply(h, dst[i]);
    return c;
}

ActivePenContext contextFor()
{
    const GS* gs = GS::instance();
    ActivePenContext c;
    c.width = SensorWidth;
    c.height = SensorHeight;
    c.stylusThreshold = gs->stylusThreshold;
    c.fingerThreshold = gs->fingerThreshold;
    c.boxParameter = gs->boxParameter;
    c.windowX = 10;
    c.windowY = 20;
    c.windowWidth = 700;
    c.windowHeight = 400;
    c.bezierFactor = gs->bezierFactor;
    c.inertiaRadius = 1.0; // inertia off: positions are compared as they come
    c.boxFactor = gs->boxFactor;
    c.autoWindow = true;
    return c;
}

// A dark frame with a bright round stylus tip at a sensor position.
std::vector<unsigned char> frameWithSpot(const EVector* at)
{
    cv::Mat m(SensorHeight, SensorWidth, CV_8UC1, cv::Scalar(12));
    if (at)
        cv::circle(m, cv::Point(cvRound(at->x * 16), cvRound(at->y * 16)), 4 * 16, cv::Scalar(250), cv::FILLED,
                   cv::LINE_AA, 4);
    return std::vector<unsigned char>(m.data, m.data + m.total());
}

class Front : public ::testing::Test {
protected:
    ActivePen pen;
    void SetUp() override
    {
        pen.start(nullptr, contextFor());
    }
    std::vector<Blob*> frame(const EVector* spot)
    {
        std::vector<unsigned char> pixels = frameWithSpot(spot);
        return pen.convert(pixels.data(), 0, false);
    }
    void learnBackground()
    {
        for (int i = 0; i < GS::instance()->stylusBgFrames + 2; ++i)
            for (Blob* b : frame(nullptr))
                delete b;
    }
};

struct Owned {
    std::vector<Blob*> v;
    explicit Owned(std::vector<Blob*> b) : v(std::move(b)) {}
    ~Owned()
    {
        for (Blob* b : v)
            delete b;
    }
};

} // namespace

TEST_F(Front, CalibrationMapsSensorToScreenAndBack)
{
    auto calibration = calibrationOf(5);
    pen.setCalibration(calibration.get(), calibration.get(), ScreenWidth, ScreenHeight, GS::instance()->boxParameter);
    ASSERT_TRUE(pen.grid->IsReady());
    const cv::Mat h = screenToSensor();
    for (EVector screen : {EVector(200, 150), EVector(960, 540), EVector(1700, 900), EVector(1000, 100)}) {
        // The factory lens is not loaded here, so undistorted and raw sensor points agree.
        const EVector sensor = apply(h, screen);
        const EVector mapped = pen.transform(sensor, false);
        EXPECT_NEAR(mapped.x, screen.x, 1.5) << screen.x << "," << screen.y;
        EXPECT_NEAR(mapped.y, screen.y, 1.5);
        const EVector back = pen.transform(mapped, true);
        EXPECT_NEAR(back.x, sensor.x, 1e-6);
        EXPECT_NEAR(back.y, sensor.y, 1e-6);
    }
    const size_t areas = pen.grid->areas.size();
    pen.setCalibration(calibration.get(), calibration.get(), ScreenWidth, ScreenHeight, GS::instance()->boxParameter);
    EXPECT_EQ(pen.grid->areas.size(), areas) << "the grids are emptied before they are filled again";
}

TEST_F(Front, AStylusStrokeArrivesAsOneTouchAtItsScreenPositions)
{
    auto calibration = calibrationOf(5);
    pen.setCalibration(calibration.get(), calibration.get(), ScreenWidth, ScreenHeight, GS::instance()->boxParameter);
    pen.setInputMode(StylusCalibration);
    learnBackground();

    const cv::Mat h = screenToSensor();
    int session = -1;
    // About 6 sensor pixels a frame: a brisk stroke at the sensor's frame rate.
    for (int step = 0; step < 40; ++step) {
        const EVector screen(400 + 25 * step, 300 + 12 * step);
        const EVector sensor = apply(h, screen);
        Owned blobs(frame(&sensor));
        ASSERT_EQ(blobs.v.size(), 1u) << "step " << step;
        Blob* b = blobs.v[0];
        EXPECT_FALSE(b->outside);
        EXPECT_EQ(b->state, step == 0 ? 0 : 2);
        if (step == 0)
            session = b->sessionId;
        EXPECT_EQ(b->sessionId, session) << "one gesture from start to end";
        // The position filter trails a moving point; a still one it must meet.
        EXPECT_NEAR(b->fx, screen.x, 60);
        EXPECT_NEAR(b->fy, screen.y, 60);
    }
    const EVector still = apply(h, EVector(1500, 800));
    for (int i = 0; i < 6; ++i)
        Owned settle(frame(&still));
    {
        Owned blobs(frame(&still));
        ASSERT_EQ(blobs.v.size(), 1u);
        EXPECT_NEAR(blobs.v[0]->fx, 1500, 3) << "a still stylus lands within 3 pixels";
        EXPECT_NEAR(blobs.v[0]->fy, 800, 3);
    }
    Owned lifted(frame(nullptr));
    ASSERT_EQ(lifted.v.size(), 1u);
    EXPECT_EQ(lifted.v[0]->state, 1) << "the lift is reported once";
    EXPECT_EQ(lifted.v[0]->sessionId, session);
    Owned gone(frame(nullptr));
    EXPECT_TRUE(gone.v.empty());
}

TEST_F(Front, WithoutACalibrationBlobsHaveNoScreenPosition)
{
    pen.setInputMode(StylusCalibration);
    learnBackground();
    const EVector spot(300, 200);
    Owned blobs(frame(&spot));
    ASSERT_EQ(blobs.v.size(), 1u);
    EXPECT_EQ(blobs.v[0]->fx, -1);
    EXPECT_EQ(blobs.v[0]->fy, -1);
    EXPECT_NEAR(blobs.v[0]->x, 300, 1);
}

TEST_F(Front, TheSecondEngineRunsOnlyInStylusModeWithABarCalibration)
{
    pen.setInputMode(Stylus);
    EXPECT_TRUE(pen.extended);
    EXPECT_FALSE(pen.dualEngine);
    auto bar = calibrationOf(3, true);
    pen.setInputMode(Finger);
    pen.setCalibration(bar.get(), bar.get(), ScreenWidth, ScreenHeight, GS::instance()->boxParameter);
    EXPECT_TRUE(pen.lumerailCalibrated);
    EXPECT_FALSE(pen.dualEngine) << "finger mode";
    pen.setInputMode(Stylus);
    EXPECT_TRUE(pen.dualEngine);
    pen.setInputMode(StylusCalibration);
    EXPECT_FALSE(pen.dualEngine);
    EXPECT_TRUE(pen.extended);
    pen.setInputMode(Finger);
    EXPECT_FALSE(pen.extended);
}

TEST_F(Front, BlobFilterIsSharedByBothEnginesAndTooFewPointsRemoveIt)
{
    pen.setBlobFilter({EVector(0, 0), EVector(100, 0), EVector(100, 100), EVector(0, 100)});
    ASSERT_NE(pen.fingerEngine->blobFilter, nullptr);
    EXPECT_EQ(pen.fingerEngine->blobFilter, pen.stylusEngine->blobFilter);
    EXPECT_EQ(pen.fingerEngine->blobFilter->size(), 4);
    pen.setBlobFilter({EVector(0, 0), EVector(1, 1)});
    EXPECT_EQ(pen.fingerEngine->blobFilter, nullptr);
    EXPECT_EQ(pen.stylusEngine->blobFilter, nullptr);
    EXPECT_DOUBLE_EQ(GS::instance()->windowTopLeft.x, 10) << "the window falls back to the configured one";
    EXPECT_DOUBLE_EQ(GS::instance()->windowBottomRight.y, 400);
}

TEST_F(Front, AutoWindowFramesTheScreenOnTheSensor)
{
    auto calibration = calibrationOf(5);
    pen.setCalibration(calibration.get(), calibration.get(), ScreenWidth, ScreenHeight, GS::instance()->boxParameter);
    pen.setAutoWindow({EVector(0, 0), EVector(ScreenWidth, 0), EVector(ScreenWidth, ScreenHeight),
                       EVector(0, ScreenHeight)});
    // Corners on the sensor: (90,60) (660,75) (640,420) (110,400): box 90..660 x 60..420, 5 pixels of margin.
    const GS* gs = GS::instance();
    EXPECT_NEAR(gs->windowTopLeft.x, 85, 1);
    EXPECT_NEAR(gs->windowTopLeft.y, 55, 1);
    EXPECT_NEAR(gs->windowBottomRight.x, 580, 1);
    EXPECT_NEAR(gs->windowBottomRight.y, 370, 1);

    pen.setAutoWindow({EVector(0, 0), EVector(ScreenWidth, 0), EVector(ScreenWidth, ScreenHeight)});
    EXPECT_DOUBLE_EQ(gs->windowTopLeft.x, 10) << "three points behave as setWindow";
}

TEST_F(Front, ShiftTablesFoldIntoSquares)
{
    std::vector<EVector> shifts;
    for (int i = 0; i < 10; ++i)
        shifts.emplace_back(i, -i);
    pen.setShiftCorrection(shifts);
    ASSERT_EQ(pen.fingerEngine->fingerXShifts.size(), 3u);
    EXPECT_EQ(pen.fingerEngine->fingerXShifts[2], (std::vector<double>{6, 7, 8})) << "the tenth entry is dropped";
    EXPECT_EQ(pen.fingerEngine->fingerYShifts[1], (std::vector<double>{-3, -4, -5}));
}
