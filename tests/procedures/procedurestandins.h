#pragma once
// What a procedure talks to, recorded: the emitter's listeners and calibrations, and the
// calls made on the manual calibration's screen, from whatever thread makes them.
#include "calibration.h"
#include "iblobemitter.h"
#include "ibloblistener.h"
#include "imanualcalibrationui.h"

#include <QCoreApplication>
#include <QObject>

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
        std::vector<IBlobListener*> now;
        {
            std::lock_guard hold(lock);
            now = listeners;
        }
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

class RecordingMcScreen : public IManualCalibrationUi {
public:
    struct Move { int x, y, index; };

    void show(bool visible, bool withLoading) override { note(std::string("show ") + on(visible) + on(withLoading)); }
    void showLoading(bool o) override { note(std::string("loading ") + on(o)); }
    void moveCrosshairTo(int x, int y, int index) override
    {
        std::lock_guard hold(lock);
        moves.push_back({x, y, index});
    }
    void sendEventsTo(QObject* object, const char* slot) override
    {
        target = object;
        // "1onUiEvent(int)" as SLOT() writes it: the method's name lies between code and bracket.
        const std::string s(slot);
        method = s.substr(1, s.find('(') - 1);
    }
    // A key or mouse event of the screen, as the screen delivers it on the main thread.
    void send(int id) { QMetaObject::invokeMethod(target, method.c_str(), Q_ARG(int, id)); }
    void startTimer() override { note("ring"); }
    void stopTimer() override { note("ring stopped"); }
    void timedout() override { note("check mark"); }
    void setTouch(bool t) override { note(std::string("touch ") + on(t)); }
    void setAcFailed(bool f) override { note(std::string("ac failed ") + on(f)); }

    std::vector<Move> crosshair()
    {
        std::lock_guard hold(lock);
        return moves;
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
    std::vector<Move> moves;
    QObject* target = nullptr;
    std::string method;
};

// Runs the main thread's events until the condition holds or ten seconds have passed.
inline bool settle(const std::function<bool()>& done, int timeoutMs = 10000)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() > until)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
