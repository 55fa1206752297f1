// The live sensor viewer end to end: velora on the emulated sensor and a private X server,
// opened by velora-ctl. Its window must show what the emulated camera renders; Up and Down
// reach the exposure register, Enter swings the filter, Esc closes it with the answer, and
// the pointer output that was off meanwhile comes back. One velora run for all of it.
#include "framerenderer.h"
#include "scene.h"
#include "velorarun.h"

#include <optional>
#include <thread>

namespace {

// Levels as written at the stylus exposure; a stroke again and again, for the pointer. Each
// loop begins with three quiet seconds, in which the mode change learns its background: a
// stroke learnt into it would keep the stylus from being seen for a long while.
constexpr const char* sceneText = R"(screen 1920 1080
lens factory
fps 60
noise 1
background 40
exposure 80
loop 4
stroke stylus 3.0 0.8 size 9 brightness 380 path 400,300 1500,800
)";

class SensorViewerRun : public ::testing::Test, protected VeloraRun {
protected:
    void SetUp() override { start(sceneText, userDir() + "stylus-velora.ini", "1920x1080x24"); }

    // Whether the pointer moves within ms: the looping stroke moves it if the output is on.
    bool pointerMoves(int ms)
    {
        const auto first = pointer();
        return waitUntil([&] { return pointer() != first; }, ms);
    }

    // The shown window of that title, as the X server places it.
    std::optional<QRect> window(const std::string& title, Window* id = nullptr)
    {
        XSync(dpy, False);
        Window root, parent, *children = nullptr;
        unsigned n = 0;
        std::optional<QRect> found;
        XQueryTree(dpy, DefaultRootWindow(dpy), &root, &parent, &children, &n);
        for (unsigned i = 0; i < n && !found; ++i) {
            XWindowAttributes a;
            if (XGetWindowAttributes(dpy, children[i], &a) && a.map_state == IsViewable
                && windowTitle(dpy, children[i]) == title) {
                found = QRect(a.x, a.y, a.width, a.height);
                if (id)
                    *id = children[i];
            }
        }
        if (children)
            XFree(children);
        return found;
    }

    // The full frame the service assembles, as the emulator renders it: the device's window
    // of the last frame sent, black around it, with no stroke in it.
    std::vector<uint8_t> expectedFrame(int exposure, bool picture)
    {
        Scene scene;
        std::string error;
        EXPECT_TRUE(Scene::parse(sceneText, "scene", ".", scene, error)) << error;
        const auto truth = run->truth();
        EXPECT_FALSE(truth.empty());
        const EmulatedRun::Sent& last = truth.rbegin()->second;
        FrameGeometry g;
        g.x = last.x, g.y = last.y, g.width = last.w, g.height = last.h;
        std::vector<uint8_t> window(static_cast<size_t>(g.bytes()));
        RenderState state;
        state.time = 1.9;  // between two strokes
        state.exposure = exposure;
        state.pictureShown = picture;
        std::vector<SpotTruth> spots;
        FrameRenderer(scene).render(window.data(), g, state, spots);
        std::vector<uint8_t> full(static_cast<size_t>(scene.sensorWidth) * scene.sensorHeight, 0);
        for (int r = 0; r < g.height; ++r)
            std::copy_n(window.begin() + r * g.width, g.width, full.begin() + (g.y + r) * scene.sensorWidth + g.x);
        return full;
    }

    // Share of the samples of the picture in the window that agree with the frame: each grey
    // within the levels of the frame's pixels around the point it shows. The help box at the
    // top left is left out.
    double agreement(const QImage& shot, const QRect& w, const std::vector<uint8_t>& frame)
    {
        const int fw = 752, fh = 480;
        const double s = std::min(double(w.width()) / fw, double(w.height()) / fh);
        const double x0 = w.x() + (w.width() - fw * s) / 2, y0 = w.y() + (w.height() - fh * s) / 2;
        int samples = 0, agree = 0;
        for (int sy = 8; sy < fh - 8; sy += 9)
            for (int sx = 8; sx < fw - 8; sx += 9) {
                const int px = int(x0 + (sx + 0.5) * s), py = int(y0 + (sy + 0.5) * s);
                if ((px - w.x() < 700 && py - w.y() < 350) || !shot.rect().contains(px, py))
                    continue;
                int lo = 255, hi = 0;
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx) {
                        const int v = frame[size_t((sy + dy) * fw + sx + dx)];
                        lo = std::min(lo, v), hi = std::max(hi, v);
                    }
                const int grey = qGreen(shot.pixel(px, py));
                ++samples;
                agree += grey >= lo - 5 && grey <= hi + 5;
            }
        return samples ? double(agree) / samples : 0;
    }

    // Waits until the window shows the frame (new frames replace the former picture), and
    // keeps the last screenshot for people to look at.
    double showsFrame(const char* name, const QRect& w, const std::vector<uint8_t>& frame)
    {
        QImage shot;
        double share = 0;
        waitUntil(
            [&] {
                shot = grab();
                share = agreement(shot, w, frame);
                return share > 0.97;
            },
            15000);
        shot.save(QString(VELORA_SCREENSHOT_DIR) + "/" + name + ".png");
        return share;
    }

    // The values written to an imager register, or the levels set on an output, in order,
    // from the write with index from on; the sensor's repeats of a write are folded.
    std::vector<int> values(const char* kind, int which, size_t from)
    {
        const auto w = run->controlWrites();
        std::vector<int> out;
        for (size_t i = from; i < w.size(); ++i)
            if (w[i].kind == kind && w[i].a == which && (i == from || !(w[i] == w[i - 1])))
                out.push_back(w[i].b);
        return out;
    }
};

TEST_F(SensorViewerRun, ShowsTheCameraTakesItsKeysAndGivesThePointerBack)
{
    ASSERT_TRUE(waitUntil([&] { return std::fmod(streamSeconds(run->path("truth.txt")), 4.0) < 0.5; }, 10000));
    ASSERT_EQ(ctl({"stylus"}).first, 0) << qPrintable(log());
    ASSERT_TRUE(pointerMoves(8000)) << "the stroke drives the pointer before the viewer\n" << qPrintable(log());
    const size_t before = run->controlWrites().size();

    std::pair<int, QString> viewerAnswer;
    std::thread viewer([&] { viewerAnswer = ctl({"viewer"}); });
    // A failed assertion returns early: velora-ctl then gives up after its own wait.
    const std::unique_ptr<std::thread, void (*)(std::thread*)> joined(&viewer, [](std::thread* t) {
        if (t->joinable())
            t->join();
    });
    std::optional<QRect> w;
    Window id = 0;
    ASSERT_TRUE(waitUntil([&] { return (w = window("Sensor Viewer", &id)).has_value(); }, 20000)) << qPrintable(log());
    // What a window manager does for a new window; this server has none.
    XSetInputFocus(dpy, id, RevertToParent, CurrentTime);
    XSync(dpy, False);
    EXPECT_GT(showsFrame("viewer_opened", *w, expectedFrame(80, false)), 0.97) << "the live picture";
    EXPECT_FALSE(pointerMoves(2500)) << "no pointer output while the viewer is open";

    key("Up", 12000);
    key("Up", 12000);
    key("Down", 12000);
    EXPECT_TRUE(waitUntil([&] { return values("reg", 11, before).size() >= 3; }, 10000));
    EXPECT_EQ(values("reg", 11, before), (std::vector<int>{90, 100, 90}));

    key("Return", 12000);
    viewer.join();
    EXPECT_EQ(viewerAnswer.first, 0) << "switching the filter answers the menu";
    EXPECT_EQ(values("out", 128, before), (std::vector<int>{1, 0}));
    EXPECT_GT(showsFrame("viewer_filter_swung", *w, expectedFrame(90, true)), 0.97) << "the projected picture";

    const QString answerFile = userDir() + "refifo";
    QFile::remove(answerFile);
    key("Escape", 12000);
    EXPECT_TRUE(waitUntil([&] { return QFile::exists(answerFile); }, 10000)) << "the answer when it closes";
    EXPECT_TRUE(waitUntil([&] { return !window("Sensor Viewer"); }, 10000)) << "the window goes";
    EXPECT_EQ(values("out", 64, before), (std::vector<int>{1, 0})) << "the filter back for tracking";
    EXPECT_EQ(values("reg", 11, before).back(), 80) << "the exposure of the input mode";
    EXPECT_TRUE(pointerMoves(8000)) << "the pointer output comes back\n" << qPrintable(log());
}

} // namespace
