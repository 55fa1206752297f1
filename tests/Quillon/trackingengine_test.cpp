#include "ownedblobs.h"
#include "pointmatchers.h"
#include "shiftcorrection.h"
#include "syntheticframe.h"

#include "globalsettings.h"
#include "trackingengine.h"

#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include <array>

constexpr int W = SyntheticFrames::Width;
constexpr int H = SyntheticFrames::Height;

static std::vector<unsigned char> blank() { return std::vector<unsigned char>(std::size_t(W) * H, 0); }

static void fill(std::vector<unsigned char>& f, int x0, int y0, int w, int h, int value)
{
    cv::Mat(H, W, CV_8UC1, f.data())(cv::Rect(x0, y0, w, h)).setTo(value);
}

class Engine : public ::testing::Test {
protected:
    TrackingEngine engine{W, H, 230, 1, true};

    void learn(std::vector<unsigned char> f)
    {
        int frames = 0;
        while (engine.learning) {
            engine.processImage(nullptr, false, false); // neither learns nor counts
            EXPECT_EQ(engine.processImage(f.data(), false, false).size(), 0);
            ++frames;
        }
        EXPECT_EQ(frames, GS::instance()->stylusBgFrames);
    }
    OwnedBlobs detect(std::vector<unsigned char>& f) { return engine.processImage(f.data(), false, false); }
    // Blobs found where no filter sends any outside.
    int count(std::vector<unsigned char>& f)
    {
        OwnedBlobs r = detect(f);
        EXPECT_EQ(r.outsideBlobs.size(), 0);
        return r.count();
    }
};

TEST_F(Engine, RunRulesGapsCapAndTheUnstoredLastRun)
{
    TrackingEngine::bloblineContext* c = engine.CreateBloblineContext(2000);
    for (int x : {10, 11, 14, 15}) // gap of 2 then ends at 15
        TrackingEngine::AddBlobPixel(c, x, 5, 255);
    for (int x : {30, 33}) // three columns on: one run
        TrackingEngine::AddBlobPixel(c, x, 5, 255);
    for (int x : {50, 54}) // four columns on: two runs
        TrackingEngine::AddBlobPixel(c, x, 5, 255);
    TrackingEngine::AddBlobPixel(c, 52, 6, 255); // a new row always starts a run
    std::vector<std::array<int, 3>> runs; // start, end, row
    for (const auto& l : c->lines)
        runs.push_back({l.xStart, l.xEnd, l.y});
    EXPECT_EQ(runs, (std::vector<std::array<int, 3>>{{10, 15, 5}, {30, 33, 5}, {50, 50, 5}, {54, 54, 5}}))
        << "the run that is still open is not stored";

    c = engine.CreateBloblineContext(2000);
    EXPECT_TRUE(c->lines.empty());
    for (int i = 0; i < 5000; ++i)
        TrackingEngine::AddBlobPixel(c, (i % 100) * 7, i / 100, 255);
    EXPECT_EQ(c->lines.size(), 2001u);
}

TEST_F(Engine, SingleRowsGiveNoBlobAndTheFramesLastRowIsLost)
{
    learn(blank());
    std::vector<unsigned char> f = blank();
    fill(f, 100, 100, 8, 1, 255); // one row
    EXPECT_EQ(count(f), 0);
    fill(f, 100, 100, 8, 2, 255); // two rows, the bottom of all bright pixels
    EXPECT_EQ(count(f), 0) << "its last run is never stored";
    fill(f, 300, 300, 8, 8, 255); // something below keeps both rows of the first
    OwnedBlobs r = detect(f);
    ASSERT_EQ(r.blobs.size(), 2);
    EXPECT_EQ(std::tuple(r[0]->width, r[0]->height), std::tuple(8.0, 2.0));
    EXPECT_THAT(*r[0], IsNear(103.5, 100.5, 1e-9));
    EXPECT_DOUBLE_EQ(r[1]->height, 7) << "lower spot loses its last row";
}

TEST_F(Engine, ThresholdAndMaskAreStrict)
{
    std::vector<unsigned char> bg = blank();
    fill(bg, 200, 50, 10, 10, 230); // learned exactly at threshold: masks
    fill(bg, 400, 50, 10, 10, 229); // just below: does not
    learn(bg);
    std::vector<unsigned char> f = blank();
    fill(f, 200, 50, 10, 10, 255);
    fill(f, 400, 50, 10, 10, 255);
    fill(f, 100, 200, 10, 10, 230); // at threshold: not bright
    fill(f, 300, 400, 5, 5, 255);   // keeps the others off the last run
    OwnedBlobs r = detect(f);
    ASSERT_EQ(r.blobs.size(), 2);
    EXPECT_NEAR(r[0]->x, 404.5, 0.01);
    EXPECT_NEAR(r[1]->x, 302.0, 0.01);
}

TEST_F(Engine, ChainsFollowOnePathSoAForkGivesTwoBlobs)
{
    learn(blank());
    std::vector<unsigned char> f = blank();
    fill(f, 100, 100, 31, 2, 255); // bar
    fill(f, 100, 102, 3, 6, 255);  // left leg
    fill(f, 128, 102, 3, 6, 255);  // right leg, part of the same connected shape
    fill(f, 300, 400, 5, 5, 255);
    EXPECT_EQ(count(f), 3);
}

TEST_F(Engine, GlowAboveTheFirstAndBelowTheLastRunCounts)
{
    auto centreY = [&](int glowRow) {
        std::vector<unsigned char> f = blank();
        fill(f, 10, 20, 3, 2, 255);
        if (glowRow >= 0)
            fill(f, 11, glowRow, 1, 1, 100);
        TrackingEngine::bloblineContext* c = engine.CreateBloblineContext(2000);
        c->lines.push_back({-1, 10, 12, 20});
        c->lines.push_back({0, 10, 12, 21});
        OwnedBlobs all = engine.GenerateBlobList(c, f.data());
        EXPECT_EQ(all.count(), 1);
        EXPECT_TRUE(c->lines.empty()) << "chained runs are used up";
        return all.count() ? all[0]->y : -1;
    };
    EXPECT_DOUBLE_EQ(centreY(-1), 20.5);
    EXPECT_LT(centreY(16), 20.5); // 4 rows above the first run
    EXPECT_GT(centreY(25), 20.5); // 4 rows below the last run
    EXPECT_DOUBLE_EQ(centreY(14), 20.5) << "6 rows away is outside the glow";
}

TEST_F(Engine, EdgeSpotsAreDroppedAndTheRestRefined)
{
    learn(blank());
    std::vector<unsigned char> f = blank();
    fill(f, 3, 100, 3, 3, 255);   // centre 4: box grown by 3 starts left of column 1
    fill(f, 5, 200, 3, 3, 255);   // centre 6: box starts at column 1, kept
    fill(f, 745, 300, 3, 3, 255); // grown box reaches the right edge
    fill(f, 300, 400, 5, 5, 255);
    OwnedBlobs r = detect(f);
    ASSERT_EQ(r.blobs.size(), 2);
    EXPECT_THAT(*r[0], IsNear(6.0, 201.0, 1e-9));
}

TEST_F(Engine, BlobsOutsideTheFilterGoToTheOutsideListRefined)
{
    ShiftCorrection correction(0);
    EPolygon screen({EVector(50, 50), EVector(400, 50), EVector(400, 400), EVector(50, 400)});
    engine.correction = &correction;
    engine.blobFilter = &screen;
    learn(blank());
    SyntheticFrames synth;
    std::vector<unsigned char> f = synth.make({{200.3, 200.6, 7}, {600.7, 300.2, 7}, {650, 450, 5}});
    OwnedBlobs r = detect(f);
    ASSERT_EQ(r.blobs.size(), 1);
    ASSERT_EQ(r.outsideBlobs.size(), 2);
    EXPECT_THAT(*r.outsideBlobs[0], IsNear(600.7, 300.2, 0.25));
    engine.correction = nullptr; // the filter needs both
    OwnedBlobs r2 = detect(f);
    EXPECT_EQ(std::tuple(r2.blobs.size(), r2.outsideBlobs.size()), std::tuple(3, 0));
}

TEST_F(Engine, BlobCountIsCapped)
{
    std::vector<unsigned char> f = blank();
    TrackingEngine::bloblineContext* c = engine.CreateBloblineContext(2000);
    for (int y = 10; y < 470; y += 4) {
        for (int pass = 0; pass < 2; ++pass)
            for (int x = 10; x < 740; x += 6) {
                fill(f, x, y + pass, 1, 1, 255);
                c->lines.push_back({0, x, x, y + pass});
            }
    }
    ASSERT_GT(c->lines.size(), 2u * 1100);
    EXPECT_EQ(OwnedBlobs(engine.GenerateBlobList(c, f.data())).count(), BlobList::MaxBlobs);
}

// Ground truth: spots of 3 to 15 pixels at sub-pixel centres over a noisy background
// with bright areas that were there while learning.
TEST_F(Engine, FindsEverySpotOnceWithinAQuarterPixel)
{
    SyntheticFrames synth(11);
    synth.areas = {{60, 60, 40, 30, 250}, {500, 380, 80, 20, 240}, {680, 40, 12, 200, 255}};
    for (int i = 0; i < GS::instance()->stylusBgFrames; ++i) {
        std::vector<unsigned char> bg = synth.make({});
        engine.processImage(bg.data(), false, false);
    }
    ASSERT_FALSE(engine.learning);

    std::mt19937 rng(5);
    std::uniform_real_distribution<double> frac(0.0, 1.0);
    for (int frame = 0; frame < 40; ++frame) {
        std::vector<Spot> spots;
        for (int k = 0; k < 12; ++k)
            spots.push_back(
                {130 + (k % 4) * 130 + frac(rng) * 20, 120 + (k / 4) * 110 + frac(rng) * 20, 3.0 + (k % 7) * 2});
        std::vector<unsigned char> f = synth.make(spots);
        OwnedBlobs r = detect(f);
        EXPECT_EQ(r.outsideBlobs.size(), 0);
        ASSERT_EQ(r.blobs.size(), int(spots.size())) << "frame " << frame;
        for (const Spot& s : spots) {
            std::vector<double> near;
            for (Blob* b : r.blobs.blobs)
                if (std::hypot(b->x - s.x, b->y - s.y) < 5)
                    near.push_back(std::hypot(b->x - s.x, b->y - s.y));
            ASSERT_EQ(near.size(), 1u) << "spot " << s.x << "," << s.y;
            EXPECT_LT(near[0], 0.25) << "spot " << s.x << "," << s.y << " d " << s.diameter;
        }
    }
}
