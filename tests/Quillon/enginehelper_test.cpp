#include "ownedblobs.h"

#include "boxtrackingdebug.h"
#include "enginehelper.h"
#include "globalsettings.h"
#include "scopedsetting.h"
#include "transformgrid.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <tuple>

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
    const std::vector<EVector> grid = {{0, 0}, {100, 0}, {100, 100}, {0, 100}};
    TransformGrid identity({TransformArea(EPolygon(grid), EPolygon(grid), EPolygon(grid))});
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
