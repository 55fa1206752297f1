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
#include "ilumerailcalibrationui.h"
#include "imanualcalibrationui.h"
#include "ioffsetcorrectionui.h"
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

// The calls a calibration's screen gets, the dots', the bar's and the offsets' alike, and its
// key and mouse events, which the screen delivers on the main thread.
class RecordingScreen : public IManualCalibrationUi, public ILumerailCalibrationUi, public IOffsetCorrectionUi {
    std::mutex lock;
    // f under the lock, against the procedure's thread.
    template <typename F> auto locked(F f)
    {
        std::lock_guard hold(lock);
        return f();
    }

public:
    struct Move { int x, y, index; };

    void show(bool visible, bool withLoading) override { note(std::string("show ") + on(visible) + on(withLoading)); }
    void showLoading(bool o) override { note(std::string("loading ") + on(o)); }
    void sendEventsTo(QObject* object, const char* slot) override
    {
        target = object;
        method = slotMethod(slot);
    }
    void sendClickEventsTo(QObject* object, const char* slot) override { sendEventsTo(object, slot); }
    void send(int id) { QMetaObject::invokeMethod(target, method.c_str(), Q_ARG(int, id)); }
    // A click of the window, after the event at hand.
    void click(int x, int y)
    {
        QMetaObject::invokeMethod(target, method.c_str(), Qt::QueuedConnection, Q_ARG(int, x), Q_ARG(int, y));
    }
    void show(bool v) override { visible = v; }
    void startTimer() override { note("ring"); }
    void stopTimer() override { note("ring stopped"); }
    void timedout() override { note("check mark"); }
    void setTouch(bool) override {}
    void setAcFailed(bool) override {}
    void moveCrosshairTo(int x, int y, int index) override { locked([&] { moves.push_back({x, y, index}); }); }
    void setLumerailCrossHairNum(int n) override { locked([&] { numbers.push_back(n); }); }

    size_t count(const std::string& call) { return locked([&] { return std::count(calls.begin(), calls.end(), call); }); }
    std::vector<Move> crosshair() { return locked([&] { return moves; }); }
    // The bar point numbers shown.
    std::vector<int> shown() { return locked([&] { return numbers; }); }
    std::atomic<bool> visible{false};

private:
    std::vector<std::string> calls;
    std::vector<Move> moves;
    std::vector<int> numbers;
    QObject* target = nullptr;
    std::string method;

    static const char* on(bool b) { return b ? "1" : "0"; }
    void note(std::string call) { locked([&] { calls.push_back(std::move(call)); }); }
};

// A procedure of presses with the active pen on a 1000 x 800 desktop, its endings recorded.
template <typename P> class PenProcedureTest : public ::testing::Test {
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
    RecordingScreen screen;
    std::unique_ptr<P> procedure;

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
        procedure.reset();
        gs->screenWidth = 0;
        gs->screenHeight = 0;
    }
    // A new procedure in place of the former one.
    void fresh()
    {
        procedure = std::make_unique<P>(&screen, &emitter, &sensor);
        QObject::connect(procedure.get(), &Procedure::finished, &inbox, [this](int s) { statuses.push_back(s); });
    }
    bool listening() { return waitFor([&] { return screen.count("loading 0") > 0; }); }
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
