// The bar calibration driven blob by blob against a recording screen and emitter: four presses
// beside the screen become the bar points of the calibration in force, as fractions of the screen.
#include "activepen.h"
#include "globalsettings.h"
#include "ilumerailcalibrationui.h"
#include "lumerailcalibration.h"
#include "procedurestandins.h"
#include "scopedsetting.h"
#include "sensor.h"

#include <gtest/gtest.h>

namespace {

class RecordingBarScreen : public ILumerailCalibrationUi {
public:
    void show(bool visible, bool withLoading) override { note(std::string("show ") + on(visible) + on(withLoading)); }
    void showLoading(bool o) override { note(std::string("loading ") + on(o)); }
    void setLumerailCrossHairNum(int n) override
    {
        std::lock_guard hold(lock);
        numbers.push_back(n);
    }
    void sendEventsTo(QObject* object, const char* slot) override
    {
        target = object;
        const std::string s(slot);
        method = s.substr(1, s.find('(') - 1);
    }
    void send(int id) { QMetaObject::invokeMethod(target, method.c_str(), Q_ARG(int, id)); }
    void startTimer() override { note("ring"); }
    void stopTimer() override { note("ring stopped"); }
    void timedout() override { note("check mark"); }

    std::vector<int> shown()
    {
        std::lock_guard hold(lock);
        return numbers;
    }
    size_t count(const std::string& call)
    {
        std::lock_guard hold(lock);
        return std::count(calls.begin(), calls.end(), call);
    }

private:
    static const char* on(bool b) { return b ? "1" : "0"; }
    void note(std::string call)
    {
        std::lock_guard hold(lock);
        calls.push_back(std::move(call));
    }
    std::mutex lock;
    std::vector<std::string> calls;
    std::vector<int> numbers;
    QObject* target = nullptr;
    std::string method;
};

// A spot seen at a screen position (sensor position beside it, which the bar does not use).
Blob spot(double fx, double fy, int session, int state)
{
    Blob b(fx / 2, fy / 2, 5, 5, 0);
    b.sessionId = session;
    b.state = state;
    b.fx = fx;
    b.fy = fy;
    return b;
}

class BarPress : public ::testing::Test {
protected:
    GS* gs = GS::instance();
    ScopedSetting<int> period{gs->disturbanceCheckMs, 80};
    ScopedSetting<int> topUp{gs->stylusBgTopUpFrames, 0};
    Sensor sensor{"", ""};
    ActivePen pen;
    RecordingEmitter emitter;
    RecordingBarScreen screen;
    const std::vector<EVector> oldBar{{-0.1, -0.1}, {1.1, -0.1}, {1.1, 1.1}, {-0.1, 1.1}};
    Calibration inForce{2, 2, {{0, 0}, {0, 100}, {100, 0}, {100, 100}}, oldBar, 0, 0, 0.0, false, false};
    std::unique_ptr<LumerailCalibration> lrc;
    std::vector<int> statuses;
    int session = 100;

    void SetUp() override
    {
        gs->screenWidth = 1000;
        gs->screenHeight = 800;
        ActivePenContext c;
        c.width = 752;
        c.height = 480;
        c.boxParameter = gs->boxParameter;
        c.windowWidth = 752;
        c.windowHeight = 480;
        c.boxFactor = gs->boxFactor;
        pen.start(nullptr, c);
        pen.setInputMode(StylusCalibration);
        emitter.current = &inForce;
        lrc = std::make_unique<LumerailCalibration>(&screen, &emitter, &sensor);
        QObject::connect(lrc.get(), &Procedure::finished, [this](int s) { statuses.push_back(s); });
        lrc->start(&pen);
        ASSERT_TRUE(settle([&] { return screen.count("loading 0") > 0; }));
    }
    void TearDown() override
    {
        lrc.reset();
        gs->screenWidth = 0;
        gs->screenHeight = 0;
    }

    // Down, held for holdMs, up; the lift's frame still lists the lost spot.
    void press(double fx, double fy, int holdMs, bool outside = false)
    {
        const int id = ++session;
        emitter.frame({spot(fx, fy, id, 0)}, outside);
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(holdMs);
        while (std::chrono::steady_clock::now() < until) {
            QCoreApplication::processEvents();
            emitter.frame({spot(fx, fy, id, 2)}, outside);
            std::this_thread::sleep_for(std::chrono::milliseconds(8));
        }
        QCoreApplication::processEvents();
        emitter.frame({spot(fx, fy, id, 1)}, outside);
        QCoreApplication::processEvents();
    }
    bool ended() { return settle([&] { return !statuses.empty(); }); }
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
    const std::vector<EVector> expect{{-0.1, -0.05}, {1.1, -0.05}, {1.15, 1.1}, {-0.05, 1.125}};
    ASSERT_EQ(inForce.refPoints.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_DOUBLE_EQ(inForce.refPoints[i].x, expect[i].x) << i;
        EXPECT_DOUBLE_EQ(inForce.refPoints[i].y, expect[i].y) << i;
    }
    lrc.reset();
    EXPECT_EQ(inForce.refPoints.size(), 4u) << "the new points outlive the procedure";
    EXPECT_DOUBLE_EQ(inForce.refPoints[0].x, -0.1);
    EXPECT_DOUBLE_EQ(inForce.refPoints[0].y, -0.05);
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
    ASSERT_EQ(inForce.refPoints.size(), 4u);
    EXPECT_DOUBLE_EQ(inForce.refPoints[2].x, 1.1);
}

} // namespace
