// velora-spot-sizes [FRAMES-PER-CASE]
//
// For stylus spots of 3 to 12 pixels, the share of frames in which the finger engine (as the
// stylus mode runs it: extended, factory settings from config/velora.conf beside the program)
// reports a blob within 3 sensor pixels of the spot, still (taps at many sub-pixel positions
// across the screen) and moving at 500, 1000 and 2000 desktop pixels a second; and, of the
// frames without one, the share lost at the first pass (no scan box centre near the spot rose
// above its background and limit) and the share lost at the later gates (contour, container,
// second pass, sub-pixel, screen).
#include "boxtrackingengine.h"
#include "calibration.h"
#include "framerenderer.h"
#include "globalsettings.h"
#include "scene.h"
#include "screenprojection.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int W = 752, H = 480;
const double StrokesStart = 1.0; // after learning and the first background refresh

struct Tally {
    int frames = 0, reported = 0, firstPass = 0, later = 0;
    void add(const Tally& o)
    {
        frames += o.frames;
        reported += o.reported;
        firstPass += o.firstPass;
        later += o.later;
    }
};

std::string sceneText(int size, double speed, int frames)
{
    std::ostringstream s;
    s << "screen 1920 1080\nlens factory\nlaser off\n";
    const double seconds = frames / 120.0;
    if (speed == 0) {
        // Taps of 0.1 s on a grid over the screen, each shifted by its own fraction of a pixel.
        const int taps = std::max(1, int(seconds / 0.1));
        for (int i = 0; i < taps; ++i) {
            const double x = 120 + std::fmod(i * 337.37, 1680.0), y = 90 + std::fmod(i * 211.13, 900.0);
            s << "tap stylus " << StrokesStart + 0.1 * i << " 0.1 size " << size << " at " << x << "," << y << "\n";
        }
    } else {
        // Back and forth over the screen along lines at different heights and slants.
        double t = StrokesStart;
        for (int i = 0; t < StrokesStart + seconds; ++i) {
            const double y0 = 100 + std::fmod(i * 173.3, 880.0), y1 = 100 + std::fmod(i * 291.7 + 400, 880.0);
            const double x0 = i % 2 ? 1800 : 120, x1 = i % 2 ? 120 : 1800;
            const double length = std::hypot(x1 - x0, y1 - y0), duration = length / speed;
            s << "stroke stylus " << t << " " << duration << " size " << size << " path " << x0 << "," << y0 << " "
              << x1 << "," << y1 << "\n";
            t += duration + 0.05;
        }
    }
    return s.str();
}

std::unique_ptr<Calibration> calibrationOf(const Scene& scene)
{
    const ScreenProjection projection(scene.screenWidth, scene.screenHeight, scene.corners, scene.lens);
    const int n = 7;
    const double margin = 0.05;
    Calibration layout(n, n, {}, {}, margin, margin, 0.0, false, false);
    std::vector<EVector> sensor;
    for (const EVector& d : layout.calcDstPoints(scene.screenWidth, scene.screenHeight)) {
        double x, y;
        projection.toSensor(d.x, d.y, x, y);
        sensor.emplace_back(x, y);
    }
    return std::make_unique<Calibration>(n, n, std::move(sensor), std::vector<EVector>{}, margin, margin, 0.0, false,
                                         true);
}

// Did a scan box whose centre lies on the spot rise above its background and limit?
bool firstPassFires(const BoxTrackingEngine& engine, const std::vector<unsigned char>& frame, double x, double y,
                    double reach)
{
    for (const ScanBox& b : engine.boxes) {
        if (std::fabs(b.centerX - x) > reach || std::fabs(b.centerY - y) > reach)
            continue;
        if (b.centerIndex < 1 || b.centerIndex >= W * H)
            continue;
        const double t = std::max(35.0, engine.regionThreshold[b.region]);
        if (frame[std::size_t(b.centerIndex)] - b.bgIntensity > int(std::floor(t)))
            return true;
    }
    return false;
}

Tally run(int size, double speed, int frames)
{
    Scene scene;
    std::string error;
    if (!Scene::parse(sceneText(size, speed, frames), "spots", Scene::factoryConfigDir(), scene, error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        std::exit(1);
    }
    FrameRenderer renderer(scene);
    const std::unique_ptr<Calibration> calibration = calibrationOf(scene);
    GS* gs = GS::instance();
    BoxTrackingEngine engine(W, H, gs->boxFactor, gs->boxParameter);
    engine.setCalibration(calibration.get(), gs->boxParameter);
    engine.triggerBgRefresh(true, false);

    Tally tally;
    std::vector<unsigned char> frame(std::size_t(W) * H), work;
    std::vector<SpotTruth> spots;
    const int total = int(StrokesStart * 120) + frames;
    for (int n = 0; n < total; ++n) {
        FrameGeometry g;
        RenderState rs;
        rs.time = n / 120.0;
        rs.frame = std::uint64_t(n);
        rs.exposure = gs->stylusExposure;
        renderer.render(frame.data(), g, rs, spots);
        work = frame;
        AllBlobs all = engine.processImage(work.data(), true, false);
        if (rs.time >= StrokesStart) {
            for (const SpotTruth& s : spots) {
                // Only spots on the screen, where the engine looks.
                if (s.screenX < 0 || s.screenY < 0 || s.screenX > 1920 || s.screenY > 1080)
                    continue;
                ++tally.frames;
                bool found = false;
                for (const Blob* b : all.blobs.blobs)
                    found = found || std::hypot(b->x - s.imageX, b->y - s.imageY) <= 3.0;
                if (found)
                    ++tally.reported;
                else if (!firstPassFires(engine, frame, s.imageX, s.imageY, size / 2.0 + 0.5))
                    ++tally.firstPass;
                else
                    ++tally.later;
            }
        }
        for (Blob* b : all.blobs.blobs)
            delete b;
        for (Blob* b : all.outsideBlobs.blobs)
            delete b;
    }
    return tally;
}

double share(int part, int whole) { return whole ? 100.0 * part / whole : 0.0; }

} // namespace

int main(int argc, char** argv)
{
    const int frames = argc > 1 ? std::atoi(argv[1]) : 1200;
    std::printf("stylus mode, factory settings, %d frames per case at 120 fps; %% of frames with the spot reported\n",
                frames);
    std::printf("size  still   500/s  1000/s  2000/s   lost at first pass  lost later\n");
    for (int size = 3; size <= 12; ++size) {
        Tally all;
        double shares[4];
        int k = 0;
        for (double speed : {0.0, 500.0, 1000.0, 2000.0}) {
            const Tally t = run(size, speed, frames);
            shares[k++] = share(t.reported, t.frames);
            all.add(t);
        }
        std::printf("%4d  %5.1f  %6.1f  %6.1f  %6.1f   %17.1f  %10.1f\n", size, shares[0], shares[1], shares[2], shares[3],
                    share(all.firstPass, all.frames), share(all.later, all.frames));
        std::fflush(stdout);
    }
    return 0;
}
