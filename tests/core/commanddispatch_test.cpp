// What each command of the menu does to the running system, on the emulated sensor with
// stand-in procedures: the statuses written in order, the answer, and the state it leaves.
#include "emulatedfacade.h"
#include "multipointercontroller.h"
#include "sensor.h"

#include <QFile>
#include <QThread>

#include <atomic>
#include <memory>
#include <thread>
#include <tuple>

namespace {

// The calibrations by their column count.
constexpr int Finger = 7, Stylus = 5, Result = 6, None = 0;

int columnsOf(const std::string& path)
{
    if (!Calibration::exists(path.c_str()))
        return None;
    const std::unique_ptr<Calibration> c(Calibration::read(path.c_str()));
    return c ? c->cols : -1;
}

class Dispatch : public ::testing::Test {
protected:
    EmulatedFacade* facade = EmulatedFacade::startOnce();
    GS* gs = GS::instance();

    // Both calibrations from their files (or none), the mode, and the rest as in operation.
    void arrange(int mode, bool withCalibrations)
    {
        facade->onIpcMessageReceived(16);
        if (withCalibrations) {
            QFile::copy(QString::fromStdString(EmulatedFacade::calibrationFile(Finger)),
                        QString::fromStdString(gs->fingerCalibrationPath));
            QFile::copy(QString::fromStdString(EmulatedFacade::calibrationFile(Stylus)),
                        QString::fromStdString(gs->stylusCalibrationPath));
            facade->fingerCalibration = Calibration::read(gs->fingerCalibrationPath.c_str());
            facade->stylusCalibration = Calibration::read(gs->stylusCalibrationPath.c_str());
        }
        gs->inputMode = mode;
        facade->activePen->setInputMode(mode);
        // What the courses look at is the calibration the facade holds; the engines keep theirs.
        facade->processing = withCalibrations;
        if (facade->laserOn() != (mode == 0))
            facade->sensor->setLaser(mode == 0);
        const int exposure = mode == 0 ? gs->fingerExposure : gs->stylusExposure;
        if (facade->getExposure() != exposure)
            facade->setExposure(exposure);
        facade->calibrating = false;
        facade->notCalibratedFlip = false;
        facade->pointerController->enabled = true;
        facade->paused = false;
        delete facade->factory.script.result;
        facade->factory.script.result = Calibration::read(EmulatedFacade::calibrationFile(Result).c_str());
        facade->settle(50);
        QFile::remove(gs->answerFilePath);
        EmulatedFacade::clearStatuses();
    }

    bool answered() const { return QFile::exists(gs->answerFilePath); }
    int activeColumns() const
    {
        Calibration* c = facade->getCalibration();
        return c ? c->cols : None;
    }
    static QStringList userSettings()
    {
        QFile f(QString::fromStdString(GS::instance()->userSettingsPath));
        f.open(QIODevice::ReadOnly);
        return QString::fromLatin1(f.readAll()).split('\n');
    }
};

// One course of the calibration commands: where it starts, how the stand-ins finish, and
// what must be true at its end.
struct Course {
    const char* name;
    int mode;
    bool calibrated;
    int id;
    std::vector<int> automatic, manual, bar;
    std::vector<int> statuses;  // the mode and its exposure stay as they were
    int laser;         // 1 on, 0 off, -1 not looked at
    bool enabled;
    bool calibrating;  // still set at the end
    int active;        // columns of the calibration in force
    int fingerFile, stylusFile;
};

const Course courses[] = {
    // name, mode, calibrated, id, auto, manual, bar, statuses, laser, enabled, calibrating, active,
    // finger file, stylus file
    {"ManualStylusDone", 1, true, 0, {}, {1}, {}, {-11, 0}, 0, true, false, Result, Finger, Result},
    {"ManualStylusNoResult", 1, true, 0, {}, {0}, {}, {-11, -4}, 0, true, false, Stylus, Finger, Stylus},
    {"ManualStylusDisturbance", 1, true, 0, {}, {-2}, {}, {-11, -2, -2}, 0, false, false, Result, Finger, Result},
    {"ManualStylusCancelled", 1, true, 0, {}, {-3}, {}, {-11, -3, -3}, 0, true, false, Stylus, Finger, Stylus},
    {"ManualStylusCancelledUncalibrated", 1, false, 0, {}, {-3}, {}, {-11, -3, -6}, -1, false, false, None, None, None},
    // In finger mode the automatic calibration comes first; a good one is refined by hand.
    {"ManualFingerAutoDoneManualDone", 0, true, 0, {1}, {1}, {}, {-11, -11, -11, 0}, 1, true, false, Result, Result,
     Result},
    {"ManualFingerAutoDoneManualNoResult", 0, true, 0, {1}, {0}, {}, {-11, -11, -11, -4}, 1, true, false, Result, None,
     Result},
    {"ManualFingerAutoDoneManualDisturbance", 0, true, 0, {1}, {-2}, {}, {-11, -11, -11, -2, -2}, 1, false, false,
     Result, Result, Result},
    {"ManualFingerAutoDoneManualSkipped", 0, true, 0, {1}, {-3}, {}, {-11, -11, -11, -3, 0}, 1, true, false, Result,
     None, Result},
    // A failed automatic calibration falls back to a stylus calibration by hand, then the finger's.
    {"ManualFingerAutoFailsFallbackDoneFingerDone", 0, true, 0, {0}, {1, 1}, {}, {-11, -11, -11, -11, 0}, 1, true,
     false, Result, Result, Result},
    {"ManualFingerAutoFailsFallbackDoneFingerSkipped", 0, true, 0, {0}, {1, -3}, {}, {-11, -11, -11, -11, -3, 0}, 1,
     true, false, Finger, Finger, Result},
    {"ManualFingerAutoFailsFallbackNoResult", 0, true, 0, {0}, {0}, {}, {-11, -11, -11, -4}, 1, true, false, Finger,
     Finger, Stylus},
    {"ManualFingerAutoFailsFallbackDisturbance", 0, true, 0, {0}, {-2}, {}, {-11, -11, -11, -2, -2}, 1, false, false,
     Finger, Finger, Result},
    {"ManualFingerAutoFailsFallbackCancelled", 0, true, 0, {0}, {-3}, {}, {-11, -11, -11, -3, -3}, 1, true, false,
     Finger, Finger, Stylus},
    {"ManualFingerAutoDisturbanceFallbackCancelled", 0, true, 0, {-2}, {-3}, {}, {-11, -11, -11, -3, -3}, 1, true,
     false, Result, None, Result},
    // Cancelling the automatic step of a manual request leaves the sequence as it stands: the
    // laser stays off and a further calibration command is not taken.
    {"ManualFingerAutoCancelled", 0, true, 0, {-3}, {}, {}, {-11, -11, -3}, 0, true, true, Finger, Finger, Stylus},
    {"AutoFingerDone", 0, true, 1, {1}, {}, {}, {-11, 0}, 1, true, false, Finger, Finger, Result},
    {"AutoFingerFails", 0, true, 1, {0}, {}, {}, {-11, -4}, 1, true, false, Finger, Finger, Stylus},
    {"AutoFingerDisturbance", 0, true, 1, {-2}, {}, {}, {-11, -2, -2}, 1, false, false, Finger, Finger, Result},
    {"AutoFingerCancelled", 0, true, 1, {-3}, {}, {}, {-11, -3, -3}, 1, true, false, Finger, Finger, Stylus},
    {"AutoStylusDone", 1, true, 12, {1}, {}, {}, {-11, 0}, 0, true, false, Result, Finger, Result},
    {"BarDone", 1, true, 21, {}, {}, {1}, {-11, 0}, 0, true, false, Stylus, Finger, Stylus},
    {"BarNoResult", 1, true, 21, {}, {}, {0}, {-11, -4}, 0, true, false, Stylus, Finger, Stylus},
    {"BarDisturbance", 1, true, 21, {}, {}, {-2}, {-11, -2, -2}, 0, true, false, Stylus, Finger, Stylus},
    {"BarCancelled", 1, true, 21, {}, {}, {-3}, {-11, -3, -3}, 0, true, false, Stylus, Finger, Stylus},
};

class Calibrating : public Dispatch, public ::testing::WithParamInterface<Course> {};

TEST_P(Calibrating, EndsAsTheSequenceSays)
{
    const Course& c = GetParam();
    arrange(c.mode, c.calibrated);
    Script& script = facade->factory.script;
    script.automatic.assign(c.automatic.begin(), c.automatic.end());
    script.manual.assign(c.manual.begin(), c.manual.end());
    script.bar.assign(c.bar.begin(), c.bar.end());

    facade->onIpcMessageReceived(c.id);
    facade->settle();

    EXPECT_EQ(EmulatedFacade::statuses(), c.statuses);
    EXPECT_TRUE(answered());
    EXPECT_TRUE(script.automatic.empty() && script.manual.empty() && script.bar.empty()) << "a procedure never ran";
    if (c.laser >= 0) {
        EXPECT_EQ(facade->laserOn(), c.laser == 1);
    }
    // Mode, exposure, output, processing, calibrating, and the calibrations in force and in the files.
    EXPECT_EQ(std::tuple(facade->activePen->inputMode.load(), facade->getExposure(),
                         facade->pointerController->enabled.load(), facade->processing.load(),
                         facade->calibrating.load(), activeColumns(), columnsOf(gs->fingerCalibrationPath),
                         columnsOf(gs->stylusCalibrationPath)),
              std::tuple(c.mode, c.mode == 0 ? gs->fingerExposure : gs->stylusExposure, c.enabled, true, c.calibrating,
                         c.active, c.fingerFile, c.stylusFile));
    EXPECT_FALSE(facade->acBeforeMc || facade->mcFallback || facade->mcAfterAc || facade->mcIsTouch);
}

INSTANTIATE_TEST_SUITE_P(Courses, Calibrating, ::testing::ValuesIn(courses),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(Dispatch, ACalibrationCommandWhileOneRunsIsIgnoredWithoutAnAnswer)
{
    arrange(1, true);
    Script& script = facade->factory.script;
    script.maxDelayMs = 300;
    script.manual = {1};
    facade->onIpcMessageReceived(0);
    for (int id : {0, 1, 11, 12}) {
        facade->onIpcMessageReceived(id);
        EXPECT_FALSE(answered()) << id;
    }
    facade->settle();
    script.maxDelayMs = 20;
    EXPECT_EQ(EmulatedFacade::statuses(), (std::vector<int>{-11, 0}));
    EXPECT_TRUE(script.automatic.empty() && script.manual.empty());
}

TEST_F(Dispatch, RefusalsAlternateBetweenTheirTwoStatusesEachWithAnAnswer)
{
    arrange(1, false);
    for (int id : {21, 24, 21}) {
        QFile::remove(gs->answerFilePath);
        facade->onIpcMessageReceived(id);
        EXPECT_TRUE(answered()) << id;
    }
    EXPECT_EQ(EmulatedFacade::statuses(), (std::vector<int>{-14, -6, -14}));
}

TEST_F(Dispatch, ResetDeletesASharedCalibrationOnceAndBothFiles)
{
    arrange(1, true);
    delete facade->fingerCalibration;
    facade->fingerCalibration = facade->stylusCalibration;
    facade->onIpcMessageReceived(16);
    EXPECT_EQ(std::tuple(answered(), facade->fingerCalibration, facade->stylusCalibration, facade->processing.load(),
                         columnsOf(gs->fingerCalibrationPath), columnsOf(gs->stylusCalibrationPath)),
              std::tuple(true, nullptr, nullptr, false, None, None));
}

TEST_F(Dispatch, PauseFlipsWithAnAnswerAndANewCalibrationClearsIt)
{
    arrange(1, true);
    facade->onIpcMessageReceived(17);
    EXPECT_EQ(std::tuple(facade->paused.load(), answered()), std::tuple(true, true));
    facade->onIpcMessageReceived(17);
    EXPECT_FALSE(facade->paused);
    facade->onIpcMessageReceived(17);
    facade->setCalibration(Calibration::read(EmulatedFacade::calibrationFile(Result).c_str()));
    EXPECT_FALSE(facade->paused);
    EXPECT_TRUE(EmulatedFacade::statuses().empty());
}

// Commands that change a setting or a device output and answer (or not), with the statuses
// they write.
TEST_F(Dispatch, SettingCommandsDoTheirOneThing)
{
    arrange(1, true);
    const struct {
        int id;
        bool answers;
        std::function<bool()> done;
        std::vector<int> statuses = {};
    } table[] = {
        {22, false, [&] { return gs->pointerMode == 0 && userSettings().value(3) == "0"; }},
        {23, false, [&] { return gs->pointerMode == 1 && userSettings().value(3) == "1"; }},
        {100, true, [&] { return gs->profile == 1 && userSettings().value(1) == "1"; }},
        {101, true, [&] { return gs->profile == 0 && userSettings().value(1) == "0"; }},
        {103, true, [&] { return facade->laserOn(); }},
        {102, true, [&] { return !facade->laserOn(); }},
        {8, true, [] { return true; }},
        {9, true, [] { return true; }},
        // Quitting turns the laser off.
        {103, true, [&] { return facade->laserOn(); }},
        {25, true, [&] { return !facade->laserOn(); }},
        // A left-over command is answered with its status only.
        {1000, true, [&] { return facade->activePen->inputMode == 1; }, {-13}},
    };
    for (const auto& s : table) {
        QFile::remove(gs->answerFilePath);
        EmulatedFacade::clearStatuses();
        facade->onIpcMessageReceived(s.id);
        EXPECT_TRUE(s.done()) << s.id;
        EXPECT_EQ(answered(), s.answers) << s.id;
        EXPECT_EQ(EmulatedFacade::statuses(), s.statuses) << s.id;
    }
    // Ids no byte gives any more do nothing at all.
    QFile::remove(gs->answerFilePath);
    EmulatedFacade::clearStatuses();
    for (int id : {7, 10, 13, 14, 15, 104, 105, 106, 107, 108, 109, 110, 111, 112})
        facade->onIpcMessageReceived(id);
    EXPECT_FALSE(answered());
    EXPECT_TRUE(EmulatedFacade::statuses().empty());
}

TEST_F(Dispatch, AModeChangeLoadsThatModesCalibrationAndAnswers)
{
    arrange(1, true);
    facade->onIpcMessageReceived(4);
    // It ends on a worker thread, which takes its time in the slower builds.
    for (int i = 0; i < 12000 && !answered(); ++i) {
        QCoreApplication::processEvents();
        QThread::msleep(5);
    }
    facade->settle(50);
    EXPECT_EQ(std::tuple(answered(), EmulatedFacade::statuses(), activeColumns(), facade->laserOn(),
                         facade->getExposure(), userSettings().value(0)),
              std::tuple(true, std::vector<int>{0}, Finger, true, gs->fingerExposure, "0"));
    EXPECT_EQ(facade->autoCalibrationUi.load(), nullptr) << "the waiting screen is disposed of";
}

TEST_F(Dispatch, LaserAlignmentNeedsAFingerCalibrationAndAnswersAtItsEnd)
{
    arrange(0, false);
    facade->onIpcMessageReceived(2);
    EXPECT_EQ(std::tuple(answered(), EmulatedFacade::statuses()), std::tuple(true, std::vector<int>{-5}));

    for (int status : {0, -1}) {
        arrange(0, true);
        QFile::remove(gs->stylusCalibrationPath.c_str());
        facade->factory.script.alignment = {status};
        facade->onIpcMessageReceived(2);
        facade->settle();
        // The shifts it found are kept with the stylus calibration.
        EXPECT_EQ(std::tuple(answered(), columnsOf(gs->stylusCalibrationPath), EmulatedFacade::statuses(),
                             facade->laserAlignment),
                  std::tuple(true, Stylus, status == -1 ? std::vector<int>{-3} : std::vector<int>{}, nullptr))
            << status;
    }
}

TEST_F(Dispatch, TheViewerStopsTheOutputAndPutsItBackWhenClosed)
{
    arrange(1, true);
    facade->onIpcMessageReceived(5);
    EXPECT_EQ(std::tuple(facade->pointerController->enabled.load(), facade->processing.load()),
              std::tuple(false, false));
    facade->settle();
    EXPECT_EQ(std::tuple(answered(), facade->pointerController->enabled.load(), facade->processing.load(),
                         facade->sensorViewer),
              std::tuple(true, true, true, nullptr));
}

// The filter swings back while the grids are built; the engines see no frame of its swing.
TEST_F(Dispatch, ANewCalibrationLetsNoFrameInWhileTheFilterSwingsBack)
{
    arrange(1, true);
    facade->onIpcMessageReceived(6);
    ASSERT_EQ(facade->sensor->filterPosition, 1);
    std::atomic<bool> done{false};
    std::atomic<int> swinging{0}, framesLetIn{0};
    // A pulse holds the sensor's filter lock for as long as it runs. Frames count as let in
    // only when they were before and after the lock was seen held.
    std::thread watcher([&] {
        while (!done) {
            const bool before = facade->processing;
            if (!facade->sensor->filterLock.try_lock()) {
                ++swinging;
                if (before && facade->processing)
                    ++framesLetIn;
            } else {
                facade->sensor->filterLock.unlock();
            }
            std::this_thread::sleep_for(std::chrono::microseconds(500));
        }
    });
    EXPECT_TRUE(facade->setCalibration(facade->stylusCalibration));
    done = true;
    watcher.join();
    EXPECT_GT(swinging, 0) << "the pulse was seen";
    EXPECT_EQ(framesLetIn, 0);
    EXPECT_EQ(facade->sensor->filterPosition, 0);
    EXPECT_TRUE(facade->processing);
    facade->filterSwitched = false;
}

TEST_F(Dispatch, OffsetCorrectionStartsWithoutAnAnswerAndResetsTheOffsetsOnlyAfterACalibration)
{
    arrange(1, true);
    gs->offsetLeft = 0.5;
    facade->onIpcMessageReceived(24);
    facade->settle();
    EXPECT_EQ(EmulatedFacade::statuses(), (std::vector<int>{-11, 0}));
    EXPECT_FALSE(answered());
    EXPECT_EQ(gs->offsetLeft, 0.5);
    facade->factory.script.manual = {1};
    facade->onIpcMessageReceived(0);
    facade->settle();
    EXPECT_EQ(gs->offsetLeft, 1.0);
    EXPECT_EQ(userSettings().value(5), "1");
}

} // namespace
