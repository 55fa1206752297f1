// The frame thread's time per frame with moving touches, with the TUIO output beside the pointer
// output against the same frame without it. One frame is what ImageCallback does: the stylus
// engine, matching, both filters and the mapping to the screen (in the facade's process()),
// then the fan-out to the pointer output, multi-touch slots written to /dev/null, and in the
// second run also to the TUIO sender, whose bundles a thread of the bench receives on
// 127.0.0.1 as an application would. At the end the ratio of the two CPU times per frame.
#include "../tests/Quillon/syntheticframe.h"

#include "blobfacade.h"
#include "bloblist.h"
#include "calibration.h"
#include "globalsettings.h"
#include "interpolation.h"
#include "multipointercontroller.h"
#include "touch.h"
#include "touchcontroller.h"
#include "trackingengine.h"
#include "transformgrid.h"
#include "tuiosender.h"
#include "uinputcalls.h"

#include <benchmark/benchmark.h>

#include <QApplication>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <thread>

namespace {

// The screen as the sensor sees it, straight on; the touches in a 5 by 2 grid inside it.
EVector toSensor(double u, double v) { return EVector(20 + u * 712, 20 + v * 440); }

std::vector<Spot> touches(int count, double shift)
{
    std::vector<Spot> spots;
    for (int i = 0; i < count; ++i) {
        const EVector p = toSensor(0.1 + 0.2 * (i % 5), 0.25 + 0.5 * (i / 5 % 2));
        spots.push_back({p.x + shift, p.y + shift * 0.5, 7});
    }
    return spots;
}

std::unique_ptr<TransformGrid> gridFor(int width, int height)
{
    Calibration layout(5, 5, {}, {}, 0.05, 0.05, 0, false, false);
    std::vector<EVector> src;
    for (const EVector& d : layout.calcDstPoints(width, height))
        src.push_back(toSensor(d.x / width, d.y / height));
    const Calibration c(5, 5, src, {}, 0.05, 0.05, 0, false, false);
    return std::unique_ptr<TransformGrid>(c.getTransform(width, height, false, nullptr));
}

// The uinput device is /dev/null: the writes are made, the kernel's input layer is left out.
class NullDevice : public UinputCalls {
public:
    int openDevice(const char*, int) override { return open("/dev/null", O_WRONLY); }
    int control(int, unsigned long, int) override { return 0; }
    void closeDevice(int fd) override { close(fd); }
};

// The facade's frame path with the engine work of ActivePen::convert in process().
class BenchFacade : public BlobFacade {
public:
    using BlobFacade::BlobFacade;

    std::unique_ptr<TrackingEngine> engine;
    std::unique_ptr<TransformGrid> grid;
    BlobList tracked;
    Interpolation bezier{0.6}, inertia{0.5};

    std::vector<Blob*> process(unsigned char* frame, bool) override
    {
        AllBlobs all = engine->processImage(frame, false, false);
        for (Blob* b : all.outsideBlobs.blobs)
            delete b;
        tracked.mergeWith(std::move(all.blobs), keepFrames, nullptr);
        bezier.BezierCurveFilter(&tracked, false);
        inertia.InertiaCurveFilter(&tracked, -1.0);
        return tracked.ToArray(grid.get(), nullptr);
    }
};

// Takes the bundles off the socket as fast as they come, as a receiving application does.
class Receiver {
public:
    int port = 0;
    std::atomic<long> datagrams{0};

    Receiver()
    {
        fd = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in at{};
        at.sin_family = AF_INET;
        at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof at;
        bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at);
        getsockname(fd, reinterpret_cast<sockaddr*>(&at), &size);
        port = ntohs(at.sin_port);
        const timeval tick{0, 100000};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof tick);
        thread = std::thread([this] {
            char buffer[65536];
            while (!done)
                if (recv(fd, buffer, sizeof buffer, 0) > 0)
                    ++datagrams;
        });
    }
    ~Receiver()
    {
        done = true;
        thread.join();
        close(fd);
    }

private:
    int fd = -1;
    std::atomic<bool> done{false};
    std::thread thread;
};

BenchFacade* facade = nullptr;

void BM_FrameThread(benchmark::State& state)
{
    const bool tuio = state.range(0) != 0;
    const int count = int(state.range(1));
    GS* gs = GS::instance();
    gs->pointerMode = 1;

    // A fresh rig per run: the same learnt background, the same touches from their first frame.
    static SyntheticFrames synth(5);
    facade->engine = std::make_unique<TrackingEngine>(SyntheticFrames::Width, SyntheticFrames::Height, 230, 1, true);
    std::vector<unsigned char> background = synth.make({});
    while (facade->engine->learning)
        facade->engine->processImage(background.data(), false, false);
    for (Blob* b : facade->tracked.blobs)
        delete b;
    facade->tracked.clear();

    MultiPointerController pointer;
    pointer.addPrimaryController(new TouchController(new Touch(std::make_unique<NullDevice>())));
    pointer.enablePrimary();
    pointer.enabled = true;
    facade->addBlobListener(&pointer);
    Receiver receiver;
    std::unique_ptr<TuioSender> sender;
    if (tuio) {
        sender = std::make_unique<TuioSender>("127.0.0.1", receiver.port);
        facade->addBlobListener(sender.get());
    }

    std::vector<unsigned char> frames[2] = {synth.make(touches(count, 0)), synth.make(touches(count, 2.0))};
    long frame = 0;
    for (auto _ : state)
        ImageCallback(facade, frames[frame++ & 1].data());

    facade->removeBlobListener(&pointer);
    if (sender)
        facade->removeBlobListener(sender.get());
    state.counters["touches"] = double(facade->tracked.size());
    // The last frame's touches are still down: reset() releases them before the next run.
    pointer.reset();
}
BENCHMARK(BM_FrameThread)->ArgNames({"tuio", "touches"})->Args({0, 10})->Args({1, 10});

// Prints what the console reporter prints and keeps each run's CPU time per frame.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    std::map<bool, std::vector<double>> cpu;

    void ReportRuns(const std::vector<Run>& runs) override
    {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& r : runs)
            if (r.run_type == Run::RT_Iteration && r.iterations > 0)
                cpu[r.run_name.args.find("tuio:1") != std::string::npos].push_back(r.GetAdjustedCPUTime());
    }
};

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    static char name[] = "velora", verbose[] = "-v";
    char* facadeArgs[] = {name, verbose, nullptr};
    facade = new BenchFacade(2, facadeArgs);
    GS* gs = GS::instance();
    facade->grid = gridFor(gs->screenWidth, gs->screenHeight);
    // Anything but null: nobody waits for a picture, every frame is searched.
    facade->image = new unsigned char[1];
    facade->processing = true;

    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double without = median(reporter.cpu[false]), with = median(reporter.cpu[true]);
    if (without > 0 && with > 0)
        std::printf("frame thread, 10 touches: %.2f us with TUIO / %.2f us without = %.3f "
                    "(CPU time per frame, medians of %zu and %zu runs)\n",
                    with / 1000, without / 1000, with / without, reporter.cpu[true].size(), reporter.cpu[false].size());
    benchmark::Shutdown();
    return 0;
}
