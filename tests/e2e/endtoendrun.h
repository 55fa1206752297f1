#pragma once
// One run of the whole system against the emulated sensor: the test's scene, the calibration
// the scene-calibration tool derives from it, the real sensor and frame threads, ActivePen and
// the pointer output of BlobFacade, with the touch device replaced by a pipe the test decodes.
// Afterwards the emulator's ground truth is read back for comparison.
#include "blobfacade.h"
#include "devicepipe.h"
#include "emulatorfiles.h"
#include "globalsettings.h"
#include "ibloblistener.h"
#include "sensor.h"
#include "touchcontroller.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// The touch device of the facade is the test's pipe.
class PipeFacade : public BlobFacade {
public:
    PipeFacade(DevicePipe* device, int argc, char** argv) : BlobFacade(argc, argv), device(device) {}

protected:
    IPointerController* createPrimaryController() override { return new TouchController(device->makeTouch()); }

private:
    DevicePipe* device;
};

// Registered after the pointer output: it hears of each blob just after the output handled it,
// and keeps per frame (the emulator stamps its number into the first bytes) the last such time.
class FrameClock : public IBlobListener {
public:
    void newBlob(Blob*, std::vector<Blob*>, unsigned char* image) override
    {
        if (!image)
            return;
        unsigned frame = unsigned(image[0]) | unsigned(image[1]) << 8 | unsigned(image[2]) << 16
            | unsigned(image[3]) << 24;
        // The steady clock is CLOCK_MONOTONIC, the emulator's clock for transfer completions.
        const long long now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                  std::chrono::steady_clock::now().time_since_epoch())
                                  .count();
        std::lock_guard<std::mutex> hold(lock);
        handled[frame] = now;
    }
    void newBlobList(std::vector<Blob*>) override {}

    std::map<unsigned, long long> times()
    {
        std::lock_guard<std::mutex> hold(lock);
        return handled;
    }

private:
    std::mutex lock;
    std::map<unsigned, long long> handled;
};

struct TruthSpot {
    int id;
    double x, y;
};
struct TruthFrame {
    long long completionNs = 0;
    std::vector<TruthSpot> spots;
};

// frame number -> what the emulator sent in it
inline std::map<unsigned, TruthFrame> readTruth(const EmulatorFiles& files)
{
    std::map<unsigned, TruthFrame> frames;
    for (const auto& w : files.lines("truth.txt")) {
        if (w[0] == "F" && w.size() >= 4)
            frames[std::stoul(w[1])].completionNs = std::stoll(w[3]);
        else if (w[0] == "S" && w.size() >= 11 && std::stoi(w[10]) != 0)
            frames[std::stoul(w[1])].spots.push_back({std::stoi(w[2]), std::stod(w[4]), std::stod(w[5])});
    }
    return frames;
}

// One contact on the touch device from its tracking id to its lift, in desktop pixels.
struct Gesture {
    int trackingId = -1;
    std::vector<std::pair<double, double>> points;
    bool closed = false;
};

// Decodes the slotted protocol as the kernel would: positions belong to the selected slot,
// and a report commits the changed slots' positions.
class GestureDecoder {
public:
    GestureDecoder(int width, int height) : width(width), height(height) {}

    void feed(const std::vector<Ev>& events)
    {
        for (const Ev& e : events) {
            if (e.type == EV_ABS && e.code == ABS_MT_SLOT) {
                slot = e.value;
            } else if (e.type == EV_ABS && e.code == ABS_MT_TRACKING_ID) {
                // Every report of a contact names its id again; only a new id starts a contact.
                if (e.value >= 0 && (!open.count(slot) || gestures[open[slot]].trackingId != e.value)) {
                    if (open.count(slot))
                        ++replacedContacts;
                    open[slot] = gestures.size();
                    gestures.push_back({e.value, {}, false});
                } else if (e.value < 0 && open.count(slot)) {
                    gestures[open[slot]].closed = true;
                    open.erase(slot);
                    changed.erase(slot);
                }
            } else if (e.type == EV_ABS && e.code == ABS_MT_POSITION_X) {
                position[slot].first = toPixels(e.value, width);
                changed[slot] = true;
            } else if (e.type == EV_ABS && e.code == ABS_MT_POSITION_Y) {
                position[slot].second = toPixels(e.value, height);
                changed[slot] = true;
            } else if (e.type == EV_SYN && e.code == SYN_REPORT) {
                for (const auto& [s, yes] : changed)
                    if (yes && open.count(s))
                        gestures[open[s]].points.push_back(position[s]);
                changed.clear();
            } else {
                ++foreignEvents;
            }
        }
    }

    std::vector<Gesture> gestures;
    int foreignEvents = 0;
    // Contacts that lost their slot without a lift.
    int replacedContacts = 0;

private:
    static double toPixels(int units, int extent) { return double(units) * extent / Touch::MaxUnits; }

    int width, height;
    int slot = 0;
    std::map<int, size_t> open;
    std::map<int, std::pair<double, double>> position;
    std::map<int, bool> changed;
};

// Distance from (x, y) to the path the spot with this id walked, frame by frame.
inline double distanceToTrack(const std::vector<std::pair<double, double>>& track, double x, double y)
{
    double best = 1e18;
    for (size_t i = 0; i < track.size(); ++i) {
        const auto [ax, ay] = track[i];
        const auto [bx, by] = i + 1 < track.size() ? track[i + 1] : track[i];
        const double dx = bx - ax, dy = by - ay;
        const double len2 = dx * dx + dy * dy;
        double t = len2 > 0 ? ((x - ax) * dx + (y - ay) * dy) / len2 : 0;
        t = std::clamp(t, 0.0, 1.0);
        best = std::min(best, std::hypot(x - (ax + t * dx), y - (ay + t * dy)));
    }
    return best;
}

// Runs the scene to its end and leaves the touch device's events and the truth behind.
class EndToEndRun {
public:
    // The emulator's files, once run() has begun.
    std::unique_ptr<EmulatorFiles> files;
    DevicePipe device;
    std::vector<Ev> events;
    std::map<unsigned, TruthFrame> truth;
    std::map<unsigned, long long> handledAt;
    // Called often while the scene plays, on the test's thread.
    std::function<void()> idle = [] {};
    // Set by idle: the run ends early.
    bool enough = false;
    // The facade's procedures and screens, if the test wants any.
    IProcedureFactory* procedures = nullptr;
    // The service, once run() has made it.
    PipeFacade* facade = nullptr;

    // inputMode 1 is the stylus, 0 the finger; pointerMode 1 multi-touch, 0 the single pointer.
    void run(const std::string& scene, int inputMode, int pointerMode, double seconds, int width, int height)
    {
        files = std::make_unique<EmulatorFiles>(scene);
        // The factory files are found beside the program, as the service finds its own.
        ASSERT_EQ(chdir(QCoreApplication::applicationDirPath().toLocal8Bit().constData()), 0);
        const std::string calibration = files->path("calibration.ini");
        // Not QProcess: after a child that QProcess starts, the thread checker no longer sees
        // this process's locks, and the emulator's threads run in it.
        ASSERT_EQ(std::system((toolPath("velora-scene-calibration").toStdString() + " " + files->path("scene.txt") + " "
                               + calibration).c_str()),
                  0);
        for (const auto& [name, value] : files->environment())
            setenv(name, value.c_str(), 1);

        static char name[] = "velora", verbose[] = "-v";
        char* argv[] = {name, verbose, nullptr};
        facade = new PipeFacade(&device, 2, argv);
        facade->procedureFactory = procedures;
        GS* gs = GS::instance();
        gs->screenWidth = width;
        gs->screenHeight = height;
        gs->inputMode = inputMode;
        gs->pointerMode = pointerMode;
        // The whole frame keeps the emulator's frame stamp at the first bytes.
        gs->autoWindow = false;
        gs->stylusCalibrationPath = calibration;
        gs->fingerCalibrationPath = calibration;
        ASSERT_TRUE(facade->start());
        // The device record comes first; events follow it.
        uinput_user_dev record;
        ASSERT_TRUE(device.readRecord(&record));
        facade->addBlobListener(&clock);

        play(std::chrono::duration<double>(seconds), true);
        stop();
        truth = readTruth(*files);
        handledAt = clock.times();
    }

    // Each spot's path over the run, in desktop pixels.
    std::map<int, std::vector<std::pair<double, double>>> tracks() const
    {
        std::map<int, std::vector<std::pair<double, double>>> out;
        for (const auto& [frame, f] : truth)
            for (const TruthSpot& s : f.spots)
                out[s.id].emplace_back(s.x, s.y);
        return out;
    }

    // Milliseconds from transfer completion to the pointer output, for frames with this many spots.
    std::vector<double> latencies(size_t spots) const
    {
        std::vector<double> out;
        for (const auto& [frame, at] : handledAt) {
            auto f = truth.find(frame);
            if (f != truth.end() && f->second.spots.size() == spots && f->second.completionNs > 0)
                out.push_back((at - f->second.completionNs) / 1e6);
        }
        std::sort(out.begin(), out.end());
        return out;
    }

private:
    FrameClock clock;

    // Handles events, keeps the device's and calls idle for that long, or until idle has
    // had enough.
    void play(std::chrono::duration<double> time, bool untilEnough)
    {
        const auto until = std::chrono::steady_clock::now() + time;
        while (std::chrono::steady_clock::now() < until && !(untilEnough && enough)) {
            QCoreApplication::processEvents();
            drain();
            idle();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }

    void drain()
    {
        std::vector<Ev> more = device.events();
        events.insert(events.end(), more.begin(), more.end());
    }

    void stop()
    {
        QCoreApplication::processEvents();
        facade->processing = false;
        facade->removeBlobListener(&clock);
        // The end of streaming would end the process; here only the threads are to stop.
        facade->sensor->stoppedCallback = nullptr;
        facade->sensor->stop();
        play(std::chrono::milliseconds(1500), false);
        drain();
        // The facade and what it owns stay, as in the service, which never takes them down;
        // reachable, since the threads may still hold on to them.
        static std::vector<PipeFacade*> kept;
        kept.push_back(facade);
    }
};

// Every stroke of the run arrived as exactly one gesture that was ended, and no gesture
// arrived without a stroke: a gesture belongs to the stroke its first point lies nearest to,
// and all its points lie within tolerance desktop pixels of that stroke's path.
inline void expectOneGesturePerStroke(const std::vector<Gesture>& gestures,
                                      const std::map<int, std::vector<std::pair<double, double>>>& tracks,
                                      double tolerance)
{
    EXPECT_EQ(gestures.size(), tracks.size()) << "every stroke one gesture, no gesture without a stroke";
    ASSERT_FALSE(tracks.empty());
    std::map<int, int> gesturesPerStroke;
    for (const Gesture& g : gestures) {
        EXPECT_TRUE(g.closed) << "gesture " << g.trackingId << " left open";
        if (g.points.empty()) {
            ADD_FAILURE() << "gesture " << g.trackingId << " has no position";
            continue;
        }
        const auto off = [&](int stroke, const std::pair<double, double>& p) {
            return distanceToTrack(tracks.at(stroke), p.first, p.second);
        };
        const int stroke = std::min_element(tracks.begin(), tracks.end(), [&](const auto& a, const auto& b) {
                               return off(a.first, g.points.front()) < off(b.first, g.points.front());
                           })->first;
        ++gesturesPerStroke[stroke];
        const auto at = *std::max_element(g.points.begin(), g.points.end(),
                                          [&](const auto& a, const auto& b) { return off(stroke, a) < off(stroke, b); });
        EXPECT_LE(off(stroke, at), tolerance) << "gesture " << g.trackingId << " strays from stroke " << stroke
                                              << " to (" << at.first << ", " << at.second << ")";
    }
    for (const auto& [id, track] : tracks)
        EXPECT_EQ(gesturesPerStroke[id], 1) << "stroke " << id << " from (" << track.front().first << ", "
                                             << track.front().second << ")";
}

// Multi-touch mode: the device carried the strokes' contacts and nothing else.
inline void expectOneContactPerStroke(const EndToEndRun& run, int width, int height, size_t strokes,
                                      double tolerance)
{
    GestureDecoder decoder(width, height);
    decoder.feed(run.events);
    const auto tracks = run.tracks();
    ASSERT_EQ(tracks.size(), strokes) << "the emulator drew fewer spots than the scene has";
    EXPECT_EQ(decoder.foreignEvents, 0);
    EXPECT_EQ(decoder.replacedContacts, 0);
    expectOneGesturePerStroke(decoder.gestures, tracks, tolerance);
}

inline double percentile(const std::vector<double>& sorted, double p)
{
    if (sorted.empty())
        return 0;
    return sorted[std::min(sorted.size() - 1, size_t(p * double(sorted.size() - 1) + 0.5))];
}
