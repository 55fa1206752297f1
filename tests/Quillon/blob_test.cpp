#include "bloblist.h"
#include "globalsettings.h"

#include <gtest/gtest.h>

#include <memory>
#include <tuple>
#include <vector>

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
