#include "bloblist.h"
#include "globalsettings.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

// Blobs of a test, freed with it: lists never delete what they hold.
struct Blobs {
    std::vector<std::unique_ptr<Blob>> owned;
    Blob* make(double x, double y, double w = 4, double h = 4)
    {
        owned.push_back(std::make_unique<Blob>(x, y, w, h, 0));
        return owned.back().get();
    }
};

} // namespace

TEST(BlobConstruction, DerivesBoxAndStartsUnmatched)
{
    Blob b(10, 20, 4, 6, 7);
    EXPECT_DOUBLE_EQ(b.left, 8);
    EXPECT_DOUBLE_EQ(b.top, 17);
    EXPECT_DOUBLE_EQ(b.size, 24);
    EXPECT_EQ(b.state, -1);
    EXPECT_EQ(b.sessionId, -1);
    EXPECT_EQ(b.id, 7);
    EXPECT_DOUBLE_EQ(b.fx, -1);
    EXPECT_DOUBLE_EQ(b.fy, -1);
    EXPECT_EQ(b.partner, nullptr);
    EXPECT_DOUBLE_EQ(b.speed, 0);
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
    EXPECT_EQ(b.sessionId, first + 1);
    EXPECT_EQ(Blob::incS_Id, first + 1);
}

TEST(BlobScreenTest, FirstRowAndColumnAreOutsideLastOnesInside)
{
    Blob b(0, 0, 1, 1, 0);
    auto out = [&](double fx, double fy) {
        b.fx = fx;
        b.fy = fy;
        return b.isOutOfScreen(1920, 1080);
    };
    EXPECT_FALSE(out(1, 1));
    EXPECT_FALSE(out(1920, 1080));
    EXPECT_TRUE(out(0.5, 500));
    EXPECT_TRUE(out(1920.5, 500));
    EXPECT_TRUE(out(500, 1080.5));
    EXPECT_TRUE(out(-1, -1));
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
    EXPECT_DOUBLE_EQ(survivor.x, 103);
    EXPECT_DOUBLE_EQ(survivor.y, 104);
    EXPECT_DOUBLE_EQ(survivor.moved, 5);
    EXPECT_DOUBLE_EQ(survivor.size, 64);
    EXPECT_DOUBLE_EQ(survivor.width, 6) << "the box size stays as first seen";
    EXPECT_EQ(survivor.sessionId, 12);
    EXPECT_EQ(survivor.lostFrames, 0);
    EXPECT_DOUBLE_EQ(survivor.xShift, 1.5);
    EXPECT_TRUE(survivor.outside);

    // Far from the centre: held only when it did not move at all (the still distance is 0).
    Blob edge(50, 50, 4, 4, 0);
    edge.radial = gs->edgeRadius + 0.1;
    edge.lostFrames = 2;
    Blob same(50, 50, 5, 5, 0);
    same.radial = 0.2;
    edge.mergeWith(same);
    EXPECT_DOUBLE_EQ(edge.radial, gs->edgeRadius + 0.1) << "held: position and radial stay";
    EXPECT_EQ(edge.lostFrames, 0);
    EXPECT_DOUBLE_EQ(edge.size, 25);
    Blob moved(50.5, 50, 5, 5, 0);
    moved.radial = 0.95;
    edge.mergeWith(moved);
    EXPECT_DOUBLE_EQ(edge.x, 50.5);
    EXPECT_DOUBLE_EQ(edge.radial, 0.95);
}

TEST(BlobListStorage, IsCappedAtOneThousandAndNeverDeletes)
{
    Blobs pool;
    BlobList list;
    for (int i = 0; i < 999; ++i)
        list.add(pool.make(i, 0));
    list.add(pool.make(999, 0));
    EXPECT_EQ(list.size(), 1000);
    Blob* refused = pool.make(1000, 0);
    list.add(refused);
    EXPECT_EQ(list.size(), 1000);
    EXPECT_NE(list[999], refused);

    list.removeAt(0);
    EXPECT_EQ(list.size(), 999);
    EXPECT_DOUBLE_EQ(list[0]->x, 1);
    list.clear();
    EXPECT_EQ(list.size(), 0);
    EXPECT_DOUBLE_EQ(pool.owned[0]->x, 0) << "removed blobs are still alive";

    BlobList copy = list;
    EXPECT_EQ(copy.matcher, list.matcher) << "copies share the matcher";
}

TEST(BlobListContains, LooksOnlyAtTheGivenVectorAndSkipsNulls)
{
    Blobs pool;
    Blob* a = pool.make(1, 1);
    a->sessionId = 5;
    std::vector<Blob*> v{nullptr, a};
    EXPECT_TRUE(BlobList::contains(v, 5));
    EXPECT_FALSE(BlobList::contains(v, 6));
    EXPECT_FALSE(BlobList::contains({}, 5));
}

TEST(BlobListQueries, FindExtremesAndCorners)
{
    Blobs pool;
    BlobList list;
    Blob* tl = pool.make(10, 10);
    Blob* tr = pool.make(90, 12);
    Blob* bl = pool.make(12, 88);
    Blob* br = pool.make(91, 90);
    for (Blob* b : {br, bl, tr, tl})
        list.add(b);
    EXPECT_EQ(list.getTopBlob(), tl);
    EXPECT_EQ(list.getBottomBlob(), br);
    EXPECT_EQ(list.getLeftBlob(), tl);
    EXPECT_EQ(list.getRightBlob(), br);
    EXPECT_EQ(list.getTopLeftBlob(), tl);
    EXPECT_EQ(list.getTopRightBlob(), tr);
    EXPECT_EQ(list.getBottomLeftBlob(), bl);
    EXPECT_EQ(list.getBottomRightBlob(), br);
    EXPECT_EQ(list.getSortedBlob(5), tr);
    EXPECT_EQ(list.getSortedBlob(3), br);
    EXPECT_EQ(list.getSortedBlob(8), nullptr);
    EXPECT_EQ(list.getSortedBlob(-2), nullptr);
    list.getLeftBlob();
    EXPECT_EQ(list.getSortedBlob(-1), list[0]) << "-1 is the first entry as it stands";
    EXPECT_EQ(list[0], tl) << "queries sort the list in place";
}

TEST(BlobListQueries, CornerQueriesLookOnlyAtTheUpperOrLowerHalf)
{
    Blobs pool;
    BlobList list;
    // The rightmost blob is low: the top-right query must not see it.
    Blob* a = pool.make(10, 10);
    Blob* b = pool.make(50, 11);
    Blob* c = pool.make(20, 50);
    Blob* d = pool.make(99, 60);
    for (Blob* x : {d, c, b, a})
        list.add(x);
    EXPECT_EQ(list.getTopRightBlob(), b);
    EXPECT_EQ(list.getBottomLeftBlob(), c);
}

TEST(BlobListQueries, FewerThanThreeBlobsAnswerTheFirstEntryForCorners)
{
    Blobs pool;
    BlobList list;
    EXPECT_EQ(list.getTopRightBlob(), nullptr);
    EXPECT_EQ(list.getTopBlob(), nullptr);
    EXPECT_EQ(list.getSortedBlob(-1), nullptr);
    Blob* low = pool.make(5, 90);
    Blob* high = pool.make(95, 5);
    list.add(low);
    list.add(high);
    EXPECT_EQ(list.getTopRightBlob(), low);
    EXPECT_EQ(list.getBottomLeftBlob(), low);
    EXPECT_EQ(list.getTopBlob(), high) << "the plain extremes still sort";
}
