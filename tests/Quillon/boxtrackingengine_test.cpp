#include "fingerscene.h"
#include "ownedblobs.h"
#include "pointmatchers.h"

#include "boxtrackingengine.h"
#include "globalsettings.h"
#include "scopedsetting.h"

#include <gtest/gtest.h>

constexpr int W = FingerScene::Width;
constexpr int H = FingerScene::Height;

// The blob nearest to p within a distance, or null.
static Blob* near(const AllBlobs& f, const EVector& p, double within)
{
    Blob* best = nullptr;
    for (Blob* b : f.blobs.blobs)
        if ((b->center() - p).length() < within && (!best || (b->center() - p).length() < (best->center() - p).length()))
            best = b;
    return best;
}

// Settings that the tests change, put back after each.
class FingerEngine : public ::testing::Test {
protected:
    GS* gs = GS::instance();
    FingerScene scene;
    std::unique_ptr<Calibration> calibration;
    ScopedSetting<int> deltaLimit{gs->regionalDeltaLimit, 8}; // the working value; the default is a place holder
    ScopedSetting<double> filterLeft{gs->blobFilterLeft};
    BoxTrackingEngine engine{W, H, gs->boxFactor, gs->boxParameter};

    // Calibrates as the system does after a calibration: lays the boxes, orders a full
    // refresh, and when told to settle lets learning and the refresh run over frames of the
    // empty scene.
    void calibrate(bool settle = true)
    {
        calibration = scene.calibration();
        engine.setCalibration(calibration.get(), gs->boxParameter);
        engine.triggerBgRefresh(true, false);
        for (int i = 0; settle && i < 200 && (engine.learnCount < engine.learnFrames || engine.updating ||
                                              engine.updateCount < engine.updateFrames);
             ++i) {
            EXPECT_EQ(detect({}).count(), 0) << "nothing is reported while the background is learned";
        }
        ASSERT_FALSE(settle && engine.updating);
    }
    OwnedBlobs detect(const std::vector<Finger>& fingers, bool extended = false)
    {
        std::vector<unsigned char> frame = scene.frame(fingers);
        return engine.processImage(frame.data(), extended, false);
    }
};

TEST_F(FingerEngine, EachFingerIsReportedOnceWithinOnePixel)
{
    calibrate();
    const std::vector<Finger> fingers = {{300, 200}, {960, 540}, {1600, 300}, {200, 950}, {1750, 980}, {1000, 120}};
    for (int frame = 0; frame < 3; ++frame) {
        OwnedBlobs f = detect(fingers);
        EXPECT_EQ(f.count(), int(fingers.size()));
        for (const Finger& g : fingers) {
            const EVector truth = scene.sensorOf(g);
            EXPECT_EQ(std::count_if(f.blobs.blobs.begin(), f.blobs.blobs.end(),
                                    [&](Blob* b) { return (b->center() - truth).length() < 10; }),
                      1)
                << "finger at " << g.screenX << "," << g.screenY;
            EXPECT_THAT(near(f, truth, 10), testing::Pointee(IsNear(truth.x, truth.y, 1.0)));
        }
    }
}

TEST_F(FingerEngine, NothingIsReportedWhileLearningEvenWithFingers)
{
    calibrate(false);
    for (int i = 0; i < gs->stylusBgFrames; ++i)
        EXPECT_EQ(detect({{960, 540, 10, 240}}).count(), 0);
    EXPECT_EQ(engine.learnCount, engine.learnFrames);
}

TEST_F(FingerEngine, WhatIsNoFingerIsNotReported)
{
    // Reflections that are there from the start are learned as background.
    scene.reflections = {{200, 150, 12, 180}, {520, 300, 8, 220}};
    gs->blobFilterLeft = 0.85; // the accepted region leaves out the left 15 % of the screen
    calibrate();
    const Finger finger{1200, 600}, large{700, 400, 40, 200}, outside{100, 500};
    OwnedBlobs f = detect({finger, large, outside});
    EXPECT_EQ(f.count(), 1);
    EXPECT_NE(near(f, scene.sensorOf(finger), 1.0), nullptr);
    EXPECT_EQ(near(f, scene.sensorOf(large), 20), nullptr) << "larger than a finger";
    EXPECT_EQ(near(f, scene.sensorOf(outside), 20), nullptr) << "outside the screen polygon";
    for (const EVector& reflection : {EVector(200, 150), EVector(520, 300)})
        EXPECT_EQ(near(f, reflection, 20), nullptr) << "learned reflection";

    // The same spot inside the accepted region is a touch.
    EXPECT_EQ(detect({{400, 500}}).count(), 1);

    // A flood of light fires far more than 255 boxes: the frame is dropped whole.
    scene.ambientArea = cv::Rect(0, 0, W, H);
    scene.ambient = 150;
    EXPECT_EQ(detect({finger}).count(), 0);
}

TEST_F(FingerEngine, ASpotInTheLightShadowOfAnotherIsErased)
{
    calibrate();
    // Find the screen offset that puts a second finger straight above the first in the image.
    const Finger lower{960, 700};
    const EVector at = scene.sensorOf(lower);
    auto above = [&](double pixels) {
        Finger f = lower;
        for (int i = 0; i < 60; ++i) {
            const EVector s = scene.sensorOf(f);
            f.screenY += (at.y - pixels - s.y) * 2.0;
            f.screenX += (at.x - s.x) * 2.0;
        }
        return f;
    };
    OwnedBlobs close = detect({lower, above(20)});
    ASSERT_EQ(close.count(), 1) << "the upper spot of two, 20 pixels apart, is in the lower one's shadow";
    EXPECT_NEAR(close[0]->y, at.y, 1.0);

    EXPECT_EQ(detect({lower, above(32)}).count(), 2) << "beyond the shadow distance both stay";

    // Side by side at the same distance both are kept.
    Finger beside = lower;
    beside.screenX += 60;
    EXPECT_EQ(detect({lower, beside}).count(), 2);
}

TEST_F(FingerEngine, SlowAmbientChangeRefreshesItsRegionWithoutTouches)
{
    calibrate();
    // One region of the 4 by 4: grid cell (1, 2) of the screen.
    const EVector a = scene.sensorOf(1920 * 0.25, 1080 * 0.5), b = scene.sensorOf(1920 * 0.5, 1080 * 0.75);
    scene.ambientArea = cv::Rect(cv::Point(int(a.x) + 12, int(a.y) + 12), cv::Point(int(b.x) - 12, int(b.y) - 12));
    const int region = 1 + 2 * gs->boxStride;

    auto backgroundOf = [&](int r) {
        double sum = 0;
        int n = 0;
        for (const ScanBox& box : engine.boxes)
            if (box.region == r)
                sum += box.bgIntensity, ++n;
        return sum / n;
    };
    const double before = backgroundOf(region), otherBefore = backgroundOf(0);
    bool refreshed = false;
    for (int level = 1; level <= 60; ++level) {
        scene.ambient = level;
        EXPECT_EQ(detect({}).count(), 0) << "at ambient " << level;
        for (int r : engine.regionsToUpdate) {
            EXPECT_NE(r, 0);
            refreshed = refreshed || r == region;
        }
    }
    EXPECT_TRUE(refreshed);
    EXPECT_GT(backgroundOf(region), before + 30) << "the region has learned the brighter light";
    EXPECT_EQ(backgroundOf(0), otherBefore) << "a region far from the change keeps its background";

    // Once the light holds still and the refresh is over, a finger there is found again.
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(detect({}).count(), 0);
    EXPECT_FALSE(engine.updating);
    EXPECT_EQ(detect({{1920 * 0.375, 1080 * 0.625}}).count(), 1);
}

TEST_F(FingerEngine, SetUpLaysBoxesOverTheScreenAndWritesTheFingerZone)
{
    calibrate();
    EXPECT_FALSE(engine.cameraInverted) << "the top edge is the longer one";
    EXPECT_FALSE(engine.shiftInverted);
    const std::pair<EVector, EVector> corners[] = {{gs->cornerTopLeft, scene.sensorOf(960, 0)},
                                                   {gs->cornerTopRight, scene.sensorOf(1920, 1080)},
                                                   {gs->cornerBottomRight, scene.sensorOf(0, 0)},
                                                   {gs->cornerBottomLeft, scene.sensorOf(1920, 0)}};
    for (const auto& [corner, truth] : corners)
        EXPECT_NEAR((corner - truth).length(), 0, 2.0) << truth.x << "," << truth.y;
    EXPECT_DOUBLE_EQ(gs->distanceScale, (gs->cornerTopLeft - gs->cornerTopRight).length());

    const int n = gs->boxParameter;
    ASSERT_EQ(int(engine.boxes.size()), n * n) << "the whole screen lies in the frame";
    // Raster order, each box centred on the image of its grid point, in its region.
    for (int gy : {0, 37, 120, 199})
        for (int gx : {0, 51, 150, 199}) {
            const ScanBox& box = engine.boxes[std::size_t(gy * n + gx)];
            const EVector truth = scene.sensorOf(1920.0 * gx / n, 1080.0 * gy / n);
            EXPECT_THAT(EVector(box.centerX, box.centerY), IsNear(truth.x, truth.y, 2.0));
            EXPECT_EQ(box.centerIndex, int(box.centerX) + int(box.centerY) * W);
            const int rx = gx > 0 ? (gx - 1) * 4 / n : 0, ry = gy > 0 ? (gy - 1) * 4 / n : 0;
            EXPECT_EQ(box.region, rx + ry * 4) << gx << "," << gy;
            EXPECT_GE(box.width, 20.0);
            EXPECT_EQ(box.width, box.height);
        }
    // Thresholds by position: highest along the near edge, cut down in the finger zone's bottom corners.
    const ScanBox& near = engine.boxes[std::size_t(2 * n + n / 2)];
    const ScanBox& middle = engine.boxes[std::size_t(n / 2 * n + n / 2)];
    const ScanBox& farCorner = engine.boxes[std::size_t(3 * n + 3)];
    EXPECT_GT(near.threshold, middle.threshold);
    EXPECT_LT(farCorner.threshold, gs->fingerThreshold);
    EXPECT_EQ(middle.bgIntensity == 0, false) << "the refresh has filled the backgrounds";

    // A camera below the screen sees the bottom edge longer.
    FingerScene flipped;
    flipped.corners = {68, 30, 684, 30, 712, 452, 40, 452};
    auto cal = flipped.calibration();
    engine.setCalibration(cal.get(), n);
    EXPECT_TRUE(engine.cameraInverted);
    EXPECT_NEAR((gs->cornerTopLeft - flipped.sensorOf(960, 1080)).length(), 0, 2.0);
    EXPECT_NEAR((gs->cornerTopRight - flipped.sensorOf(1920, 0)).length(), 0, 2.0);
    EXPECT_EQ(engine.learnCount, 0) << "learning starts anew";
    for (const ScanBox& box : engine.boxes)
        ASSERT_EQ(box.bgIntensity, 0);
}

TEST_F(FingerEngine, ShiftTablesApplyExceptInExtendedMode)
{
    std::vector<EVector> shifts(9, EVector(4, -3));
    engine.setFingerTouchShifts(shifts);
    calibrate();
    OwnedBlobs normal = detect({{960, 540}});
    ASSERT_EQ(normal.count(), 1);
    EXPECT_EQ(std::tuple(normal[0]->hasShift, normal[0]->xShift, normal[0]->yShift), std::tuple(1, 4.0, -3.0));

    OwnedBlobs extended = detect({{960, 540}}, true);
    ASSERT_EQ(extended.count(), 1);
    EXPECT_EQ(extended[0]->hasShift, 0);
    EXPECT_NEAR(extended[0]->x, normal[0]->x, 0.5);
}
