#include "shiftcorrection.h"
#include "bloblist.h"
#include "calibration.h"
#include "transformgrid.h"

#include <gtest/gtest.h>

#include <tuple>

// Sensor 0..800 x 0..500 onto a 1600 x 1000 screen, a plain doubling.
static TransformGrid doublingGrid()
{
    const EPolygon sensor({EVector(0, 0), EVector(800, 0), EVector(800, 500), EVector(0, 500)});
    const EPolygon screen({EVector(0, 0), EVector(1600, 0), EVector(1600, 1000), EVector(0, 1000)});
    return TransformGrid({TransformArea(sensor, screen, sensor)});
}

TEST(BlobListToArray, CopiesCarryScreenPositionsOfTheShiftedSensorPoint)
{
    Blob a(100, 50, 6, 4, 3), b(200, 300, 2, 2, 0);
    std::tie(a.sessionId, a.state, a.size, a.xShift, a.yShift, a.moved, a.lostFrames) =
        std::tuple(11, 2, 99, 5, -2, 7, 3);
    std::tie(b.sessionId, b.state) = std::tuple(12, 0);
    BlobList list;
    list.add(&a);
    list.add(&b);

    TransformGrid grid = doublingGrid();
    ShiftCorrection lens(10);
    std::vector<Blob*> out = list.ToArray(&grid, &lens);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_NE(out[0], &a);
    const Blob& c = *out[0];
    EXPECT_DOUBLE_EQ(c.fx, (100 + 5 + 10) * 2);
    EXPECT_DOUBLE_EQ(c.fy, (50 - 2) * 2);
    // The copy keeps the sensor position, ids and shift; the tracking counters start afresh.
    EXPECT_EQ(std::tuple(c.x, c.y, c.id, c.sessionId, c.state, c.size, c.xShift, c.moved, c.lostFrames),
              std::tuple(100, 50, 3, 11, 2, 99, 5, 0, 0));
    EXPECT_EQ(out[1]->sessionId, 12);
    EXPECT_DOUBLE_EQ(out[1]->fx, 420);
    for (Blob* copy : out)
        delete copy;

    EXPECT_EQ(std::tuple(list.size(), list[0]), std::tuple(2, &a));

    // Without a lens correction and before a calibration, the screen position is unknown.
    TransformGrid none;
    out = list.ToArray(&none, nullptr);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(std::tuple(out[0]->fx, out[0]->fy, out[0]->x), std::tuple(-1, -1, 100));
    for (Blob* copy : out)
        delete copy;
}
