// The finger engine against the engine as it stood before it was made faster
// (referenceboxengine.h): the same scan boxes, and over long synthetic and emulated frame
// sequences the same blobs and the same frame left behind, in both modes, through learning,
// background refreshes and debug frames.
#include "fingerscene.h"
#include "framerenderer.h"
#include "ownedblobs.h"
#include "referenceboxengine.h"

#include "boxtrackingengine.h"
#include "globalsettings.h"
#include "scene.h"
#include "scopedsetting.h"

#include <gtest/gtest.h>

constexpr int W = FingerScene::Width;
constexpr int H = FingerScene::Height;

static std::string describe(const AllBlobs& all)
{
    std::ostringstream out;
    out.precision(17);
    for (const Blob* b : all.blobs.blobs)
        out << "(" << b->x << "," << b->y << " " << b->width << "x" << b->height << " t" << b->cellIndex << " bg"
            << b->measureB << " r" << b->radial << " s" << b->hasShift << ":" << b->xShift << "," << b->yShift << ")";
    return out.str();
}

struct Sequence {
    const char* name;
    bool extended;
    int frames;
    // Writes frame n into out.
    std::function<void(int n, std::vector<unsigned char>& out)> frame;
    // Where the screen lies in the sensor image.
    std::array<double, 8> corners = FingerScene().corners;
};

// Fingers and stylus spots of many sizes and brightnesses wander over the screen; a reflection
// stands still, and a patch of ambient light comes and goes, which starts region refreshes.
static Sequence synthetic(const char* name, bool extended, unsigned seed,
                   std::array<double, 8> corners = FingerScene().corners, int frames = 1500)
{
    auto scene = std::make_shared<FingerScene>(seed);
    scene->corners = corners;
    scene->reflections.push_back({600, 100, 8, 120});
    scene->ambientArea = cv::Rect(80, 250, 220, 160);
    auto rng = std::make_shared<std::mt19937>(seed);
    return {name, extended, frames, [scene, rng](int n, std::vector<unsigned char>& out) {
                scene->ambient = (n / 300) % 2 ? 25 : 0;
                std::uniform_real_distribution<double> u(0, 1);
                std::vector<Finger> fingers;
                const int count = (n / 40) % 12;
                for (int i = 0; i < count; ++i) {
                    const double phase = n * 0.01 + i * 0.7;
                    Finger f{960 + 800 * std::sin(phase * (1 + 0.1 * i)), 540 + 450 * std::cos(phase * 0.8 + i)};
                    f.diameter = 3 + (i * 5 + n / 40) % 12 + u(*rng);
                    f.peak = 50 + 180 * u(*rng);
                    fingers.push_back(f);
                }
                out = scene->frame(fingers);
            },
            corners};
}

// The emulated sensor's pictures: its background, noise, lens, and stylus and finger strokes.
static Sequence emulated(const char* name, bool extended)
{
    const char* text = R"(
screen 1920 1080
corners 40 30 712 30 684 452 68 452
lens factory
laser on
stroke stylus 0.0 6.0 size 3 path 100,100 1800,1000
stroke stylus 0.5 6.0 size 4 path 1800,100 100,1000
stroke stylus 1.0 5.0 size 5 path 960,50 960,1050
stroke stylus 1.5 5.0 size 9 path 50,540 1870,540
stroke finger 2.0 4.0 size 10 path 300,300 1600,800
stroke finger 2.5 4.0 size 14 brightness 200 path 1600,300 300,800
tap stylus 3.0 3.0 size 6 at 1900,1060
tap stylus 4.0 2.0 size 12 brightness 100 at 20,20
)";
    auto scene = std::make_shared<Scene>();
    std::string error;
    EXPECT_TRUE(Scene::parse(text, "equivalence", Scene::factoryConfigDir(), *scene, error)) << error;
    auto renderer = std::make_shared<FrameRenderer>(*scene);
    return {name, extended, 900, [renderer](int n, std::vector<unsigned char>& out) {
                FrameGeometry g;
                const RenderState rs{.time = n / 120.0, .frame = static_cast<uint64_t>(n), .laserOn = true};
                std::vector<SpotTruth> spots;
                out.resize(std::size_t(g.bytes()));
                renderer->render(out.data(), g, rs, spots);
            }};
}

TEST(BoxTrackingEquivalence, SameBlobsAndFramesAsTheReferenceLoop)
{
    GS* gs = GS::instance();
    ScopedSetting<int> deltaLimit{gs->regionalDeltaLimit, 8};
    const Sequence sequences[] = {
        synthetic("synthetic, finger mode", false, 3),
        synthetic("synthetic, stylus mode", true, 7),
        emulated("emulated, finger mode", false),
        emulated("emulated, stylus mode", true),
        // A small, tilted screen reaching past the frame's corner: several boxes share a
        // centre pixel, and some centres lie outside the frame.
        synthetic("synthetic, small screen at the corner", false, 5, {-20, 330, 220, 300, 240, 495, -30, 500}, 600),
    };
    for (const Sequence& s : sequences) {
        SCOPED_TRACE(s.name);
        FingerScene geometry;
        geometry.corners = s.corners;
        const std::unique_ptr<Calibration> calibration = geometry.calibration();
        BoxTrackingEngine engine(W, H, gs->boxFactor, gs->boxParameter);
        ReferenceBoxTrackingEngine reference(W, H, gs->boxFactor, gs->boxParameter);
        engine.setCalibration(calibration.get(), gs->boxParameter);
        reference.setCalibration(calibration.get(), gs->boxParameter);
        // The same boxes, in the same order, with the same thresholds.
        ASSERT_EQ(engine.boxes.size(), reference.boxes.size());
        auto key = [](const ScanBox& b) {
            return std::tuple(b.x, b.y, b.width, b.height, b.centerIndex, b.threshold, b.region);
        };
        for (std::size_t i = 0; i < engine.boxes.size(); ++i)
            ASSERT_EQ(key(engine.boxes[i]), key(reference.boxes[i])) << "box " << i;
        engine.triggerBgRefresh(true, false);
        reference.triggerBgRefresh(true, false);

        std::vector<unsigned char> source, mine, theirs;
        int blobs = 0;
        for (int n = 0; n < s.frames; ++n) {
            s.frame(n, source);
            mine = source;
            theirs = source;
            const bool debug = n % 97 == 0;
            OwnedBlobs a = engine.processImage(mine.data(), s.extended, debug);
            OwnedBlobs b = reference.processImage(theirs.data(), s.extended, debug);
            blobs += a.count();
            ASSERT_EQ(describe(a), describe(b)) << "frame " << n;
            ASSERT_TRUE(mine == theirs) << "the frames left behind differ at frame " << n;
        }
        // The sequence must have something to compare.
        EXPECT_GT(blobs, s.frames / 2);
    }
}
