// The tracking front end: from frames to screen-space blobs through a calibration.
#include "ownedblobs.h"
#include "pointmatchers.h"

#include "activepen.h"
#include "blob.h"
#include "calibration.h"
#include "globalsettings.h"
#include "itrackingengine.h"
#include "transformgrid.h"

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

constexpr int SensorWidth = 752;
constexpr int SensorHeight = 480;
constexpr int ScreenWidth = 1920;
constexpr int ScreenHeight = 1080;

// Where a screen point falls on the sensor: a tilted projector seen by the camera.
static EVector sensorOf(EVector p)
{
    static const cv::Mat h = cv::getPerspectiveTransform(
        std::vector<cv::Point2f>{{0, 0}, {ScreenWidth, 0}, {ScreenWidth, ScreenHeight}, {0, ScreenHeight}},
        std::vector<cv::Point2f>{{90, 60}, {660, 75}, {640, 420}, {110, 400}});
    std::vector<cv::Point2d> in{{p.x, p.y}}, out;
    cv::perspectiveTransform(in, out, h);
    return EVector(out[0].x, out[0].y);
}

class Front : public ::testing::Test {
protected:
    std::unique_ptr<Calibration> calibration;
    std::unique_ptr<ActivePen> owner = std::make_unique<ActivePen>();
    ActivePen& pen = *owner;
    void SetUp() override
    {
        const GS* gs = GS::instance();
        // Inertia off: positions are compared as they come.
        pen.start(nullptr, {.width = SensorWidth, .height = SensorHeight, .stylusThreshold = gs->stylusThreshold,
                            .fingerThreshold = gs->fingerThreshold, .boxParameter = gs->boxParameter,
                            .windowX = 10, .windowY = 20, .windowWidth = 700, .windowHeight = 400,
                            .bezierFactor = gs->bezierFactor, .inertiaRadius = 1.0, .boxFactor = gs->boxFactor,
                            .autoWindow = true});
    }
    // A calibration whose dots were seen exactly where the projective map puts them;
    // reference points make it a bar calibration.
    void calibrate(int n = 5, bool withRefPoints = false)
    {
        std::vector<EVector> ref;
        if (withRefPoints)
            ref = {EVector(5, 5), EVector(700, 5), EVector(700, 470), EVector(5, 470)};
        calibration =
            std::make_unique<Calibration>(n, n, std::vector<EVector>(n * n), ref, 0.05, 0.05, 0.0, false, true);
        const std::vector<EVector> dst = calibration->calcDstPoints(ScreenWidth, ScreenHeight);
        for (size_t i = 0; i < dst.size(); ++i)
            calibration->srcPoints[i] = sensorOf(dst[i]);
        pen.setCalibration(calibration.get(), calibration.get(), ScreenWidth, ScreenHeight,
                           GS::instance()->boxParameter);
    }
    // A dark frame with a bright round stylus tip at a sensor position, or without.
    std::vector<Blob*> frame(const EVector* spot)
    {
        cv::Mat m(SensorHeight, SensorWidth, CV_8UC1, cv::Scalar(12));
        if (spot)
            cv::circle(m, cv::Point(cvRound(spot->x * 16), cvRound(spot->y * 16)), 4 * 16, cv::Scalar(250),
                       cv::FILLED, cv::LINE_AA, 4);
        return pen.convert(m.data, 0, false);
    }
    void learnBackground()
    {
        for (int i = 0; i < GS::instance()->stylusBgFrames + 2; ++i)
            OwnedBlobs{frame(nullptr)};
    }
};

TEST_F(Front, CalibrationMapsSensorToScreenAndBack)
{
    calibrate();
    ASSERT_TRUE(pen.grid->IsReady());
    for (EVector screen : {EVector(200, 150), EVector(960, 540), EVector(1700, 900), EVector(1000, 100)}) {
        // The factory lens is not loaded here, so undistorted and raw sensor points agree.
        const EVector sensor = sensorOf(screen);
        const EVector mapped = pen.transform(sensor, false);
        EXPECT_THAT(mapped, IsNear(screen.x, screen.y, 1.5)) << screen.x << "," << screen.y;
        const EVector back = pen.transform(mapped, true);
        EXPECT_THAT(back, IsNear(sensor.x, sensor.y, 1e-6));
    }
    const size_t areas = pen.grid->areas.size();
    pen.setCalibration(calibration.get(), calibration.get(), ScreenWidth, ScreenHeight, GS::instance()->boxParameter);
    EXPECT_EQ(pen.grid->areas.size(), areas) << "the grids are emptied before they are filled again";
}

TEST_F(Front, AStylusStrokeArrivesAsOneTouchAtItsScreenPositions)
{
    calibrate();
    pen.setInputMode(StylusCalibration);
    learnBackground();

    int session = -1;
    // About 6 sensor pixels a frame: a brisk stroke at the sensor's frame rate.
    for (int step = 0; step < 40; ++step) {
        const EVector screen(400 + 25 * step, 300 + 12 * step);
        const EVector sensor = sensorOf(screen);
        OwnedBlobs blobs = frame(&sensor);
        ASSERT_EQ(blobs.count(), 1) << "step " << step;
        if (step == 0)
            session = blobs[0]->sessionId;
        // One gesture from start to end.
        EXPECT_EQ(std::tuple(blobs[0]->outside, blobs[0]->state, blobs[0]->sessionId),
                  std::tuple(false, step == 0 ? 0 : 2, session));
        // The position filter trails a moving point; a still one it must meet.
        EXPECT_THAT(blobs[0]->fcenter(), IsNear(screen.x, screen.y, 60));
    }
    const EVector still = sensorOf(EVector(1500, 800));
    for (int i = 0; i < 6; ++i)
        OwnedBlobs settle = frame(&still);
    {
        OwnedBlobs blobs = frame(&still);
        ASSERT_EQ(blobs.count(), 1);
        EXPECT_THAT(blobs[0]->fcenter(), IsNear(1500, 800, 3)) << "a still stylus lands within 3 pixels";
    }
    OwnedBlobs lifted = frame(nullptr);
    ASSERT_EQ(lifted.count(), 1);
    EXPECT_EQ(std::tuple(lifted[0]->state, lifted[0]->sessionId), std::tuple(1, session)) << "lift reported once";
    EXPECT_EQ(OwnedBlobs(frame(nullptr)).count(), 0);
}

TEST_F(Front, BlobsHandedOutStayTheCallersWhenThePenGoesMidStroke)
{
    calibrate();
    pen.setInputMode(StylusCalibration);
    learnBackground();
    const EVector sensor = sensorOf(EVector(960, 540));
    OwnedBlobs{frame(&sensor)};
    OwnedBlobs held = frame(&sensor);
    // The pen still tracks the spot: under the address checker a tracked blob it failed to
    // free, or one it shared with the caller, shows here.
    owner.reset();
    ASSERT_EQ(held.count(), 1);
    EXPECT_THAT(held[0]->fcenter(), IsNear(960, 540, 60));
}

TEST_F(Front, TheSecondEngineRunsOnlyInStylusModeWithABarCalibration)
{
    pen.setInputMode(Stylus);
    EXPECT_EQ((std::tuple<bool, bool>(pen.extended, pen.dualEngine)), std::tuple(true, false));
    pen.setInputMode(Finger);
    calibrate(3, true); // reference points: a bar calibration
    EXPECT_TRUE(pen.lumerailCalibrated);
    EXPECT_FALSE(pen.dualEngine) << "finger mode";
    pen.setInputMode(Stylus);
    EXPECT_TRUE(pen.dualEngine);
    pen.setInputMode(StylusCalibration);
    EXPECT_EQ((std::tuple<bool, bool>(pen.extended, pen.dualEngine)), std::tuple(true, false));
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
    EXPECT_EQ(std::tuple(pen.fingerEngine->blobFilter, pen.stylusEngine->blobFilter), std::tuple(nullptr, nullptr));
    EXPECT_DOUBLE_EQ(GS::instance()->windowTopLeft.x, 10) << "the window falls back to the configured one";
    EXPECT_DOUBLE_EQ(GS::instance()->windowBottomRight.y, 400);
}

TEST_F(Front, AutoWindowFramesTheScreenOnTheSensor)
{
    calibrate();
    pen.setAutoWindow({EVector(0, 0), EVector(ScreenWidth, 0), EVector(ScreenWidth, ScreenHeight),
                       EVector(0, ScreenHeight)});
    // Corners on the sensor: (90,60) (660,75) (640,420) (110,400): box 90..660 x 60..420, 5 pixels of margin.
    const GS* gs = GS::instance();
    EXPECT_THAT(gs->windowTopLeft, IsNear(85, 55, 1));
    EXPECT_THAT(gs->windowBottomRight, IsNear(580, 370, 1));

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
