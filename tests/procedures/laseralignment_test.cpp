// The laser alignment through its public face, with a recorded screen, a scripted disturbance
// check and an emitter that owns one calibration: the steps, the auto correction's loop and
// the ways out.
#include "laseralignment.h"

#include "blob.h"
#include "globalsettings.h"
#include "idisturbancechecker.h"
#include "ipointercontroller.h"
#include "procedurestandins.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <deque>
#include <map>

namespace {

using ::testing::Each;
using ::testing::Property;
using ::testing::SizeIs;

class CalibratedEmitter : public RecordingEmitter {
public:
    Calibration calibration{3, 3, {}, {}, 0.1, 0.1, 0.0, false, true};
    std::atomic<int> shiftUpdates{0};
    Calibration* getCalibration() override { return &calibration; }
    void updateShiftCorrection() override { ++shiftUpdates; }
};

class QuietPointer : public IPointerController {
public:
    void handleDown(EVector, int) override {}
    void handleMove(EVector, int) override {}
    void handleUp(EVector, int) override {}
};

class ScriptedChecker : public IDisturbanceChecker {
public:
    std::mutex lock;
    std::deque<bool> verdicts; // one per check; none left: no light
    void newBlob(Blob*, std::vector<Blob*>, unsigned char*) override {}
    void newBlobList(std::vector<Blob*>) override {}
    bool checkIsDisturbanceOnScreen() override
    {
        std::lock_guard hold(lock);
        const bool v = !verdicts.empty() && verdicts.front();
        if (!verdicts.empty())
            verdicts.pop_front();
        return v;
    }
    bool checkIsDisturbanceAnywhere() override { return checkIsDisturbanceOnScreen(); }
};

class RecordingLaserScreen : public ILaserAlignUi {
public:
    std::mutex lock;
    std::vector<EVector> dots;
    std::vector<int> active;
    std::map<int, int> accuracy;
    std::vector<int> states;
    bool retryView = false;
    QObject* target = nullptr;

    // f under the lock, against the procedure's thread.
    template <typename F> auto locked(F f)
    {
        std::lock_guard hold(lock);
        return f();
    }
    void show(bool) override {}
    void showLoading(bool) override {}
    void sendEventsTo(QObject* object, const char*) override { target = object; }
    void stopEventsTo(QObject*) override {}
    void showLaserAlignDots(const std::vector<EVector>& p) override { locked([&] { dots = p; accuracy.clear(); }); }
    void showActiveLaserAlignDots(const std::vector<int>& d) override { locked([&] { active = d; }); }
    void setDotVisible(int, bool) override {}
    void showLaserAlignInfo(int, DotInfoType) override {}
    void setCustomAccuracyText(int, const QString&) override {}
    void showHandOnDot(int, bool) override {}
    void setLaserAlignAccuracy(int a, int dot) override { locked([&] { accuracy[dot] = a; }); }
    void setLaserAlignDebugPoint(EVector, double, double, double, double, int) override {}
    void setLaserAlignAccuracyThreshold(int) override {}
    void showAlignState(AlignState s) override { locked([&] { states.push_back(static_cast<int>(s)); }); }
    void showLaserAlignRetryCancelView(bool on) override { locked([&] { retryView = on; }); }

    // An event of the screen, delivered on the main thread as the screen does.
    void send(int id) { QMetaObject::invokeMethod(target, "onUiEvent", Q_ARG(int, id)); }
};

class LaserAlignmentTest : public ::testing::Test {
public:
    CalibratedEmitter emitter;
    QuietPointer pointer;
    RecordingLaserScreen* screen = new RecordingLaserScreen();
    ScriptedChecker* checker = new ScriptedChecker();
    std::unique_ptr<LaserAlignment> la;
    std::atomic<int> status{99};
    std::atomic<int> endings{0};
    GS* gs = GS::instance();

protected:
    void SetUp() override
    {
        // A tolerance of 100 pixels: dots at (140|700|1260, 70|350|630).
        gs->screenWidth = 1400;
        gs->screenHeight = 700;
        gs->stylusBgTopUpFrames = 5;
        emitter.calibration.shifts.assign(9, EVector(3, 3));
        la = std::make_unique<LaserAlignment>(&emitter, &pointer, screen, checker);
        QObject::connect(la.get(), &Procedure::finished, [this](int s) {
            status = s;
            ++endings;
        });
    }

public:
    void start(int step, std::deque<bool> verdicts = {})
    {
        checker->verdicts = std::move(verdicts);
        la->start(step);
    }

    // One frame with a finger reported at each point.
    void frame(const std::vector<EVector>& at)
    {
        std::vector<Blob> blobs;
        for (const EVector& p : at) {
            blobs.push_back(spot(p.x / 2, p.y / 2, p.x, p.y));
            blobs.back().size = 12;
        }
        emitter.frame(blobs);
    }
    EVector dot(int i) { return screen->locked([&] { return screen->dots.at(size_t(i)); }); }
    double shift(int d) { return emitter.calibration.shifts.at(size_t(d)).length(); }
    int lastState() { return screen->locked([&] { return screen->states.empty() ? -1 : screen->states.back(); }); }
    int accuracy(int d) { return screen->locked([&] { return screen->accuracy[d]; }); }
    bool retryView() { return screen->locked([&] { return screen->retryView; }); }
    std::vector<int> active() { return screen->locked([&] { return screen->active; }); }
};

TEST_F(LaserAlignmentTest, AutoCorrectionMovesEachShiftUntilTheFingerMeetsItsDotThenEnds)
{
    start(1);
    ASSERT_THAT(emitter.calibration.shifts, SizeIs(9));
    EXPECT_THAT(emitter.calibration.shifts, Each(Property(&EVector::length, 0.0))) << "shifts learnt afresh";
    EXPECT_FALSE(pointer.enabled);
    EXPECT_EQ(gs->stylusBgTopUpFrames, 0);
    ASSERT_EQ(lastState(), 0);
    ASSERT_EQ(active().size(), 9u);

    // The finger is seen 12 right and 9 above its touch; a shift of 1 moves it 20 pixels.
    for (int d = 0; d < 9; ++d) {
        int frames = 0;
        for (; frames < 200 && accuracy(d) != 100; ++frames) {
            const EVector s = emitter.calibration.shifts[size_t(d)];
            frame({EVector(dot(d).x + 12 + 20 * s.x, dot(d).y - 9 + 20 * s.y)});
        }
        const EVector s = emitter.calibration.shifts[size_t(d)];
        EXPECT_LE(std::hypot(12 + 20 * s.x, -9 + 20 * s.y), 1.0 + 1e-9) << "dot " << d << " after " << frames << " frames";
    }
    ASSERT_TRUE(waitFor([&] { return endings > 0; }));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(emitter.calibration.extras, std::vector<double>(9, 0.0));
    EXPECT_EQ(gs->stylusBgTopUpFrames, 5) << "restored";
    la.reset();
    EXPECT_TRUE(pointer.enabled);
}

// Each case starts at a step with the disturbance check's verdicts and acts and checks in its body.
struct Case {
    const char* name;
    int firstStep;
    std::deque<bool> verdicts;
    std::function<void(LaserAlignmentTest&)> body;
};

class LaserAlignmentCases : public LaserAlignmentTest, public ::testing::WithParamInterface<Case> {};

TEST_P(LaserAlignmentCases, Behaves)
{
    start(GetParam().firstStep, GetParam().verdicts);
    GetParam().body(*this);
}

const double tolerance = 100.0;

INSTANTIATE_TEST_SUITE_P(
    EdgeCases, LaserAlignmentCases,
    ::testing::Values(
        Case{"ExitInVerticalLeavesEarly", -1, {},
             [](LaserAlignmentTest& t) {
                 t.screen->send(5000);
                 EXPECT_EQ(t.status, -1);
                 EXPECT_EQ(t.gs->stylusBgTopUpFrames, 5);
                 t.screen->send(1);
                 EXPECT_EQ(t.endings, 1) << "finished once";
             }},
        Case{"VerticalThenHorizontalByContinue", -1, {},
             [](LaserAlignmentTest& t) {
                 EXPECT_EQ(t.lastState(), 2);
                 EXPECT_EQ(t.active(), std::vector<int>{5});
                 t.screen->send(5004);
                 EXPECT_EQ(t.lastState(), 1);
                 EXPECT_EQ(t.active(), std::vector<int>{2});
                 EXPECT_NEAR(t.dot(2).y, 700 - 700 / 3.0, 1) << "horizontal layout";
             }},
        Case{"CloseMovesTheOuterRowsInward", -1, {},
             [](LaserAlignmentTest& t) {
                 t.screen->send(6003);
                 EXPECT_NEAR(t.dot(0).y, 700 / 3.0, 1);
                 EXPECT_EQ(t.active(), std::vector<int>{5});
             }},
        Case{"UnevenSurfaceMovesTheTargetOffTheDot", -1, {},
             [](LaserAlignmentTest& t) {
                 // Exactly on the target of an uneven surface, 0.022 of the height off the dot.
                 t.screen->send(6006);
                 t.frame({EVector(t.dot(5).x, t.dot(5).y - 700 * 0.022)});
                 EXPECT_EQ(t.accuracy(5), 100);
             }},
        Case{"AtTheToleranceNothingHappens", 1, {},
             [](LaserAlignmentTest& t) {
                 t.frame({EVector(t.dot(4).x + tolerance, t.dot(4).y)});
                 EXPECT_EQ(t.shift(4), 0.0);
                 EXPECT_EQ(t.screen->locked([&] { return t.screen->accuracy.count(4); }), 0u);
             }},
        Case{"RawOf98Point2PassesAThresholdOf99", 1, {},
             [](LaserAlignmentTest& t) {
                 // Two fingers on the dot: the second finds it done and moves nothing.
                 t.frame({EVector(t.dot(4).x + 1.8, t.dot(4).y), EVector(t.dot(4).x + 3, t.dot(4).y)});
                 EXPECT_EQ(t.accuracy(4), 100);
                 EXPECT_EQ(t.active().size(), 9u) << "the screen keeps its dots; the procedure's list shrank";
                 EXPECT_EQ(t.shift(4), 0.0);
             }},
        Case{"LightAtTheStartShowsRetryWhichGoesToVertical", 1, {true},
             [](LaserAlignmentTest& t) {
                 EXPECT_TRUE(t.retryView());
                 t.frame({t.dot(4)});
                 EXPECT_EQ(t.emitter.shiftUpdates, 1) << "no dot takes a finger behind the retry view";
                 t.screen->send(5011);
                 EXPECT_FALSE(t.retryView());
                 EXPECT_EQ(t.lastState(), 2);
                 EXPECT_EQ(t.active(), std::vector<int>{5});
             }},
        Case{"LightAtTheFinalCheckThenCancelIsDone", 1, {false, true},
             [](LaserAlignmentTest& t) {
                 for (int d = 0; d < 9; ++d)
                     t.frame({t.dot(d)});
                 ASSERT_TRUE(waitFor([&] { return t.retryView(); }));
                 t.screen->send(5000);
                 ASSERT_TRUE(waitFor([&] { return t.endings > 0; }));
                 EXPECT_EQ(t.status, 0);
                 EXPECT_EQ(t.gs->stylusBgTopUpFrames, 5);
             }}),
    [](const ::testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

} // namespace
