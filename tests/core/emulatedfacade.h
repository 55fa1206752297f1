#pragma once
// The facade started once per test process on the emulated sensor, with stand-in procedures
// behind its factory and its touch output into a pipe; the statuses it writes are collected
// from its log, in order.
#include "activepen.h"
#include "blobfacade.h"
#include "calibration.h"
#include "devicepipe.h"
#include "globalsettings.h"
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
#include "messagelog.h"
#include "touchcontroller.h"

#include <QCoreApplication>
#include <QDir>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <fstream>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

// The stand-ins behind the factory finish, from threads of their own as the real procedures
// do, with the statuses a test lines up; a result is put in force through the emitter before
// the finish, as the real procedures do.

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

class EmulatedFacade : public BlobFacade {
public:
    DevicePipe device;
    StandInFactory factory;
    std::string dir;

    EmulatedFacade(int argc, char** argv) : BlobFacade(argc, argv) { procedureFactory = &factory; }

    // Calibrations of 7, 5 and 6 columns, told apart by that: the finger's, the stylus's, and
    // what the procedures leave.
    static std::string calibrationFile(int cols) { return std::string(tmp()) + "/cal" + std::to_string(cols) + ".ini"; }

    static EmulatedFacade* startOnce()
    {
        static EmulatedFacade* facade = make();
        return facade;
    }

    static std::vector<int> statuses()
    {
        static const QRegularExpression status(R"(writing into.*Result=(-?\d+))");
        std::vector<int> out;
        for (const std::string& line : messages()->lines())
            if (const auto m = status.match(QString::fromStdString(line)); m.hasMatch())
                out.push_back(m.captured(1).toInt());
        return out;
    }
    static void clearStatuses() { messages()->clear(); }

    // Handles events until no procedure has run for quietMs of rounds of events: a slot that
    // takes long does not count as quiet, so what it arranged for later runs too.
    void settle(int quietMs = 300)
    {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        int idleRounds = 0;
        while (std::chrono::steady_clock::now() < limit) {
            QCoreApplication::processEvents();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            if (autoCalibration || manualCalibration || lumerailCalibration || sensorViewer)
                idleRounds = 0;
            else if (++idleRounds * 5 >= quietMs)
                return;
        }
        ADD_FAILURE() << "the facade never settled";
    }

    // The laser as the device saw it last: register 27, 0 is on.
    bool laserOn() const
    {
        std::ifstream in(dir + "/log.txt");
        int value = -1;
        for (std::string line; std::getline(in, line);) {
            const auto at = line.find(" reg 27 ");
            if (at != std::string::npos)
                value = std::stoi(line.substr(at + 8));
        }
        return value == 0;
    }

protected:
    IPointerController* createPrimaryController() override { return new TouchController(device.makeTouch()); }

private:
    static const char* tmp()
    {
        const char* t = std::getenv("TMPDIR");
        return t ? t : "/tmp";
    }
    // Kept for good: the log may still be written to while the process ends.
    static MessageLog* messages()
    {
        static auto* log = new MessageLog();
        return log;
    }

    static EmulatedFacade* make()
    {
        messages(); // collected from the start on
        const std::string dir = tmp();
        std::ofstream(dir + "/scene.txt") << "screen 1920 1080\nlens factory\n";
        const std::string tool =
            std::string(VELORA_BINARY).substr(0, std::string(VELORA_BINARY).rfind('/')) + "/velora-scene-calibration";
        for (int cols : {7, 5, 6})
            EXPECT_EQ(std::system((tool + " " + dir + "/scene.txt " + calibrationFile(cols) + " " + std::to_string(cols))
                                      .c_str()),
                      0);
        setenv("VELORA_EMU_SCENE", (dir + "/scene.txt").c_str(), 1);
        setenv("VELORA_EMU_LOG", (dir + "/log.txt").c_str(), 1);
        // The factory files are found beside the program, as the service finds its own.
        EXPECT_EQ(chdir(QCoreApplication::applicationDirPath().toLocal8Bit().constData()), 0);
        static char name[] = "velora", verbose[] = "-v";
        char* argv[] = {name, verbose, nullptr};
        auto* facade = new EmulatedFacade(2, argv);
        facade->dir = dir;
        GS* gs = GS::instance();
        gs->screenWidth = 1920;
        gs->screenHeight = 1080;
        QDir().mkpath(QString::fromStdString(gs->fingerCalibrationPath).section('/', 0, -2));
        EXPECT_TRUE(facade->start());
        uinput_user_dev record;
        EXPECT_TRUE(facade->device.readRecord(&record));
        facade->settle();
        return facade;
    }
};
