// velora_sensor_probe: the capture path without the rest of the program. It opens the sensor
// as the program does, starts both frame threads, runs a short script of sensor calls on its
// main thread, and records for every frame that reaches the frame callback: the first four
// bytes of the window (the emulated sensor's frame stamp), the monotonic time at the start
// of the callback and the box of non-black pixels. The records go to --out when the USB
// thread has stopped (after "stop" or an unplug), and the process ends with status 0.
//
//   velora_sensor_probe --cyusb FILE [--sensor FILE] [--out FILE] [--callback-us N] [--light]
//                       [--max-records N] [--factor F] [script...]
//   script: window X Y W H | binning V H | exposure E | filter 0|1 | laser 0|1 | minimum W H
//           | frames N (wait for N more frames) | sleep MS | stop
// With --light the callback reads the stamp at the frame's start and skips the box; --factor
// sets the blanking factor of finger mode and selects that mode.
#include "globalsettings.h"
#include "sensor.h"

#include <QCoreApplication>
#include <QDebug>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <vector>

namespace {

struct Record {
    uint32_t stamp;
    int64_t ns;
    int x, y, w, h;
};

struct Probe {
    Sensor* sensor = nullptr;
    int width = 752;
    int height = 480;
    bool light = false;
    useconds_t callbackUs = 0;
    std::string out;
    std::mutex lock;
    std::vector<Record> records;
    size_t maxRecords = 200000;
    std::atomic<long> delivered{0};
};

Probe probe;

int64_t monotonicNs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

uint32_t stampAt(const unsigned char* p)
{
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16
        | static_cast<uint32_t>(p[3]) << 24;
}

void onFrame(void* context, unsigned char* frame)
{
    auto* p = static_cast<Probe*>(context);
    Record r{0, monotonicNs(), -1, -1, 0, 0};
    if (p->light) {
        r.stamp = stampAt(frame);
    } else {
        int top = -1, bottom = -1, left = p->width, right = -1;
        for (int y = 0; y < p->height; ++y) {
            const unsigned char* row = frame + static_cast<size_t>(y) * p->width;
            int first = -1, last = -1;
            for (int x = 0; x < p->width; ++x) {
                if (row[x]) {
                    if (first < 0)
                        first = x;
                    last = x;
                }
            }
            if (first < 0)
                continue;
            if (top < 0)
                top = y;
            bottom = y;
            left = std::min(left, first);
            right = std::max(right, last);
        }
        if (top >= 0) {
            r.x = left;
            r.y = top;
            r.w = right - left + 1;
            r.h = bottom - top + 1;
            r.stamp = stampAt(frame + static_cast<size_t>(top) * p->width + left);
        }
    }
    {
        std::lock_guard<std::mutex> hold(p->lock);
        if (p->records.size() < p->maxRecords)
            p->records.push_back(r);
    }
    ++p->delivered;
    if (p->callbackUs)
        ::usleep(p->callbackUs);
}

void onStopped()
{
    {
        std::lock_guard<std::mutex> hold(probe.lock);
        if (!probe.out.empty()) {
            if (FILE* f = std::fopen(probe.out.c_str(), "w")) {
                for (const Record& r : probe.records)
                    std::fprintf(f, "C %u %lld %d %d %d %d\n", r.stamp, static_cast<long long>(r.ns), r.x, r.y, r.w,
                                 r.h);
                std::fclose(f);
            }
        }
    }
    std::printf("probe: %ld frames delivered\n", probe.delivered.load());
    std::fflush(stdout);
    std::fflush(stderr);
#if defined(__SANITIZE_ADDRESS__)
    // _exit skips the check at exit; the clean-up of the capture path is what is checked.
    __lsan_do_leak_check();
#endif
    // The image thread runs on: end without tearing down what it may still touch.
    _exit(0);
}

int number(char** argv, int& i, int argc)
{
    if (i + 1 >= argc) {
        std::fprintf(stderr, "velora_sensor_probe: %s needs a number\n", argv[i]);
        std::exit(2);
    }
    return std::atoi(argv[++i]);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    std::string cyusb, sensorConf = "/nonexistent/sensor.conf", factor;
    int i = 1;
    for (; i < argc && std::strncmp(argv[i], "--", 2) == 0; ++i) {
        const std::string opt = argv[i];
        if (i + 1 >= argc && opt != "--light") {
            std::fprintf(stderr, "velora_sensor_probe: %s needs a value\n", argv[i]);
            return 2;
        }
        if (opt == "--cyusb")
            cyusb = argv[++i];
        else if (opt == "--sensor")
            sensorConf = argv[++i];
        else if (opt == "--out")
            probe.out = argv[++i];
        else if (opt == "--callback-us")
            probe.callbackUs = static_cast<useconds_t>(std::atoi(argv[++i]));
        else if (opt == "--max-records")
            probe.maxRecords = static_cast<size_t>(std::atol(argv[++i]));
        else if (opt == "--light")
            probe.light = true;
        else if (opt == "--factor")
            factor = argv[++i];
        else {
            std::fprintf(stderr, "velora_sensor_probe: unknown option %s\n", argv[i]);
            return 2;
        }
    }
    if (cyusb.empty()) {
        std::fprintf(stderr, "velora_sensor_probe: --cyusb FILE is required\n");
        return 2;
    }
    probe.records.reserve(probe.maxRecords);

    GS* gs = GS::instance();
    if (!factor.empty()) {
        // Finger mode, whose blanking factor decides the window minima and the blanking.
        gs->inputMode = 0;
        gs->blankingFactorFinger = std::atof(factor.c_str());
    }
    probe.width = gs->sensorWidth > 0 ? gs->sensorWidth : 752;
    probe.height = gs->sensorHeight > 0 ? gs->sensorHeight : 480;
    auto* sensor = new Sensor(cyusb.c_str(), sensorConf.c_str());
    probe.sensor = sensor;
    while (sensor->getSensorCount() == 0)
        ::usleep(50000);
    if (sensor->connect(0) != 1)
        return 3;
    sensor->start(&probe, onFrame, onStopped, probe.width, probe.height);

    for (; i < argc; ++i) {
        const std::string step = argv[i];
        if (step == "window") {
            const int x = number(argv, i, argc), y = number(argv, i, argc);
            const int w = number(argv, i, argc), h = number(argv, i, argc);
            sensor->setWindow(x, y, w, h);
        } else if (step == "binning") {
            const int v = number(argv, i, argc);
            sensor->setBinning(v, number(argv, i, argc));
        } else if (step == "exposure") {
            sensor->setExposure(number(argv, i, argc));
        } else if (step == "filter") {
            sensor->switchFilter(number(argv, i, argc) != 0);
        } else if (step == "laser") {
            sensor->setLaser(number(argv, i, argc) != 0);
        } else if (step == "minimum") {
            const int w = number(argv, i, argc);
            sensor->setMinimumWindow(w, number(argv, i, argc));
        } else if (step == "frames") {
            const long until = probe.delivered + number(argv, i, argc);
            while (probe.delivered < until)
                ::usleep(2000);
        } else if (step == "sleep") {
            ::usleep(static_cast<useconds_t>(number(argv, i, argc)) * 1000);
        } else if (step == "stop") {
            sensor->stop();
        } else {
            std::fprintf(stderr, "velora_sensor_probe: unknown step %s\n", argv[i]);
            return 2;
        }
        std::printf("probe: done %s\n", step.c_str());
        std::fflush(stdout);
    }
    // The USB thread ends the process, after a stop or when the device goes.
    for (;;)
        ::pause();
}
