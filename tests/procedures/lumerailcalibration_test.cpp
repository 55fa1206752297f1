// The bar calibration driven blob by blob against a recording screen and emitter: four presses
// beside the screen become the bar points of the calibration in force, as fractions of the screen.
#include "ilumerailcalibrationui.h"
#include "lumerailcalibration.h"
#include "procedurestandins.h"

#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAre;

class RecordingBarScreen : public RecordingScreen<ILumerailCalibrationUi> {
public:
    void setLumerailCrossHairNum(int n) override
    {
        std::lock_guard hold(lock);
        numbers.push_back(n);
    }
    std::vector<int> shown()
    {
        std::lock_guard hold(lock);
        return numbers;
    }

private:
    std::vector<int> numbers;
};

class BarPress : public PenProcedureTest {
protected:
    RecordingBarScreen screen;
    const std::vector<EVector> oldBar{{-0.1, -0.1}, {1.1, -0.1}, {1.1, 1.1}, {-0.1, 1.1}};
    Calibration inForce{2, 2, {{0, 0}, {0, 100}, {100, 0}, {100, 100}}, oldBar, 0, 0, 0.0, false, false};
    std::unique_ptr<LumerailCalibration> lrc;

    void SetUp() override
    {
        PenProcedureTest::SetUp();
        emitter.current = &inForce;
        lrc = std::make_unique<LumerailCalibration>(&screen, &emitter, &sensor);
        record(lrc.get());
        lrc->start(&pen);
        ASSERT_TRUE(waitFor([&] { return screen.count("loading 0") > 0; }));
    }
    void TearDown() override
    {
        lrc.reset();
        PenProcedureTest::TearDown();
    }
    // A press seen at a screen position (sensor position beside it, which the bar does not use).
    void press(double fx, double fy, int holdMs, bool outside = false)
    {
        PenProcedureTest::press([&](int id, int state) { return spot(fx / 2, fy / 2, fx, fy, id, state); }, holdMs,
                                outside);
    }
};

TEST_F(BarPress, FourPressesBesideTheScreenBecomeTheBarPointsAsFractions)
{
    EXPECT_TRUE(inForce.refPoints.empty()) << "emptied while the run goes on";
    press(500, 400, 300);
    EXPECT_EQ(screen.shown(), std::vector<int>{1}) << "a press on the screen is no bar point";
    press(-100, -40, 300);
    press(1100, -40, 40);
    EXPECT_EQ(screen.shown(), (std::vector<int>{1, 2})) << "a press shorter than 200 ms";
    press(1100, -40, 300, true);
    press(1150, 880, 300);
    press(-50, 900, 300, true);
    ASSERT_TRUE(ended());
    EXPECT_EQ(statuses, std::vector<int>{1});
    EXPECT_EQ(screen.shown(), (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(emitter.currentSet, 1) << "the calibration in force was put in force again";
    const auto bar = ElementsAre(PointAt(-0.1, -0.05), PointAt(1.1, -0.05), PointAt(1.15, 1.1), PointAt(-0.05, 1.125));
    EXPECT_THAT(inForce.refPoints, bar);
    lrc.reset();
    EXPECT_THAT(inForce.refPoints, bar) << "the new points outlive the procedure";
}

TEST_F(BarPress, UndoTakesBackAPressAndCancelBringsTheFormerPointsBack)
{
    screen.send(2);
    EXPECT_EQ(screen.shown(), std::vector<int>{1}) << "nothing to undo at the first point";
    press(-100, -40, 300);
    press(1100, -40, 300);
    press(1100, 900, 300);
    screen.send(2);
    EXPECT_EQ(screen.shown(), (std::vector<int>{1, 2, 3, 4, 3}));
    press(1200, 900, 300);
    EXPECT_TRUE(statuses.empty()) << "three points after the undo";
    EXPECT_EQ(screen.shown().back(), 4);

    screen.send(1);
    ASSERT_TRUE(ended());
    EXPECT_EQ(statuses, std::vector<int>{-3});
    EXPECT_EQ(emitter.currentSet, 0);
    EXPECT_TRUE(inForce.refPoints.empty());
    lrc.reset();
    EXPECT_THAT(inForce.refPoints, ElementsAre(PointAt(-0.1, -0.1), PointAt(1.1, -0.1), PointAt(1.1, 1.1), PointAt(-0.1, 1.1)));
}

} // namespace
