// The press-driven calibrations, the dots' and the bar's, driven blob by blob as the frame
// thread gives them, against a recording screen and emitter; and the disturbance check they
// rely on.
#include "disturbancechecker.h"
#include "lumerailcalibration.h"
#include "manualcalibration.h"
#include "procedurestandins.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using ::testing::ElementsAre;

MATCHER_P3(CrosshairAt, x, y, index, "")
{
    return arg.index == index && std::abs(arg.x - x) <= 1 && std::abs(arg.y - y) <= 1;
}

MATCHER_P2(PointAt, x, y, "")
{
    return ::testing::Value(arg.x, ::testing::DoubleEq(x)) && ::testing::Value(arg.y, ::testing::DoubleEq(y));
}

class DisturbanceCheck : public ::testing::Test {
protected:
    GS* gs = GS::instance();
    ScopedSetting<int> period{gs->disturbanceCheckMs, 200};
    DisturbanceChecker checker;

    // One blob at a screen position reported in the middle of each check.
    std::pair<bool, bool> verdictsFor(double fx, double fy)
    {
        Blob b = spot(10, 10, fx, fy, 1);
        const auto during = [&](auto check) {
            std::thread frame([&] {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                checker.newBlob(&b, {&b}, nullptr);
            });
            const bool verdict = check();
            frame.join();
            return verdict;
        };
        return {during([&] { return checker.checkIsDisturbanceOnScreen(); }),
                during([&] { return checker.checkIsDisturbanceAnywhere(); })};
    }
};

TEST_F(DisturbanceCheck, OnScreenMeansInsideTheDesktopEdgesIncluded)
{
    gs->screenWidth = 1000;
    gs->screenHeight = 800;
    struct Case { double fx, fy; bool onScreen; } cases[] = {
        {0.5, 400, false}, {1.0, 400, true}, {1000, 400, true}, {1000.5, 400, false},
        {500, 1.0, true}, {500, 0.9, false}, {500, 800, true}, {500, 801, false},
    };
    for (const Case& c : cases) {
        const auto [onScreen, anywhere] = verdictsFor(c.fx, c.fy);
        EXPECT_EQ(onScreen, c.onScreen) << c.fx << "," << c.fy;
        EXPECT_TRUE(anywhere) << c.fx << "," << c.fy;
    }
    gs->screenWidth = 0;
    gs->screenHeight = 0;
    EXPECT_EQ(verdictsFor(500, 400), std::make_pair(false, true)) << "no desktop size yet: all is outside";
}

TEST_F(DisturbanceCheck, OnlyBlobsDuringTheCheckCountAndEachCheckStartsClean)
{
    gs->screenWidth = 1000;
    gs->screenHeight = 800;
    Blob b = spot(10, 10, 500, 400, 1);
    checker.newBlob(&b, {&b}, nullptr);
    EXPECT_FALSE(checker.checkIsDisturbanceAnywhere()) << "a blob before the check";
    EXPECT_TRUE(verdictsFor(500, 400).first);
    checker.newBlob(&b, {&b}, nullptr);
    EXPECT_FALSE(checker.checkIsDisturbanceOnScreen()) << "the verdict of the former check";
}

class DotPress : public PenProcedureTest<ManualCalibration> {
protected:
    QTemporaryDir dir;
    ScopedSetting<int> cols{gs->mcCols, 3};
    ScopedSetting<int> rows{gs->mcRows, 3};
    ScopedSetting<std::string> cache{gs->mcCachePath, dir.filePath("mcCache").toStdString()};

    void SetUp() override
    {
        PenProcedureTest::SetUp();
        fresh();
    }
    // A press at a sensor position, then one more frame with a blob in it.
    void press(double x, double y, int holdMs)
    {
        PenProcedureTest::press([&](int id, int state) { return blobAt(x, y, id, state); }, holdMs);
        emitter.frame({blobAt(1, 1, 0, 1)});
    }
    static Blob blobAt(double x, double y, int session, int state) { return spot(x, y, 500, 400, session, state); }
    size_t dotsShown() { return screen.crosshair().size(); }
};

TEST_F(DotPress, EveryDotPressedInSnakeOrderBecomesTheCalibration)
{
    procedure->start(&pen, false);
    ASSERT_TRUE(listening());
    std::vector<EVector> pressed;
    for (int i = 0; i < 9; ++i) {
        pressed.emplace_back(100 + 50 * i, 60 + 30 * i);
        press(pressed.back().x, pressed.back().y, 350);
    }
    ASSERT_TRUE(ended());
    EXPECT_EQ(statuses, std::vector<int>{1});
    ASSERT_EQ(emitter.calibrationCount(), 1u);
    const std::vector<EVector> src = emitter.lastSource();
    ASSERT_EQ(src.size(), 9u);
    for (size_t i = 0; i < 9; ++i)
        EXPECT_EQ(src[i].x, pressed[i].x) << i;

    // Down column 0, up column 1, down column 2, within the stylus margins of 2 and 3 percent.
    EXPECT_THAT(screen.crosshair(),
                ElementsAre(CrosshairAt(20, 24, 0), CrosshairAt(20, 400, 1), CrosshairAt(20, 776, 2),
                            CrosshairAt(500, 776, 3), CrosshairAt(500, 400, 4), CrosshairAt(500, 24, 5),
                            CrosshairAt(980, 24, 6), CrosshairAt(980, 400, 7), CrosshairAt(980, 776, 8)))
        << "no crosshair past the last dot";
    EXPECT_EQ(screen.count("show 00"), 1u);
    EXPECT_FALSE(QFile::exists(QString::fromStdString(gs->mcCachePath)));
}

TEST_F(DotPress, ShortPressesSecondFingersAndUndoKeepTheCountRight)
{
    procedure->start(&pen, false);
    ASSERT_TRUE(listening());
    screen.send(2);
    EXPECT_EQ(dotsShown(), 1u) << "undo at the first dot does nothing";

    press(300, 200, 40);
    EXPECT_EQ(dotsShown(), 1u) << "a press shorter than 200 ms is no dot";
    EXPECT_GE(screen.count("ring stopped"), 1u);

    // A second finger comes and goes during the press: only the first one's lift ends it.
    emitter.frame({blobAt(300, 200, 1, 0)});
    QCoreApplication::processEvents();
    emitter.frame({blobAt(300, 200, 1, 2), blobAt(600, 300, 2, 0)});
    emitter.frame({blobAt(300, 200, 1, 2), blobAt(600, 300, 2, 1)});
    waitFor([&] { return screen.count("check mark") > 0; }, 2000);
    EXPECT_EQ(dotsShown(), 1u) << "the second finger's lift ended the press";
    emitter.frame({blobAt(300, 200, 1, 1)});
    ASSERT_EQ(dotsShown(), 2u) << "the lift of the first finger";
    EXPECT_EQ(screen.crosshair().back().index, 1);

    screen.send(99);
    EXPECT_EQ(dotsShown(), 2u) << "the debug press while waiting";
    screen.send(2);
    ASSERT_EQ(dotsShown(), 3u);
    EXPECT_EQ(screen.crosshair().back().index, 0) << "back at the first dot, with its hint";
    EXPECT_EQ(screen.crosshair().back().x, screen.crosshair().front().x);

    for (int i = 0; i < 9; ++i)
        press(100 + 40 * i, 100, 300);
    ASSERT_TRUE(ended());
    EXPECT_EQ(emitter.lastSource().front().x, 100) << "the undone dot was taken again";
}

TEST_F(DotPress, EscWaitsForTheFirstCheckThenCancels)
{
    procedure->start(&pen, false);
    screen.send(1);
    EXPECT_TRUE(statuses.empty());
    ASSERT_TRUE(listening()) << "the first check went on after Esc";
    screen.send(1);
    ASSERT_TRUE(ended());
    EXPECT_EQ(statuses, std::vector<int>{-3});
    EXPECT_EQ(emitter.calibrationCount(), 0u);
}

// Light on the screen until the run ends: in the first check no calibration comes of it, in the
// final one the new calibration stays in force.
TEST_F(DotPress, LightDuringACheckEndsWithDisturbance)
{
    for (const int dots : {0, 9}) {
        // A fresh run; the first one's disturbance left the screen no "loading 0".
        fresh();
        statuses.clear();
        procedure->start(&pen, false);
        if (dots) {
            ASSERT_TRUE(listening());
            for (int i = 0; i < dots; ++i)
                press(100 + 40 * i, 100, 300);
        }
        const size_t before = emitter.calibrationCount();
        std::atomic<bool> stop{false};
        std::thread light([&] {
            while (!stop) {
                emitter.frame({blobAt(400, 300, 7, 2)});
                std::this_thread::sleep_for(std::chrono::milliseconds(8));
            }
        });
        const bool over = ended();
        stop = true;
        light.join();
        ASSERT_TRUE(over) << dots;
        EXPECT_EQ(statuses, std::vector<int>{-2}) << dots;
        EXPECT_EQ(emitter.calibrationCount() - before, dots ? 1u : 0u) << dots;
    }
}

// Four presses beside the screen become the bar points of the calibration in force, as
// fractions of the screen.
class BarPress : public PenProcedureTest<LumerailCalibration> {
protected:
    const std::vector<EVector> oldBar{{-0.1, -0.1}, {1.1, -0.1}, {1.1, 1.1}, {-0.1, 1.1}};
    Calibration inForce{2, 2, {{0, 0}, {0, 100}, {100, 0}, {100, 100}}, oldBar, 0, 0, 0.0, false, false};

    void SetUp() override
    {
        PenProcedureTest::SetUp();
        emitter.current = &inForce;
        fresh();
        procedure->start(&pen);
        ASSERT_TRUE(listening());
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
    procedure.reset();
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
    procedure.reset();
    EXPECT_THAT(inForce.refPoints, ElementsAre(PointAt(-0.1, -0.1), PointAt(1.1, -0.1), PointAt(1.1, 1.1), PointAt(-0.1, 1.1)));
}

} // namespace
