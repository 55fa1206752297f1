#include "shiftcorrection.h"
#include "bloblist.h"
#include "calibration.h"
#include "transformgrid.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

// Sensor 0..800 x 0..500 onto a 1600 x 1000 screen, a plain doubling.
TransformGrid doublingGrid()
{
    const EPolygon sensor({EVector(0, 0), EVector(800, 0), EVector(800, 500), EVector(0, 500)});
    const EPolygon screen({EVector(0, 0), EVector(1600, 0), EVector(1600, 1000), EVector(0, 1000)});
    return TransformGrid({TransformArea(sensor, screen, sensor)});
}

} // namespace

TEST(BlobListToArray, CopiesCarryScreenPositionsOfTheShiftedSensorPoint)
{
    Blob a(100, 50, 6, 4, 3), b(200, 300, 2, 2, 0);
    a.sessionId = 11;
    a.state = 2;
    a.size = 99;
    a.xShift = 5;
    a.yShift = -2;
    a.moved = 7;
    a.lostFrames = 3;
    b.sessionId = 12;
    b.state = 0;
    BlobList list;
    list.add(&a);
    list.add(&b);

    TransformGrid grid = doublingGrid();
    ShiftCorrection lens(10);
    std::vector<Blob*> out = list.ToArray(&grid, &lens);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_NE(out[0], &a);
    EXPECT_DOUBLE_EQ(out[0]->fx, (100 + 5 + 10) * 2);
    EXPECT_DOUBLE_EQ(out[0]->fy, (50 - 2) * 2);
    EXPECT_EQ(out[0]->x, 100);
    EXPECT_EQ(out[0]->y, 50);
    EXPECT_EQ(out[0]->id, 3);
    EXPECT_EQ(out[0]->sessionId, 11);
    EXPECT_EQ(out[0]->state, 2);
    EXPECT_EQ(out[0]->size, 99);
    EXPECT_EQ(out[0]->xShift, 5);
    EXPECT_EQ(out[0]->moved, 0);
    EXPECT_EQ(out[0]->lostFrames, 0);
    EXPECT_EQ(out[1]->sessionId, 12);
    EXPECT_DOUBLE_EQ(out[1]->fx, 420);
    for (Blob* copy : out)
        delete copy;

    EXPECT_EQ(list.size(), 2);
    EXPECT_EQ(list[0], &a);
}

TEST(BlobListToArray, GridThatIsNotReadyGivesMinusOne)
{
    Blob a(100, 50, 6, 4, 0);
    BlobList list;
    list.add(&a);
    TransformGrid empty;
    std::vector<Blob*> out = list.ToArray(&empty, nullptr);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0]->fx, -1);
    EXPECT_EQ(out[0]->fy, -1);
    delete out[0];
    EXPECT_TRUE(BlobList().ToArray(&empty, nullptr).empty());
}
