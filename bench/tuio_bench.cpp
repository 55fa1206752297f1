// The frame thread's time per frame with moving touches, with the TUIO output beside the pointer
// output against the same frame without it. One frame is what ImageCallback does: the stylus
// engine, matching, both filters and the mapping to the screen (in the facade's process()),
// then the fan-out to the pointer output, multi-touch slots written to /dev/null, and on one of
// two otherwise equal rigs also to the TUIO sender, whose bundles a thread of the bench takes
// off 127.0.0.1 as an application would. The two rigs get the same frames in turn, at the
// sensor's pace, in the same run, so that both meet the same machine; each frame is timed by
// the frame thread's CPU time. The counter "ratio" is with TUIO / without; "tuio_share" is the
// time inside the TUIO output's per-frame call against the frame without TUIO, the same
// quantity without the noise of two whole frames.
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

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
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

constexpr long FramesPerSecond = 120;

double threadCpuSeconds()
{
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

// Forwards to the TUIO output and keeps the time of its per-frame work, the part of the frame
// thread's time that is TUIO's own. Its per-blob calls do nothing and are not timed.
class Timed : public IBlobListener {
public:
    explicit Timed(IBlobListener* inner) : inner(inner) {}
    void newBlob(Blob* blob, std::vector<Blob*> all, unsigned char* image) override
    {
        inner->newBlob(blob, std::move(all), image);
    }
    void newBlobList(std::vector<Blob*> all) override
    {
        const auto before = std::chrono::steady_clock::now();
        inner->newBlobList(std::move(all));
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();
    }
    double seconds = 0;

private:
    IBlobListener* inner;
};

// One facade with its own engine, tracking and pointer output, and the TUIO output if asked.
class Rig {
public:
    BenchFacade* facade;
    MultiPointerController pointer;
    std::unique_ptr<TuioSender> tuio;
    std::unique_ptr<Timed> timedTuio;
    double seconds = 0;

    Rig(int tuioPort, SyntheticFrames& synth)
    {
        static char name[] = "velora", verbose[] = "-v";
        char* args[] = {name, verbose, nullptr};
        // Never deleted, as in the service.
        facade = new BenchFacade(2, args);
        const GS* gs = GS::instance();
        facade->grid = gridFor(gs->screenWidth, gs->screenHeight);
        // Anything but null: nobody waits for a picture, every frame is searched.
        facade->image = new unsigned char[1];
        facade->processing = true;
        facade->engine =
            std::make_unique<TrackingEngine>(SyntheticFrames::Width, SyntheticFrames::Height, 230, 1, true);
        const std::vector<unsigned char> background = synth.make({});
        while (facade->engine->learning)
            facade->engine->processImage(const_cast<unsigned char*>(background.data()), false, false);

        pointer.addPrimaryController(new TouchController(new Touch(std::make_unique<NullDevice>())));
        pointer.enablePrimary();
        pointer.enabled = true;
        facade->addBlobListener(&pointer);
        if (tuioPort) {
            tuio = std::make_unique<TuioSender>("127.0.0.1", tuioPort);
            timedTuio = std::make_unique<Timed>(tuio.get());
            facade->addBlobListener(timedTuio.get());
        }
    }

    // The engine may mark what it found in the picture: each rig gets a copy of its own.
    void frame(const std::vector<unsigned char>& image)
    {
        copy = image;
        const double before = threadCpuSeconds();
        ImageCallback(facade, copy.data());
        seconds += threadCpuSeconds() - before;
    }

private:
    std::vector<unsigned char> copy;
};

void BM_FrameThread(benchmark::State& state)
{
    const int count = int(state.range(0));
    GS::instance()->pointerMode = 1;
    // Made once: a facade's construction adjusts settings that the next would see adjusted again.
    static SyntheticFrames synth(5);
    static Receiver receiver;
    static Rig without(0, synth), with(receiver.port, synth);
    without.seconds = with.seconds = with.timedTuio->seconds = 0;
    const long received = receiver.datagrams;

    const std::vector<unsigned char> frames[2] = {synth.make(touches(count, 0)), synth.make(touches(count, 2.0))};
    const auto period = std::chrono::nanoseconds(1000000000 / FramesPerSecond);
    auto due = std::chrono::steady_clock::now();
    long n = 0;
    for (auto _ : state) {
        // Each frame goes to both, taking turns at going first.
        const std::vector<unsigned char>& image = frames[n & 1];
        if (n++ & 2) {
            with.frame(image);
            without.frame(image);
        } else {
            without.frame(image);
            with.frame(image);
        }
        due += period;
        std::this_thread::sleep_until(due);
    }
    // What is still on its way to the receiver.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));

    state.counters["without_us"] = without.seconds / double(n) * 1e6;
    state.counters["with_us"] = with.seconds / double(n) * 1e6;
    state.counters["ratio"] = with.seconds / without.seconds;
    // TUIO's own part of the frame against the frame without TUIO.
    state.counters["tuio_us"] = with.timedTuio->seconds / double(n) * 1e6;
    state.counters["tuio_share"] = with.timedTuio->seconds / without.seconds;
    // Bundles received per frame: 1 when none was dropped.
    state.counters["bundles"] = double(receiver.datagrams - received) / double(n);
}
BENCHMARK(BM_FrameThread)->ArgName("touches")->Arg(10)->Iterations(600)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
