#include "ownedblobs.h"
#include "syntheticframe.h"

#include "kuhnmunkresassignment.h"
#include "trackingengine.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <random>
#include <tuple>

struct P {
    double x, y;
};

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
