#pragma once
// The facade started once per test process on the emulated sensor, with the stand-in
// procedures behind its factory and its touch output into a pipe; the statuses it writes
// are collected from its log, in order.
#include "activepen.h"
#include "blobfacade.h"
#include "calibration.h"
#include "devicepipe.h"
#include "globalsettings.h"
#include "standins.h"
#include "touchcontroller.h"

#include <QCoreApplication>
#include <QDir>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

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
        std::lock_guard hold(logLock);
        return written;
    }
    static void clearStatuses()
    {
        std::lock_guard hold(logLock);
        written.clear();
    }

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
    static inline std::mutex logLock;
    static inline std::vector<int> written;

    static EmulatedFacade* make()
    {
        // Kept for good: the handler may still be called while the process ends.
        static const auto* status = new QRegularExpression(R"(writing into.*Result=(-?\d+))");
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString& text) {
            const auto m = status->match(text);
            if (m.hasMatch()) {
                std::lock_guard hold(logLock);
                written.push_back(m.captured(1).toInt());
            }
        });
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
