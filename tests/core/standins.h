#pragma once
// Procedures and screens for the facade's factory seam that finish, from threads of their
// own as the real ones do, with the statuses a test lines up; a result is put in force
// through the emitter before the finish, as the real procedures do.
#include "calibration.h"
#include "iautocalibration.h"
#include "iautocalibrationui.h"
#include "iblobemitter.h"
#include "idisturbancechecker.h"
#include "ilaseralignment.h"
#include "ilumerailcalibration.h"
#include "ilumerailcalibrationui.h"
#include "imanualcalibration.h"
#include "imanualcalibrationui.h"
#include "ioffsetcorrection.h"
#include "ioffsetcorrectionui.h"
#include "iprocedurefactory.h"
#include "isensorviewer.h"
#include "isensorviewerui.h"

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <random>
#include <thread>

// What the stand-ins do next: per kind a queue of finishing statuses (empty: a random one),
// and how long they take at most.
struct Script {
    std::mutex lock;
    std::deque<int> automatic, manual, bar, alignment;
    int maxDelayMs = 20;
    std::mt19937 random{7};
    // The calibration a procedure leaves behind: a copy of this one.
    const Calibration* result = nullptr;

    int next(std::deque<int>& queue, std::initializer_list<int> choices)
    {
        std::lock_guard hold(lock);
        if (!queue.empty()) {
            const int s = queue.front();
            queue.pop_front();
            return s;
        }
        return *(choices.begin() + random() % choices.size());
    }
    int delayMs()
    {
        std::lock_guard hold(lock);
        return maxDelayMs ? int(random() % maxDelayMs) : 0;
    }
};

// Runs the end of a procedure on a thread of its own, which the procedure keeps and so joins
// when it goes. A procedure is started once.
inline void finishLater(std::jthread& thread, int delayMs, std::function<void()> end)
{
    EXPECT_FALSE(thread.joinable()) << "a procedure was started twice";
    thread = std::jthread([delayMs, end] {
        std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        end();
    });
}

// Calibrations: 1 and -2 leave a new calibration in force, 0 and -3 do not.
template <class Interface>
class StandInCalibration : public Interface {
public:
    StandInCalibration(Script* script, std::deque<int>* queue, IBlobEmitter* emitter, bool setsResult)
        : script(script), queue(queue), emitter(emitter), setsResult(setsResult)
    {
    }
    void begin()
    {
        const int status = script->next(*queue, {1, 0, -2, -3});
        Calibration* made = setsResult && (status == 1 || status == -2) && script->result
            ? new Calibration(*script->result)
            : nullptr;
        finishLater(finisher, script->delayMs(), [this, status, made] {
            if (made)
                emitter->setCalibration(made);
            emit this->finished(status);
        });
    }

private:
    Script* script;
    std::deque<int>* queue;
    IBlobEmitter* emitter;
    bool setsResult;
    std::jthread finisher;
};

class StandInAuto : public StandInCalibration<IAutoCalibration> {
public:
    using StandInCalibration::StandInCalibration;
    void start(IImageSource*, IAutoCalibrationUi*, char*, std::string, int, int, int, int, bool, bool) override
    {
        begin();
    }
};

class StandInManual : public StandInCalibration<IManualCalibration> {
public:
    using StandInCalibration::StandInCalibration;
    void start(ActivePen*, bool) override { begin(); }
};

class StandInBar : public StandInCalibration<ILumerailCalibration> {
public:
    using StandInCalibration::StandInCalibration;
    void start(ActivePen*) override { begin(); }
};

class StandInAlignment : public ILaserAlignment {
public:
    explicit StandInAlignment(Script* script) : script(script) {}
    void start(int) override
    {
        const int status = script->next(script->alignment, {0, -1});
        finishLater(finisher, script->delayMs(), [this, status] { emit finished(status); });
    }

private:
    Script* script;
    std::jthread finisher;
};

// Nothing hears its end, and it stays until the next run: it ends at once.
class StandInOffset : public IOffsetCorrection {
public:
    void start() override { emit finished(); }
};

class StandInViewer : public ISensorViewer {
public:
    explicit StandInViewer(Script* script) : script(script) {}
    void start() override { finishLater(finisher, script->delayMs(), [this] { emit exitted(); }); }

private:
    Script* script;
    std::jthread finisher;
};

// One screen for every procedure; it shows nothing.
class StandInScreen : public IAutoCalibrationUi,
                      public IManualCalibrationUi,
                      public ILumerailCalibrationUi,
                      public IOffsetCorrectionUi,
                      public ISensorViewerUi {
public:
    void showImage(unsigned char*, int, int, int) override {}
    void show(bool, bool) override {}
    void show(bool) override {}
    void showLoading(bool) override {}
    bool isCancelled() override { return false; }
    bool isWindowShown() override { return false; }
    void bringToFront() override {}
    void moveCrosshairTo(int, int, int) override {}
    void sendEventsTo(QObject*, const char*) override {}
    void startTimer() override {}
    void stopTimer() override {}
    void timedout() override {}
    void setTouch(bool) override {}
    void setAcFailed(bool) override {}
    void setLumerailCrossHairNum(int) override {}
    void sendClickEventsTo(QObject*, const char*) override {}
    void showImage(unsigned char*, int, int) override {}
    void printExposure(int) override {}
};

class StandInChecker : public IDisturbanceChecker {
public:
    void newBlob(Blob*, std::vector<Blob*>, unsigned char*) override {}
    void newBlobList(std::vector<Blob*>) override {}
    bool checkIsDisturbanceOnScreen() override { return false; }
    bool checkIsDisturbanceAnywhere() override { return false; }
};

class StandInFactory : public IProcedureFactory {
public:
    Script script;

    IDisturbanceChecker* makeDisturbanceChecker() override { return new StandInChecker(); }
    IAutoCalibrationUi* makeAutoCalibrationUi(const char*) override { return new StandInScreen(); }
    IManualCalibrationUi* makeManualCalibrationUi(const char*) override { return new StandInScreen(); }
    ILumerailCalibrationUi* makeLumerailCalibrationUi(const char*) override { return new StandInScreen(); }
    IOffsetCorrectionUi* makeOffsetCorrectionUi(const char*) override { return new StandInScreen(); }
    ISensorViewerUi* makeSensorViewerUi(const char*) override { return new StandInScreen(); }
    IAutoCalibration* makeAutoCalibration(IDisturbanceChecker*, IBlobEmitter* emitter) override
    {
        return new StandInAuto(&script, &script.automatic, emitter, true);
    }
    IManualCalibration* makeManualCalibration(IManualCalibrationUi*, IBlobEmitter* emitter, Sensor*) override
    {
        return new StandInManual(&script, &script.manual, emitter, true);
    }
    ILumerailCalibration* makeLumerailCalibration(ILumerailCalibrationUi*, IBlobEmitter* emitter, Sensor*) override
    {
        return new StandInBar(&script, &script.bar, emitter, false);
    }
    ILaserAlignment* makeLaserAlignment(IBlobEmitter*, IPointerController*) override
    {
        return new StandInAlignment(&script);
    }
    IOffsetCorrection* makeOffsetCorrection(IOffsetCorrectionUi*, IBlobEmitter*) override
    {
        return new StandInOffset();
    }
    ISensorViewer* makeSensorViewer(ISensorViewerUi*, IImageSource*) override { return new StandInViewer(&script); }
};
