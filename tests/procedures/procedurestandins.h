#pragma once
// What a procedure talks to, recorded: the emitter's listeners and calibrations, and the
// calls made on a calibration's screen, from whatever thread makes them; and the set-up of
// a procedure driven by pen presses.
#include "activepen.h"
#include "calibration.h"
#include "eventwait.h"
#include "globalsettings.h"
#include "iblobemitter.h"
#include "ibloblistener.h"
#include "imanualcalibrationui.h"
#include "procedure.h"
#include "scopedsetting.h"
#include "sensor.h"

#include <QCoreApplication>
#include <QObject>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class RecordingEmitter : public IBlobEmitter {
public:
    void addBlobListener(IBlobListener* l) override
    {
        std::lock_guard hold(lock);
        if (std::find(listeners.begin(), listeners.end(), l) == listeners.end())
            listeners.push_back(l);
    }
    void removeBlobListener(IBlobListener* l) override
    {
        std::lock_guard hold(lock);
        listeners.erase(std::remove(listeners.begin(), listeners.end(), l), listeners.end());
    }
    void resetBackgroundTable() override {}
    bool setCalibration(Calibration* c) override
    {
        std::lock_guard hold(lock);
        // The one in force stays the test's; a new one becomes the emitter's.
        if (c && c == current)
            currentSet++;
        else
            calibrations.emplace_back(c);
        return c != nullptr;
    }
    void updateLumerailCalibration() override {}
    Calibration* getCalibration() override { return current; }
    void setProcessing(bool) override {}
    void emulateBlob(int x, int y) override
    {
        if (desktop)
            desktop(x, y);
    }
    void updateShiftCorrection() override {}

    // The calibration in force, not owned; and what a touch at a screen point does, if anything.
    Calibration* current = nullptr;
    std::atomic<int> currentSet{0};
    std::function<void(int, int)> desktop;

    // One frame to every listener, as the facade's frame thread gives it: blob by blob, then the
    // list; outside, through the calls for what lies beyond the screen.
    void frame(std::vector<Blob> blobs, bool outside = false)
    {
        const std::vector<IBlobListener*> now = [this] {
            std::lock_guard hold(lock);
            return listeners;
        }();
        std::vector<Blob*> all;
        for (Blob& b : blobs)
            all.push_back(&b);
        for (IBlobListener* l : now) {
            for (Blob* b : all)
                outside ? l->newOutsideBlob(b, all, nullptr) : l->newBlob(b, all, nullptr);
            outside ? l->newOutsideBlobList(all) : l->newBlobList(all);
        }
    }
    size_t calibrationCount()
    {
        std::lock_guard hold(lock);
        return calibrations.size();
    }
    std::vector<EVector> lastSource()
    {
        std::lock_guard hold(lock);
        return calibrations.empty() ? std::vector<EVector>() : calibrations.back()->srcPoints;
    }

private:
    std::mutex lock;
    std::vector<IBlobListener*> listeners;
    std::vector<std::unique_ptr<Calibration>> calibrations;
};

// "1onUiEvent(int)" as SLOT() writes it: the method's name lies between code and bracket.
inline std::string slotMethod(const char* slot)
{
    const std::string s(slot);
    return s.substr(1, s.find('(') - 1);
}

// A spot seen at sensor position (x, y) and screen position (fx, fy).
inline Blob spot(double x, double y, double fx, double fy, int session = 0, int state = 0)
{
    Blob b(x, y, 5, 5, 0);
    b.sessionId = session;
    b.state = state;
    b.fx = fx;
    b.fy = fy;
    return b;
}

// The calls a press-driven procedure's screen gets, and its key and mouse events, which the
// screen delivers on the main thread.
template <typename Ui> class RecordingScreen : public Ui {
public:
    void show(bool visible, bool withLoading) override { note(std::string("show ") + on(visible) + on(withLoading)); }
    void showLoading(bool o) override { note(std::string("loading ") + on(o)); }
    void sendEventsTo(QObject* object, const char* slot) override
    {
        target = object;
        method = slotMethod(slot);
    }
    void send(int id) { QMetaObject::invokeMethod(target, method.c_str(), Q_ARG(int, id)); }
    void startTimer() override { note("ring"); }
    void stopTimer() override { note("ring stopped"); }
    void timedout() override { note("check mark"); }
    size_t count(const std::string& call)
    {
        std::lock_guard hold(lock);
        return std::count(calls.begin(), calls.end(), call);
    }

protected:
    static const char* on(bool b) { return b ? "1" : "0"; }
    void note(std::string call)
    {
        std::lock_guard hold(lock);
        calls.push_back(std::move(call));
    }
    std::mutex lock;

private:
    std::vector<std::string> calls;
    QObject* target = nullptr;
    std::string method;
};

class RecordingMcScreen : public RecordingScreen<IManualCalibrationUi> {
public:
    struct Move { int x, y, index; };

    void moveCrosshairTo(int x, int y, int index) override
    {
        std::lock_guard hold(lock);
        moves.push_back({x, y, index});
    }
    void setTouch(bool t) override { note(std::string("touch ") + on(t)); }
    void setAcFailed(bool f) override { note(std::string("ac failed ") + on(f)); }
    std::vector<Move> crosshair()
    {
        std::lock_guard hold(lock);
        return moves;
    }

private:
    std::vector<Move> moves;
};

// A procedure of presses with the active pen on a 1000 x 800 desktop, its endings recorded.
class PenProcedureTest : public ::testing::Test {
protected:
    GS* gs = GS::instance();
    ScopedSetting<int> period{gs->disturbanceCheckMs, 80};
    // No frames reach the pen here: no background to top up.
    ScopedSetting<int> topUp{gs->stylusBgTopUpFrames, 0};
    Sensor sensor{"", ""};
    ActivePen pen;
    RecordingEmitter emitter;
    std::vector<int> statuses;
    // Endings come from the procedures' worker threads; through this they land on the test's
    // thread, where the checks read them.
    QObject inbox;
    int session = 100;

    void SetUp() override
    {
        gs->screenWidth = 1000;
        gs->screenHeight = 800;
        ActivePenContext c;
        c.width = c.windowWidth = 752;
        c.height = c.windowHeight = 480;
        c.boxParameter = gs->boxParameter;
        c.boxFactor = gs->boxFactor;
        pen.start(nullptr, c);
        pen.setInputMode(StylusCalibration);
    }
    void TearDown() override
    {
        gs->screenWidth = 0;
        gs->screenHeight = 0;
    }
    void record(Procedure* p)
    {
        QObject::connect(p, &Procedure::finished, &inbox, [this](int s) { statuses.push_back(s); });
    }
    bool ended() { return waitFor([&] { return !statuses.empty(); }); }

    // Down, held for holdMs, up: at(session, state) is the spot of each frame; the lift's
    // frame still lists the lost spot.
    template <typename At> void press(At at, int holdMs, bool outside = false)
    {
        const int id = ++session;
        emitter.frame({at(id, 0)}, outside);
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(holdMs);
        while (std::chrono::steady_clock::now() < until) {
            QCoreApplication::processEvents();
            emitter.frame({at(id, 2)}, outside);
            std::this_thread::sleep_for(std::chrono::milliseconds(8));
        }
        QCoreApplication::processEvents();
        emitter.frame({at(id, 1)}, outside);
        QCoreApplication::processEvents();
    }
};

MATCHER_P2(PointAt, x, y, "")
{
    return ::testing::Value(arg.x, ::testing::DoubleEq(x)) && ::testing::Value(arg.y, ::testing::DoubleEq(y));
}
