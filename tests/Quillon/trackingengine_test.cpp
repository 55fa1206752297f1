#include "ownedblobs.h"
#include "pointmatchers.h"
#include "shiftcorrection.h"
#include "syntheticframe.h"

#include "bloblist.h"
#include "globalsettings.h"
#include "kuhnmunkresassignment.h"
#include "trackingengine.h"

#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <tuple>
#include <vector>

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

// Matching the blobs of a frame to those tracked.
using P = cv::Point2d;

class Matching : public ::testing::Test {
protected:
    OwnedBlobs all; // frees what is tracked
    BlobList& tracked = all.blobs;

    void step(const std::vector<P>& detections, int keepFrames = 0)
    {
        BlobList fresh;
        for (const P& p : detections)
            fresh.add(new Blob(p.x, p.y, 4, 4, 0));
        tracked.mergeWith(fresh, keepFrames, nullptr);
    }
    Blob* at(int i) { return tracked[i]; }
    std::vector<int> states() const
    {
        std::vector<int> out;
        for (const Blob* b : tracked.blobs)
            out.push_back(b->state);
        return out;
    }
    using V = std::vector<int>;
};

TEST_F(Matching, SingleBlobsUseTheGreedyRuleStrictlyBelowFifteen)
{
    step({{100, 100}});
    ASSERT_EQ(states(), V{0});
    const int id = at(0)->sessionId;
    EXPECT_GT(id, 0);

    step({{114, 100}});
    ASSERT_EQ(states(), V{2});
    EXPECT_EQ(std::tuple(at(0)->sessionId, at(0)->moved, at(0)->x), std::tuple(id, 14.0, 114.0));

    step({});
    ASSERT_EQ(states(), V{1}) << "lost is reported once";
    step({{300, 300}});
    ASSERT_EQ(states(), V{0}) << "the lost blob is gone";

    step({{315, 300}}); // exactly 15 from a blob that has not moved
    ASSERT_EQ(states(), (V{1, 0}));
    EXPECT_NE(at(1)->sessionId, at(0)->sessionId);
}

TEST_F(Matching, TheSolverAcceptsFifteenAndTenTimesTheLastMove)
{
    step({{100, 100}, {100, 400}});
    const int a = at(0)->sessionId, b = at(1)->sessionId;
    step({{115, 100}, {100, 385}});
    ASSERT_EQ(tracked.size(), 2);
    EXPECT_EQ(std::tuple(at(0)->sessionId, at(1)->sessionId, at(0)->state), std::tuple(a, b, 2));

    at(0)->moved = 20;
    at(1)->moved = 20;
    step({{315, 100}, {100, 586}}); // 200 and 201
    ASSERT_EQ(states(), (V{2, 1, 0}));
    EXPECT_EQ(std::tuple(at(0)->sessionId, at(1)->sessionId), std::tuple(a, b));
}

TEST_F(Matching, TheGreedyRuleAllowsBelowThirteenTimesTheLastMove)
{
    step({{100, 100}});
    const int id = at(0)->sessionId;
    at(0)->moved = 20;
    step({{359, 100}});
    EXPECT_EQ(at(0)->sessionId, id);
    at(0)->moved = 20;
    step({{99, 100}}); // 260 away
    EXPECT_EQ(states(), (V{1, 0}));
}

TEST_F(Matching, OfTwoCrossingConnectionsTheLongerIsRejected)
{
    // A may travel far, B may not: the only allowed pairing crosses.
    step({{100, 100}, {110, 100}});
    const int a = at(0)->sessionId, b = at(1)->sessionId;
    at(0)->moved = 5;
    step({{100, 110}, {130, 108}});
    ASSERT_EQ(states(), (V{2, 1, 0}));
    EXPECT_EQ(std::tuple(at(0)->sessionId, at(0)->x, at(1)->sessionId, at(2)->x), std::tuple(b, 100.0, a, 130.0));
}

TEST_F(Matching, RejectionMarksTheLongerOrAtEqualLengthTheOuterRow)
{
    Blob a(0, 0, 1, 1, 0), b(10, 0, 1, 1, 0), c(0, 10, 1, 1, 0), d(10, 10, 1, 1, 0);
    KuhnMunkresAssignment& km = *tracked.matcher;
    km.xy[0] = 0;
    km.xy[1] = 1;
    km.cost[0][0] = -14.1;
    km.cost[1][1] = -14.1;
    EXPECT_TRUE(BlobList::isConnectionCrossing({{&a, &d, 14.1}, {&b, &c, 14.1}}));
    tracked.rejectCrossingConnections({{&a, &d, 14.1}, {&b, &c, 14.1}});
    EXPECT_EQ(km.cost[0][0], -100000000.0) << "equal length: the outer loop's row goes";
    EXPECT_EQ(km.cost[1][1], -100000000.0) << "a rejected connection still rejects";

    km.cost[0][0] = -14.1;
    km.cost[1][1] = -12.0;
    tracked.rejectCrossingConnections({{&a, &d, 14.1}, {&b, &c, 12.0}});
    EXPECT_EQ(std::pair(km.cost[0][0], km.cost[1][1]), std::pair(-100000000.0, -12.0));
    EXPECT_FALSE(BlobList::isConnectionCrossing({{&a, &b, 10}, {&c, &d, 10}}));
}

TEST_F(Matching, SurplusFreshBlobsFarthestFromAllAreBorn)
{
    step({{100, 100}, {200, 100}});
    const int a = at(0)->sessionId, b = at(1)->sessionId;
    step({{400, 400}, {105, 100}, {205, 100}});
    ASSERT_EQ(states(), (V{2, 2, 0}));
    EXPECT_EQ(std::tuple(at(0)->sessionId, at(1)->sessionId, at(2)->x), std::tuple(a, b, 400.0));
    EXPECT_GT(at(2)->sessionId, b);
}

TEST_F(Matching, KeepFramesBridgesAMissingBlob)
{
    step({{100, 100}, {300, 300}}, 2);
    const int id = at(0)->sessionId;
    for (int missing = 1; missing <= 2; ++missing) {
        step({{300, 300}}, 2);
        ASSERT_EQ(tracked.size(), 2);
        Blob* b = at(1); // merged first, then the missing one
        EXPECT_EQ(std::tuple(b->sessionId, b->state, b->x, b->lostFrames, b->lostEvents, b->wasLost),
                  std::tuple(id, 2, 100.0, missing, 1, true));
    }
    step({{300, 300}}, 2);
    EXPECT_EQ(at(1)->state, 1);
    step({{300, 300}}, 2);
    EXPECT_EQ(tracked.size(), 1);

    step({{300, 300}, {50, 50}}, 2);
    const int other = at(1)->sessionId;
    step({{300, 300}}, 2);
    step({{300, 300}, {52, 50}}, 2); // back during the bridge
    ASSERT_EQ(tracked.size(), 2);
    EXPECT_EQ(std::tuple(at(1)->sessionId, at(1)->lostFrames, at(1)->lostEvents), std::tuple(other, 0, 1));
}

TEST_F(Matching, ManyBlobsStillKeepTheirIdsWhenTheSolverGivesUp)
{
    for (int n : {120, 260}) {
        std::vector<P> grid;
        for (int i = 0; i < n; ++i)
            grid.push_back({20.0 + (i % 20) * 36, 20.0 + (i / 20) * 36});
        step(grid);
        std::map<std::pair<double, double>, int> idAt;
        for (Blob* b : tracked.blobs)
            idAt[{b->x + 3, b->y + 2}] = b->sessionId;
        for (P& p : grid)
            p.x += 3, p.y += 2;
        step(grid);
        // 120 pairs need more than the solver's step limit, more than 254 more than
        // its matrix: the greedy pairing takes over.
        if (n < KuhnMunkresAssignment::Capacity) {
            EXPECT_FALSE(tracked.matcher->ok);
        }
        ASSERT_EQ(tracked.size(), n);
        for (int i = 0; i < n; ++i)
            EXPECT_EQ(std::pair(at(i)->sessionId, at(i)->state), std::pair(idAt[{at(i)->x, at(i)->y}], 2)) << n;
        if (n >= KuhnMunkresAssignment::Capacity) {
            EXPECT_FALSE(tracked.matcher->merge(n));
        }
        step({});
        step({});
        ASSERT_EQ(tracked.size(), 0);
    }
}

// Wherever the solver reports success, its assignment has the largest total weight.
TEST(KuhnMunkres, SuccessfulRunsAreOptimalAgainstBruteForce)
{
    KuhnMunkresAssignment km; // reused: labels carry over between runs, as in use
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> coord(0, 100);
    int solved = 0;
    for (int scene = 0; scene < 3000; ++scene) {
        const int n = 1 + scene % 7;
        std::vector<P> a(n), b(n);
        for (int i = 0; i < n; ++i)
            a[i] = {coord(rng), coord(rng)}, b[i] = {coord(rng), coord(rng)};
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) {
                const double d = std::hypot(a[i].x - b[j].x, a[i].y - b[j].y);
                km.cost[i][j] = (d <= 40 || scene % 3 == 0) ? -d : -100000000.0;
            }
        if (!km.merge(n))
            continue;
        ++solved;
        auto total = [&](const int* assignment) {
            double sum = 0;
            for (int i = 0; i < n; ++i)
                sum += km.cost[i][assignment[i]];
            return sum;
        };
        std::vector<int> perm(n);
        std::iota(perm.begin(), perm.end(), 0);
        ASSERT_TRUE(std::is_permutation(km.xy, km.xy + n, perm.begin())) << "scene " << scene;
        for (int i = 0; i < n; ++i)
            EXPECT_EQ(km.yx[km.xy[i]], i);
        double best = -1e300;
        do
            best = std::max(best, total(perm.data()));
        while (std::next_permutation(perm.begin(), perm.end()));
        EXPECT_NEAR(total(km.xy), best, 1e-6 * std::max(1.0, std::abs(best))) << "scene " << scene;
    }
    EXPECT_GT(solved, 1000);
    EXPECT_FALSE(km.merge(KuhnMunkresAssignment::Capacity));
}

// Strokes drawn frame after frame through the stylus engine and the matching.
struct Stroke {
    int firstFrame;
    std::vector<P> path;
};

// Speeds up from a slow start, as a pen does, to at most 30 pixels a frame.
static double stepLength(int k) { return std::min(30.0, 8.0 + 4.0 * k); }

static Stroke line(int first, P from, P dir, int frames)
{
    Stroke s{first, {from}};
    const double len = std::hypot(dir.x, dir.y);
    for (int k = 0; k < frames - 1; ++k) {
        const P& p = s.path.back();
        s.path.push_back({p.x + dir.x / len * stepLength(k), p.y + dir.y / len * stepLength(k)});
    }
    return s;
}

static Stroke circle(int first, P centre, double radius, double phase, int frames)
{
    Stroke s{first, {}};
    double angle = phase;
    for (int k = 0; k < frames; ++k) {
        s.path.push_back({centre.x + radius * std::cos(angle), centre.y + radius * std::sin(angle)});
        angle += 2 * std::asin(stepLength(k) / (2 * radius));
    }
    return s;
}

static void runStrokes(const std::vector<Stroke>& strokes)
{
    TrackingEngine engine(SyntheticFrames::Width, SyntheticFrames::Height, 230, 1, true);
    SyntheticFrames synth(17);
    while (engine.learning)
        engine.processImage(synth.make({}).data(), false, false);
    OwnedBlobs all;
    BlobList& tracked = all.blobs;
    int lastFrame = 0;
    for (const Stroke& s : strokes)
        lastFrame = std::max(lastFrame, s.firstFrame + int(s.path.size()) + 2);

    std::vector<int> ids(strokes.size(), -1), births(strokes.size(), 0), losses(strokes.size(), 0);
    for (int frame = 0; frame < lastFrame; ++frame) {
        std::vector<Spot> spots;
        for (const Stroke& s : strokes) {
            const int k = frame - s.firstFrame;
            if (k >= 0 && k < int(s.path.size()))
                spots.push_back({s.path[k].x, s.path[k].y, 7});
        }
        AllBlobs found = engine.processImage(synth.make(spots).data(), false, false);
        EXPECT_EQ(found.blobs.size(), int(spots.size())) << "frame " << frame;
        tracked.mergeWith(std::move(found.blobs), 0, nullptr);

        for (std::size_t n = 0; n < strokes.size(); ++n) {
            const Stroke& s = strokes[n];
            const int k = frame - s.firstFrame;
            for (Blob* b : tracked.blobs) {
                births[n] += b->sessionId == ids[n] && b->state == 0;
                losses[n] += b->sessionId == ids[n] && b->state == 1;
            }
            if (k < 0 || k >= int(s.path.size()))
                continue;
            Blob* mine = nullptr;
            for (Blob* b : tracked.blobs)
                if (b->state != 1 && std::hypot(b->x - s.path[k].x, b->y - s.path[k].y) < 1.0)
                    mine = b;
            ASSERT_NE(mine, nullptr) << "stroke " << n << " frame " << frame;
            if (k == 0) {
                EXPECT_EQ(mine->state, 0);
                ids[n] = mine->sessionId;
                ++births[n];
            }
            EXPECT_EQ(mine->sessionId, ids[n]) << "stroke " << n << " frame " << frame;
        }
    }
    // One birth and one loss for every stroke, by stroke.
    EXPECT_EQ(births, std::vector<int>(strokes.size(), 1));
    EXPECT_EQ(losses, std::vector<int>(strokes.size(), 1));
}

TEST(Strokes, EachStrokeKeepsOneId)
{
    std::vector<Stroke> ten;
    for (int i = 0; i < 10; ++i)
        ten.push_back(circle(i % 3, {130.0 + (i % 5) * 120, 130.0 + (i / 5) * 200}, 45, 0, 30));
    const std::pair<const char*, std::vector<Stroke>> cases[] = {
        {"straight line", {line(0, {60, 60}, {2, 1}, 22)}},
        {"circle", {circle(1, {376, 240}, 150, 0, 40)}},
        {"two crossing strokes", {line(0, {80, 240}, {1, 0}, 24), line(6, {370, 60}, {0, 1}, 16)}},
        {"ten spots moving together", ten},
    };
    for (const auto& [name, strokes] : cases) {
        SCOPED_TRACE(name);
        runStrokes(strokes);
    }
}

// Blobs and blob lists.

// Blobs of a test, freed with it: lists never delete what they hold.
struct Blobs {
    std::vector<std::unique_ptr<Blob>> owned;
    BlobList list;
    Blob* make(double x, double y, double w = 4, double h = 4)
    {
        owned.push_back(std::make_unique<Blob>(x, y, w, h, 0));
        return owned.back().get();
    }
    // Adds the blobs in the given order.
    void add(std::initializer_list<Blob*> blobs)
    {
        for (Blob* b : blobs)
            list.add(b);
    }
};

TEST(BlobConstruction, DerivesBoxAndStartsUnmatched)
{
    Blob b(10, 20, 4, 6, 7);
    EXPECT_EQ(std::tuple(b.left, b.top, b.size, b.fx, b.fy, b.speed), std::tuple(8.0, 17.0, 24.0, -1.0, -1.0, 0.0));
    EXPECT_EQ(std::tuple(b.state, b.sessionId, b.id, b.partner), std::tuple(-1, -1, 7, static_cast<Blob*>(nullptr)));
    EXPECT_DOUBLE_EQ(b.getDistance(Blob(13, 24, 1, 1, 0)), 5);
}

TEST(BlobSessionIds, AreHandedOutOnceEachAndNeverReused)
{
    Blob a(0, 0, 1, 1, 0), b(0, 0, 1, 1, 0);
    a.setSessionID();
    const int first = a.sessionId;
    EXPECT_GE(first, 1) << "the first touch of a run gets 1";
    a.setSessionID();
    EXPECT_EQ(a.sessionId, first) << "a second call consumes nothing";
    b.setSessionID();
    EXPECT_EQ(std::tuple(b.sessionId, Blob::incS_Id), std::tuple(first + 1, first + 1));
}

TEST(BlobScreenTest, FirstRowAndColumnAreOutsideLastOnesInside)
{
    const struct {
        double fx, fy;
        bool out;
    } cases[] = {{1, 1, false},         {1920, 1080, false},  {0.5, 500, true},
                 {1920.5, 500, true},   {500, 1080.5, true},  {-1, -1, true}};
    for (const auto& c : cases) {
        Blob b(0, 0, 1, 1, 0);
        b.fx = c.fx;
        b.fy = c.fy;
        EXPECT_EQ(b.isOutOfScreen(1920, 1080), c.out) << c.fx << "," << c.fy;
    }
}

TEST(BlobMerge, TakesTheNewPositionUnlessAnEdgeBlobHeldStill)
{
    GS* gs = GS::instance();
    ASSERT_DOUBLE_EQ(gs->edgeStillDistance, 0.0);
    Blob survivor(100, 100, 6, 6, 0);
    survivor.sessionId = 12;
    survivor.lostFrames = 3;
    Blob detection(103, 104, 8, 8, 0);
    detection.xShift = 1.5;
    detection.outside = true;
    survivor.mergeWith(detection);
    // The box width stays as first seen.
    EXPECT_EQ(std::tuple(survivor.x, survivor.y, survivor.moved, survivor.size, survivor.width, survivor.xShift),
              std::tuple(103.0, 104.0, 5.0, 64.0, 6.0, 1.5));
    EXPECT_EQ(std::tuple(survivor.sessionId, survivor.lostFrames, survivor.outside), std::tuple(12, 0, true));

    // Far from the centre: held only when it did not move at all (the still distance is 0).
    Blob edge(50, 50, 4, 4, 0);
    edge.radial = gs->edgeRadius + 0.1;
    edge.lostFrames = 2;
    Blob same(50, 50, 5, 5, 0);
    same.radial = 0.2;
    edge.mergeWith(same);
    EXPECT_DOUBLE_EQ(edge.radial, gs->edgeRadius + 0.1) << "held: position and radial stay";
    EXPECT_EQ(std::tuple(edge.lostFrames, edge.size), std::tuple(0, 25.0));
    Blob moved(50.5, 50, 5, 5, 0);
    moved.radial = 0.95;
    edge.mergeWith(moved);
    EXPECT_EQ(std::tuple(edge.x, edge.radial), std::tuple(50.5, 0.95));
}

TEST(BlobListStorage, IsCappedAtOneThousandAndNeverDeletes)
{
    Blobs pool;
    BlobList& list = pool.list;
    for (int i = 0; i < 1000; ++i)
        list.add(pool.make(i, 0));
    EXPECT_EQ(list.size(), 1000);
    Blob* refused = pool.make(1000, 0);
    list.add(refused);
    EXPECT_EQ(list.size(), 1000);
    EXPECT_NE(list[999], refused);

    list.removeAt(0);
    EXPECT_EQ(std::tuple(list.size(), list[0]->x), std::tuple(999, 1.0));
    list.clear();
    EXPECT_EQ(list.size(), 0);
    EXPECT_DOUBLE_EQ(pool.owned[0]->x, 0) << "removed blobs are still alive";

    BlobList copy = list;
    EXPECT_EQ(copy.matcher, list.matcher) << "copies share the matcher";

    // contains looks only at the given vector and skips nulls.
    Blob* a = pool.make(1, 1);
    a->sessionId = 5;
    std::vector<Blob*> v{nullptr, a};
    EXPECT_EQ(std::tuple(BlobList::contains(v, 5), BlobList::contains(v, 6), BlobList::contains({}, 5)),
              std::tuple(true, false, false));
}

TEST(BlobListQueries, FindExtremesAndCorners)
{
    Blobs pool;
    BlobList& list = pool.list;
    Blob *tl = pool.make(10, 10), *tr = pool.make(90, 12), *bl = pool.make(12, 88), *br = pool.make(91, 90);
    pool.add({br, bl, tr, tl});
    const std::vector<Blob*> extremes{list.getTopBlob(),     list.getBottomBlob(),     list.getLeftBlob(),
                                      list.getRightBlob(),   list.getTopLeftBlob(),    list.getTopRightBlob(),
                                      list.getBottomLeftBlob(), list.getBottomRightBlob()};
    EXPECT_EQ(extremes, (std::vector<Blob*>{tl, br, tl, br, tl, tr, bl, br}));
    const std::vector<Blob*> sorted{list.getSortedBlob(5), list.getSortedBlob(3), list.getSortedBlob(8),
                                    list.getSortedBlob(-2)};
    EXPECT_EQ(sorted, (std::vector<Blob*>{tr, br, nullptr, nullptr}));
    list.getLeftBlob();
    EXPECT_EQ(list.getSortedBlob(-1), list[0]) << "-1 is the first entry as it stands";
    EXPECT_EQ(list[0], tl) << "queries sort the list in place";

    // The rightmost blob is low: the top-right query must not see it.
    Blobs half;
    Blob *a = half.make(10, 10), *b = half.make(50, 11), *c = half.make(20, 50), *d = half.make(99, 60);
    half.add({d, c, b, a});
    EXPECT_EQ(half.list.getTopRightBlob(), b) << "corner queries look only at the upper or lower half";
    EXPECT_EQ(half.list.getBottomLeftBlob(), c);

    // Fewer than three blobs answer the first entry for corners.
    Blobs two;
    EXPECT_EQ((std::vector<Blob*>{two.list.getTopRightBlob(), two.list.getTopBlob(), two.list.getSortedBlob(-1)}),
              (std::vector<Blob*>(3, nullptr)));
    Blob *low = two.make(5, 90), *high = two.make(95, 5);
    two.add({low, high});
    // The plain extremes still sort.
    EXPECT_EQ((std::vector<Blob*>{two.list.getTopRightBlob(), two.list.getBottomLeftBlob(), two.list.getTopBlob()}),
              (std::vector<Blob*>{low, low, high}));
}
