#include "fingerscene.h"
#include "ownedblobs.h"
#include "pointmatchers.h"

#include "boxtrackingdebug.h"
#include "boxtrackingengine.h"
#include "enginehelper.h"
#include "globalsettings.h"
#include "gridhelper.h"
#include "quillonimagehelper.h"
#include "scanbox.h"
#include "scopedsetting.h"
#include "transformgrid.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <tuple>

static ScanBox boxAt(double x, double y, double size, int imageWidth, int threshold = 30)
{
    return ScanBox(x, y, size, size, imageWidth, threshold);
}

static void fill(cv::Mat& m, int x, int y, int w, int h, int v) { m(cv::Rect(x, y, w, h)).setTo(v); }

TEST(ScanBoxTest, BrightCentreIsStrictlyAboveBackgroundPlusThreshold)
{
    cv::Mat image = cv::Mat::zeros(40, 40, CV_8UC1);
    ScanBox box = boxAt(10, 10, 10, 40);
    ASSERT_EQ(box.centerIndex, 15 + 15 * 40);
    box.bgIntensity = 20;
    image.at<unsigned char>(15, 15) = 50;
    EXPECT_FALSE(box.hasBrightCenter(&image, false, 30, false, false)) << "equal does not pass";
    EXPECT_EQ(box.intensity, 50);
    image.at<unsigned char>(15, 15) = 51;
    EXPECT_TRUE(box.hasBrightCenter(&image, false, 30, false, false));

    // The 3x3 peak counts when edges are checked with neighbours.
    image.at<unsigned char>(15, 15) = 0;
    image.at<unsigned char>(16, 14) = 90;
    EXPECT_TRUE(box.hasBrightCenter(&image, true, 30, false, true));
    EXPECT_EQ(box.intensity, 90);
    EXPECT_FALSE(box.hasBrightCenter(&image, false, 30, false, false));
}

TEST(ScanBoxTest, EraseBlanksTheWholeBox)
{
    cv::Mat image(40, 40, CV_8UC1, cv::Scalar(7));
    ScanBox box = boxAt(10, 12, 10, 40);
    image.at<unsigned char>(17, 15) = 200;
    EXPECT_TRUE(box.hasBrightCenter(&image, false, 30, true, false));
    EXPECT_EQ(cv::countNonZero(image(cv::Rect(10, 12, 10, 10))), 0);
    EXPECT_EQ(cv::countNonZero(image), 40 * 40 - 100) << "only the box";
    EXPECT_EQ(image.at<unsigned char>(12, 9), 7);
}

TEST(ScanBoxTest, EdgeCheckAllowsTheSpotToEndWithinFourPixelsOfTheBox)
{
    cv::Mat image = cv::Mat::zeros(60, 60, CV_8UC1);
    ScanBox box = boxAt(25, 25, 10, 60); // 25..34, centre 30
    // A plateau reaching 3 pixels past each side: dark at +4, where the last try looks.
    fill(image, 22, 22, 16, 16, 200);
    EXPECT_TRUE(box.hasBrightCenter(&image, true, 30, false, true));
    EXPECT_EQ(std::tuple(box.x, box.centerX), std::tuple(25, 30)) << "the box itself is not grown";
    // Bright still at +4: larger than a finger.
    fill(image, 21, 21, 18, 18, 200);
    EXPECT_FALSE(box.hasBrightCenter(&image, true, 30, false, true));
    // A pixel within thresh of the peak on one strip is a bright edge; the peak stays at the centre.
    cv::Mat dot = cv::Mat::zeros(60, 60, CV_8UC1);
    dot.at<unsigned char>(30, 30) = 200;
    dot.at<unsigned char>(25, 27) = 171;
    EXPECT_TRUE(box.hasBrightEdge(&dot, 30));
    dot.at<unsigned char>(25, 27) = 170;
    EXPECT_FALSE(box.hasBrightEdge(&dot, 30));
    ScanBox grown = box;
    grown.shrink(-1);
    EXPECT_EQ(std::tuple(grown.width, grown.centerX), std::tuple(12, 30));
    dot.at<unsigned char>(24, 40) = 199; // beyond the grown top strip, which runs over x 24..35
    EXPECT_FALSE(grown.hasBrightEdge(&dot, 30));
    dot.at<unsigned char>(24, 35) = 199;
    EXPECT_TRUE(grown.hasBrightEdge(&dot, 30));
}

TEST(ScanBoxTest, GroupingJoinsOverlapsOnlyOnTheSecondRound)
{
    const ScanBox a = boxAt(0, 0, 10, 100, 30), b = boxAt(20, 0, 10, 100, 31), c = boxAt(8, 0, 14, 100, 31);
    EXPECT_FALSE(a.isOverlappingWith(boxAt(10, 0, 10, 100))) << "touching is no overlap";
    EXPECT_TRUE(a.isOverlappingWith(c));

    std::vector<std::vector<ScanBox>> groups;
    for (const ScanBox& box : {a, b, c})
        ScanBox::addOverlapping(&groups, box);
    ASSERT_EQ(groups.size(), 2u) << "c joins a's group, b stays alone";
    EXPECT_EQ(groups[0].size(), 2u);

    std::vector<ScanBox> merged = ScanBox::mergeOverlapping(groups);
    ASSERT_EQ(merged.size(), 2u);
    std::vector<std::vector<ScanBox>> second;
    for (const ScanBox& box : merged)
        ScanBox::addOverlapping(&second, box);
    merged = ScanBox::mergeOverlapping(second);
    ASSERT_EQ(merged.size(), 1u);
    EXPECT_EQ(std::tuple(merged[0].x, merged[0].width), std::tuple(0, 30));

    ScanBox p = boxAt(5, 5, 10, 100, 30), q = boxAt(8, 2, 10, 100, 31);
    std::tie(p.intensity, p.bgIntensity, p.region) = std::tuple(90, 3, 5);
    std::tie(q.intensity, q.bgIntensity, q.region) = std::tuple(40, 9, 6);
    const ScanBox m = ScanBox::merge({p, q});
    EXPECT_EQ(std::tuple(m.threshold, m.x, m.y, m.width, m.height, m.intensity, m.bgIntensity, m.region),
              std::tuple(30, 5, 2, 13, 13, 90, 9, 5));
    EXPECT_EQ(std::tuple(m.children.size(), ScanBox::merge({}).width, ScanBox::mergeOverlapping({{}, {p}}).size()),
              std::tuple(2u, 0, 1u));
}

TEST(ScanBoxTest, BlockSizeFollowsTheBoxWidth)
{
    // Odd blocks of at least 3; the offset is twice the raw block, at most 190.
    const struct {
        int width;
        bool extended;
        int block, offset;
    } cases[] = {{20, false, 7, -12}, {20, true, 35, -70}, {5, false, 3, 0}, {60, true, 207, -190}};
    for (const auto& c : cases) {
        int block = 0, offset = 0;
        ScanBox::thresholdBlock(c.width, c.extended, &block, &offset);
        EXPECT_EQ(std::tuple(block, offset), std::tuple(c.block, c.offset)) << c.width << " " << c.extended;
    }
}

// Recorded cases of the contour step: fixed images, contours, areas and centroids worked out by hand.
class Contours : public ::testing::Test {
protected:
    cv::Mat image = cv::Mat::zeros(40, 40, CV_8UC1);
    ScanBox merged = boxAt(5, 5, 20, 40);
    std::vector<ScanBox> members{boxAt(5, 5, 20, 40)};
    bool found = false;

    std::vector<ScanBox> run(cv::Mat* background = nullptr)
    {
        return merged.getMinimumScanBox(&found, &image, members, background, background != nullptr, false);
    }
};

TEST_F(Contours, SquareSpotGivesItsRectangleAndCentroid)
{
    fill(image, 12, 10, 5, 5, 200);
    merged.intensity = 200;
    merged.bgIntensity = 4;
    std::vector<ScanBox> out = run();
    EXPECT_TRUE(found);
    ASSERT_EQ(out.size(), 1u);
    const ScanBox& b = out[0];
    EXPECT_EQ(std::tuple(b.x, b.y, b.width, b.height, b.centerX, b.intensity, b.bgIntensity, b.region),
              std::tuple(12, 10, 5, 5, 15, 200, 4, 0));
    EXPECT_DOUBLE_EQ(b.centroidX, 14);
    EXPECT_DOUBLE_EQ(b.centroidY, 12);
}

TEST_F(Contours, OutermostRowAndColumnOfTheRectangleCountAsEmpty)
{
    fill(image, 5, 10, 5, 5, 200); // touches the rectangle's left side
    std::vector<ScanBox> out = run();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(std::tuple(out[0].x, out[0].width, out[0].height), std::tuple(6, 4, 5));
    EXPECT_DOUBLE_EQ(out[0].centroidX, 7.5) << "polygon of the corners 6..9";
    EXPECT_DOUBLE_EQ(out[0].centroidY, 12);
}

TEST_F(Contours, ShapeRulesDropLinesButKeepSmallShapes)
{
    fill(image, 14, 8, 1, 15, 200); // 1 by 15: too tall for its width
    std::vector<ScanBox> out = run();
    EXPECT_TRUE(found && out.empty()) << "a contour was there";

    image.setTo(0);
    for (int i = 0; i < 4; ++i) // a diagonal within 4 by 4: small, passes whatever its shape
        image.at<unsigned char>(10 + i, 10 + i) = 200;
    out = run();
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(std::tuple(out[0].width, out[0].height), std::tuple(4, 4));

    image.setTo(0);
    fill(image, 8, 12, 14, 4, 200); // 14 by 4, wider than twice its height
    out = run();
    EXPECT_TRUE(out.empty());
}

TEST_F(Contours, TwoSpotsAndALearnedBackground)
{
    fill(image, 8, 8, 4, 4, 200);
    fill(image, 17, 17, 4, 4, 200);
    std::vector<ScanBox> out = run();
    ASSERT_EQ(out.size(), 2u);
    std::sort(out.begin(), out.end(), [](const ScanBox& a, const ScanBox& b) { return a.x < b.x; });
    EXPECT_EQ(std::tuple(out[0].x, out[1].x), std::tuple(8, 17));
    EXPECT_DOUBLE_EQ(out[1].centroidY, 18.5);

    cv::Mat background = cv::Mat::zeros(40, 40, CV_8UC1);
    fill(background, 17, 17, 4, 4, 220); // the second spot is background
    out = run(&background);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].x, 8);

    image.setTo(0);
    run();
    EXPECT_FALSE(found);
    merged = boxAt(-1, 5, 20, 40);
    EXPECT_TRUE(run().empty());
}

TEST(ScanBoxLayout, BoxesFollowTheMapAndStayInsideTheFrame)
{
    // Grid space 0..100 mapped to sensor -100..700 by 0..400: the left eighth is off the frame.
    const std::vector<EVector> grid = {{0, 0}, {100, 0}, {100, 100}, {0, 100}};
    const std::vector<EVector> sensor = {{-100, 0}, {700, 0}, {700, 400}, {-100, 400}};
    TransformGrid map({TransformArea(EPolygon(grid), EPolygon(sensor), EPolygon(grid))});
    map.ExtendHitAreas(10.0f, 2);
    std::vector<ScanBox> boxes = GridHelper::getScanBoxes(1.0, 10, 100, 100, &map, 752, 480);
    // x of 0 and 10 map to -100 and -20: skipped; 8 columns by 10 rows stay.
    ASSERT_EQ(boxes.size(), 80u);
    const ScanBox& first = boxes[0]; // grid (20, 0) at sensor (60, 0): on the frame's edge
    EXPECT_EQ(first.centerX, 60);
    EXPECT_EQ(first.width, 0) << "shrunk to its distance from the top edge";
    const ScanBox& inner = boxes[8 * 5 + 3]; // grid (50, 50) at (300, 200)
    EXPECT_NEAR(inner.centerX, 300, 0.5);
    EXPECT_NEAR(inner.centerY, 200, 0.5);
    EXPECT_DOUBLE_EQ(inner.width, 20.0) << "a radius under the minimum gives 20 pixels";
    EXPECT_EQ(inner.region, 1 + 1 * GS::instance()->boxStride);

    std::vector<ScanBox> wide = GridHelper::getScanBoxes(5.0, 10, 100, 100, &map, 752, 480);
    EXPECT_NEAR(wide[8 * 5 + 3].width, std::sqrt(80.0 * 80.0 + 40.0 * 40.0), 1e-6);
}

// The engine on whole scenes: fingers, reflections and ambient light through the factory lens.
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

// The helpers of the engine: regional background checks, light shadows, blob making, debug output.
class Regionals : public ::testing::Test {
protected:
    GS* gs = GS::instance();
    QList<double> intensity, background, threshold, deltas, hits;
    QList<int> toUpdate;
    ScopedSetting<int> deltaLimit{gs->regionalDeltaLimit, 8};
    ScopedSetting<int> belowLimit{gs->regionalBelowLimit, -8};

    void SetUp() override
    {
        for (QList<double>* l : {&intensity, &background, &threshold, &hits})
            EngineHelper::resetRegionsList(l, 16);
        for (int r = 0; r < 16; ++r)
            frame(r, 15, 16);
    }
    // Sums as a frame of 160 boxes leaves them: 10 a region.
    void frame(int region, double meanIntensity, double meanBackground)
    {
        intensity[region] = meanIntensity * 10;
        background[region] = meanBackground * 10;
    }
    void evaluate() { EngineHelper::updateRegionals(&intensity, &background, &threshold, &toUpdate, &deltas, &hits, 16, 160); }
};

TEST_F(Regionals, MeansThresholdsAndTheBrighterDoor)
{
    frame(3, 24, 16);  // exactly at the limit: not breached
    frame(7, 24.5, 16);
    evaluate();
    ASSERT_EQ(deltas.size(), 16);
    EXPECT_DOUBLE_EQ(deltas[0], -1);
    EXPECT_DOUBLE_EQ(intensity[0], 15);
    EXPECT_DOUBLE_EQ(threshold[0], 16 * gs->regionalSigmaFactor + gs->fingerThreshold);
    EXPECT_EQ(toUpdate, QList<int>({7}));
}

TEST_F(Regionals, ManyHitsListARegionEvenTwice)
{
    frame(7, 30, 16);
    hits[7] = gs->regionalRefreshLimit + 1;
    hits[2] = gs->regionalRefreshLimit;
    evaluate();
    EXPECT_EQ(toUpdate, QList<int>({7, 7}));

    // Without regions or boxes only the hits are looked at.
    toUpdate.clear();
    EngineHelper::updateRegionals(&intensity, &background, &threshold, &toUpdate, &deltas, &hits, 0, 0);
    EXPECT_TRUE(deltas.isEmpty());
    EXPECT_EQ(toUpdate, QList<int>({7}));
}

TEST_F(Regionals, TheDarkerDoorNeedsEnoughRegionsBelowTheLevel)
{
    QList<int> all;
    for (int r = 0; r < 16; ++r)
        all.append(r);
    // 11 below the level are not enough; 12 refresh all, replacing the breached list.
    for (const auto& [below, expected] : {std::pair{11, QList<int>{15}}, std::pair{12, all}}) {
        for (int r = 0; r < 16; ++r)
            frame(r, r < below ? 10 : 15, 16); // at -6
        frame(0, 7, 16);                        // one below -8
        frame(15, 30, 16);                      // breached
        toUpdate.clear();
        evaluate();
        EXPECT_EQ(toUpdate, expected) << below << " regions below the level";
    }
}

TEST(LightShadow, OnlyPointsCloseAboveAnotherAreErased)
{
    const EVector left(100, 50), right(600, 50);
    using Points = std::vector<std::pair<double, double>>;
    auto kept = [&](const Points& in) {
        std::vector<EVector> pts;
        for (const auto& [x, y] : in)
            pts.emplace_back(x, y);
        EngineHelper::erasePointsInLightShadow(&pts, left, right);
        Points out;
        for (const EVector& p : pts)
            out.emplace_back(p.x, p.y);
        return out;
    };
    EXPECT_EQ(kept({{300, 200}, {300, 176}}), (Points{{300, 200}})) << "the upper one goes";
    EXPECT_EQ(kept({{300, 176}, {300, 200}}).size(), 1u);
    EXPECT_EQ(kept({{300, 200}, {300, 174}}).size(), 2u) << "26 pixels apart";
    EXPECT_EQ(kept({{300, 200}, {320, 200}, {280, 200}}).size(), 3u) << "side by side";
    EXPECT_EQ(kept({{300, 200}, {300, 180}, {500, 200}, {500, 185}, {400, 300}}),
              (Points{{300, 200}, {500, 200}, {400, 300}}));
}

TEST(LightShadow, WhenEnabledASmallerSpotInTheTriangleGoesToo)
{
    ScopedSetting shadow(GS::instance()->shadowEnabled);
    EVector big(300, 200), small(290, 190);
    std::tie(big.measureC, big.measureD, small.measureC, small.measureD) = std::tuple(40, 150, 10, 160);
    std::vector<EVector> pts = {big, small};
    EngineHelper::erasePointsInLightShadow(&pts, EVector(100, 50), EVector(600, 50));
    EXPECT_EQ(pts.size(), 2u) << "disabled, and outside the vertical cone";
    GS::instance()->shadowEnabled = true;
    EngineHelper::erasePointsInLightShadow(&pts, EVector(100, 50), EVector(600, 50));
    ASSERT_EQ(pts.size(), 1u);
    EXPECT_EQ(pts[0].measureC, 40);
}

TEST(MakingBlobs, PolygonShiftsAndPayload)
{
    EPolygon area(std::vector<EVector>{{0, 0}, {100, 0}, {100, 100}, {0, 100}});
    EVector in(50, 50), out(150, 50);
    std::tie(in.boxWidth, in.boxHeight, in.cellIndex, in.measureD, in.measureB) = std::tuple(12, 14, 47, 180, 20);
    const std::vector<std::vector<double>> xs = {{2, 2}, {2, 2}}, ys = {{-1, -1}, {-1, -1}};
    TransformGrid identity({TransformArea(area, area, area)});
    OwnedBlobs list, extended;
    EngineHelper::addBlobs({in, out}, &area, ys, xs, &identity, 100, true, &list.blobs, false);
    ASSERT_EQ(list.count(), 1);
    Blob* b = list[0];
    EXPECT_EQ(std::tuple(b->x, b->width, b->height, b->cellIndex, b->measureD, b->measureB, b->hasShift),
              std::tuple(50, 12, 14, 47, 180, 20, 1));
    EXPECT_EQ(std::tuple(b->xShift, b->yShift, b->radial), std::tuple(-2.0, 1.0, 0.0)) << "x shift inverted";

    EngineHelper::addBlobs({in, out}, nullptr, ys, xs, &identity, 100, false, &extended.blobs, true);
    ASSERT_EQ(extended.count(), 2) << "no polygon, no filter";
    EXPECT_EQ(extended[0]->hasShift, 0);
    EXPECT_DOUBLE_EQ(extended[1]->radial, 1.0);
}

TEST(DebugReport, SavesBlocksOfSmoothedIntensities)
{
    QTemporaryDir dir;
    BoxTrackingDebug debug;
    debug.reportPath = dir.filePath("report.txt");
    QFile old(debug.reportPath);
    ASSERT_TRUE(old.open(QIODevice::WriteOnly));
    old.write("old\n");
    old.close();
    debug.testPoints = {EVector(10, 10), EVector(100, 100)};
    debug.resetIntensities();
    cv::Mat frame = cv::Mat::zeros(480, 752, CV_8UC1);
    BlobList blobs;
    Blob a(12, 11, 5, 5, 0);
    a.measureD = 100;
    blobs.add(&a);
    debug.showIntensities(&frame, blobs, nullptr, nullptr);
    a.measureD = 200;
    debug.showIntensities(&frame, blobs, nullptr, nullptr);
    EXPECT_DOUBLE_EQ(debug.intensities[0], 110);
    EXPECT_FALSE(debug.canvas.empty());
    debug.frozen = true;
    debug.showIntensities(&frame, blobs, nullptr, nullptr);
    EXPECT_DOUBLE_EQ(debug.intensities[0], 110);

    debug.saveIntensities();
    EXPECT_EQ(std::tuple(debug.intensities, debug.reportNumber), std::tuple(QList<double>({-1, -1}), 1));
    debug.saveIntensities();
    QFile f(debug.reportPath);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    EXPECT_EQ(f.readAll(), QByteArray("0\t0\t110\n0\t1\t-1\n1\t0\t-1\n1\t1\t-1\n"));
}

TEST(DebugReport, RegionOverlayDrawsOnItsCanvasOnly)
{
    BoxTrackingDebug debug;
    cv::Mat frame(480, 752, CV_8UC1, cv::Scalar(9));
    const cv::Mat before = frame.clone();
    std::vector<ScanBox> boxes = {ScanBox(100, 100, 20, 20, 752, 30)};
    boxes[0].region = 0;
    debug.showDebug(&frame, {1.5}, {2}, {12}, BlobList(), {10}, boxes, true);
    EXPECT_EQ(cv::countNonZero(frame != before), 0);
    ASSERT_EQ(debug.canvas.type(), CV_8UC3);
    EXPECT_EQ(debug.canvas.at<cv::Vec3b>(100, 100), cv::Vec3b(0, 255, 0)) << "the region's rectangle";
}
