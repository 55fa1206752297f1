// The emulated camera looking at a private X screen: the projector puts the screen's picture on
// the sensor through the scene's geometry, a latency late, and emulated users press the targets
// they see on it. The truth file tells where and when.
#include "emulatorsession.h"
#include "../pointer/xtestdesktop.h"

#include "scene.h"
#include "screenprojection.h"

#include <cmath>
#include <functional>
#include <map>

namespace {

constexpr int screenW = 1280, screenH = 1024;  // XTestDesktop's screen

std::string sceneWith(const std::string& more)
{
    return "sensor 752 480\nfps 120\nscreen 1280 1024\ncorners 80 50 680 60 690 430 70 420\n"
           "lens 600 600 376 240 -0.1 0.02\nbackground 10\nnoise 0\nstamp on\npicture 200\n"
        + more;
}

ScreenProjection sceneProjection()
{
    Scene s;
    std::string error;
    EXPECT_TRUE(Scene::parse(sceneWith(""), "test", ".", s, error)) << error;
    return ScreenProjection(s.screenWidth, s.screenHeight, s.corners, s.lens);
}

using Frames = std::map<uint32_t, std::vector<unsigned char>>;

// A black window over the whole private screen to draw targets on.
class EmulatorScreen : public OnSuiteDesktop<>
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(desk->dpy) << desk->failure;
        Display* d = desk->dpy;
        XSetWindowAttributes a{};
        a.override_redirect = True;
        a.background_pixel = BlackPixel(d, DefaultScreen(d));
        canvas = XCreateWindow(d, DefaultRootWindow(d), 0, 0, screenW, screenH, 0, CopyFromParent, InputOutput,
                               CopyFromParent, CWOverrideRedirect | CWBackPixel, &a);
        XMapRaised(d, canvas);
        gc = XCreateGC(d, canvas, 0, nullptr);
        XSync(d, False);
    }

    void TearDown() override
    {
        if (canvas) {
            XFreeGC(desk->dpy, gc);
            XDestroyWindow(desk->dpy, canvas);
            XSync(desk->dpy, False);
        }
    }

    void fill(unsigned long rgb, int x, int y, int w, int h)
    {
        XSetForeground(desk->dpy, gc, rgb);
        XFillRectangle(desk->dpy, canvas, gc, x, y, static_cast<unsigned>(w), static_cast<unsigned>(h));
        XSync(desk->dpy, False);
    }

    // Frames for a while, or until one shows what is waited for (a busy or instrumented
    // machine looks at the screen later), by their stamp (the device's frame number).
    static void stream(EmulatorSession& s, double seconds, Frames& frames,
                       const std::function<bool(const std::vector<unsigned char>&)>& done = {})
    {
        const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < until && (!done || frames.empty() || !done(frames.rbegin()->second))) {
            auto f = s.grab();
            ASSERT_EQ(f.status, LIBUSB_TRANSFER_COMPLETED);
            const uint32_t stamp = f.stamp();
            std::fill(f.data.begin(), f.data.begin() + 4, 0);  // the stamp is no picture
            frames[stamp] = std::move(f.data);
        }
    }

    Window canvas = 0;
    GC gc{};
};

// Pixels brighter than the threshold: how many, and their mean column and row.
std::tuple<int, double, double> brightRegion(const std::vector<unsigned char>& frame, int threshold)
{
    int pixels = 0;
    double x = 0, y = 0;
    for (int i = 752; i < 752 * 480; ++i) {  // row 0 holds the stamp
        if (frame[static_cast<size_t>(i)] > threshold) {
            ++pixels;
            x += i % 752;
            y += i / 752;
        }
    }
    return {pixels, pixels ? x / pixels : 0, pixels ? y / pixels : 0};
}

void showPicture(EmulatorSession& s, bool picture)
{
    s.setOutput(picture ? 128 : 64, 1);
    s.setOutput(picture ? 128 : 64, 0);
}

TEST_F(EmulatorScreen, ProjectorShowsTheScreenThroughTheGeometryOnlyWithThePicture)
{
    fill(0xFFFFFF, 400, 300, 160, 120);
    EmulatorSession s(sceneWith("projector display latency 0.05 rate 60\n"));
    ASSERT_EQ(s.start(), 0);
    Frames frames;
    stream(s, 0.2, frames);
    EXPECT_EQ(std::get<0>(brightRegion(frames.rbegin()->second, 60)), 0) << "seen through the tracking filter";

    showPicture(s, true);
    frames.clear();
    stream(s, 10, frames, [](const std::vector<unsigned char>& f) { return std::get<0>(brightRegion(f, 110)) > 100; });
    const auto [pixels, x, y] = brightRegion(frames.rbegin()->second, 110);
    double wantX, wantY;
    sceneProjection().toSensor(480, 360, wantX, wantY);
    ASSERT_GT(pixels, 100);
    EXPECT_NEAR(x, wantX, 1.0);
    EXPECT_NEAR(y, wantY, 1.0);
    // White is the picture level over the background; black adds nothing.
    EXPECT_NEAR(frames.rbegin()->second[static_cast<size_t>(std::lround(wantY)) * 752 + std::lround(wantX)], 210, 2);
    EXPECT_EQ(frames.rbegin()->second[752 * 240 + 150], 10);

    showPicture(s, false);
    frames.clear();
    stream(s, 0.1, frames);
    EXPECT_EQ(std::get<0>(brightRegion(frames.rbegin()->second, 60)), 0);
}

TEST_F(EmulatorScreen, ProjectedChangeReachesTheCameraNoSoonerThanTheLatency)
{
    const double latency = 0.15;
    EmulatorSession s(sceneWith("projector display latency 0.15 rate 100\n"));
    ASSERT_EQ(s.start(), 0);
    showPicture(s, true);
    Frames frames;
    stream(s, 0.2, frames);
    const int64_t changedAt =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
    fill(0xFFFFFF, 600, 500, 100, 100);
    stream(s, 10, frames, [](const std::vector<unsigned char>& f) { return std::get<0>(brightRegion(f, 110)) > 0; });
    stream(s, 0.1, frames);
    s.finish();

    int before = 0, after = 0;
    for (const auto& l : s.lines("truth.txt", "F")) {
        const auto frame = frames.find(static_cast<uint32_t>(std::stoul(l[1])));
        if (frame == frames.end())
            continue;
        const bool seen = std::get<0>(brightRegion(frame->second, 110)) > 0;
        const bool early = std::stoll(l[3]) < changedAt + static_cast<int64_t>(latency * 1e9);
        EXPECT_FALSE(seen && early) << "frame " << l[1] << " shows the change before the latency";
        before += early;
        after += seen;
    }
    EXPECT_GT(before, 0);
    EXPECT_GT(after, 0);
}

// Two red squares one after the other; the user presses each once, near its centre, and the
// stylus spot is in exactly the frames between press and release, where the projection puts it.
TEST_F(EmulatorScreen, UserPressesEachNewTargetNearItsCentreForTheHold)
{
    double secondX, secondY;
    sceneProjection().toSensor(900, 700, secondX, secondY);
    // The phases wait on what the camera sees, not on the clock: an instrumented build sees the
    // screen and presses much later than a plain one.
    const auto spot = [](bool lit) {
        return [lit](const std::vector<unsigned char>& f) { return (std::get<0>(brightRegion(f, 110)) > 0) == lit; };
    };
    const auto onSecond = [&](const std::vector<unsigned char>& f) {
        const auto [pixels, x, y] = brightRegion(f, 110);
        return pixels > 0 && std::hypot(x - secondX, y - secondY) < 15;
    };
    for (const bool untilChange : {false, true}) {
        const std::string hold = untilChange ? "hold change" : "hold 0.3";
        SCOPED_TRACE(hold);
        fill(0x000000, 0, 0, screenW, screenH);
        fill(0xFF0000, 295, 195, 11, 11);  // centre (300, 200)
        EmulatorSession s(sceneWith("user stylus 0 target #ff0000 tolerance 30 reaction 0.1 accuracy 6 count 2 "
                                    + hold + " size 6\n"));
        ASSERT_EQ(s.start(), 0);
        Frames frames;
        stream(s, 10, frames, spot(true));
        if (untilChange)
            stream(s, 0.2, frames);
        else
            stream(s, 10, frames, spot(false));
        fill(0x000000, 295, 195, 11, 11);
        fill(0xF01010, 896, 696, 9, 9);  // centre (900, 700), a near red
        stream(s, 10, frames, onSecond);
        if (untilChange)
            fill(0x000000, 896, 696, 9, 9);
        stream(s, 10, frames, spot(false));
        stream(s, 0.1, frames);
        s.finish();

        const std::vector<EmulatorSession::Press> presses = s.presses();
        std::map<uint32_t, double> frameTime, spotId;
        for (const auto& l : s.lines("truth.txt", "F"))
            frameTime[static_cast<uint32_t>(std::stoul(l[1]))] = std::stod(l[2]);
        for (const auto& l : s.lines("truth.txt", "S"))
            spotId[static_cast<uint32_t>(std::stoul(l[1]))] = std::stod(l[2]);
        ASSERT_EQ(presses.size(), 2u);
        const double targets[2][2] = {{300, 200}, {900, 700}};
        const ScreenProjection projection = sceneProjection();
        for (size_t i = 0; i < 2; ++i) {
            const auto& p = presses[i];
            EXPECT_EQ(p.kind, "stylus");
            EXPECT_NEAR(p.targetX, targets[i][0], 1.0);
            EXPECT_NEAR(p.targetY, targets[i][1], 1.0);
            EXPECT_LE(std::hypot(p.pressX - p.targetX, p.pressY - p.targetY), 6.0 + 1e-3);
            double sx, sy;
            projection.toSensor(p.pressX, p.pressY, sx, sy);
            EXPECT_NEAR(p.sensorX, sx, 1e-2);
            EXPECT_NEAR(p.sensorY, sy, 1e-2);
            ASSERT_GT(p.released, p.t);
            if (!untilChange) {
                // Lifted on the first frame tick after the hold; a busy machine may skip ticks.
                EXPECT_GE(p.released - p.t, 0.3 - 1e-6);
                EXPECT_LT(p.released - p.t, 1.0);
            }
            for (const auto& [stamp, t] : frameTime) {
                const bool held = t >= p.t && t < p.released;
                const bool mine = spotId.count(stamp) && spotId[stamp] == p.id;
                EXPECT_EQ(held, mine) << "frame at " << t << " s";
                if (mine && frames.count(stamp)) {
                    auto [bx, by] = brightest(frames[stamp], 752);
                    EXPECT_NEAR(bx, p.sensorX, 1.0);
                    EXPECT_NEAR(by, p.sensorY, 1.0);
                }
            }
        }
        EXPECT_GT(presses[1].t, presses[0].released);
        EXPECT_NE(presses[0].id, presses[1].id);
    }
}

TEST(EmulatorScreenScene, BadStatementsNameTheirLine)
{
    std::string error;
    for (const char* statement :
         {"projector on", "projector display latency", "projector display rate 0", "projector display speed 3",
          "user stylus 1", "user pen 1 target #ff0000", "user stylus 1 target red",
          "user stylus 1 target #ff0000 hold soon", "user finger 1 target #ff0000 accuracy -2", "user stylus 1 hold 2",
          "reflection 10 10 5 100 from", "reflection 10 10 5 100 from 3 until 2", "reflection 10 10 5 100 at 3"}) {
        Scene bad;
        EXPECT_FALSE(Scene::parse(std::string("fps 60\n") + statement + "\n", "x.scene", ".", bad, error)) << statement;
        EXPECT_TRUE(error.starts_with("x.scene:2: ")) << error;
    }
    Scene s;
    ASSERT_TRUE(Scene::parse("projector display latency 0.2\nuser finger 2 target #00ff00 hold change count 3\n"
                             "reflection 1 2 3 4 from 5 until 6\n",
                             "x.scene", ".", s, error))
        << error;
    EXPECT_TRUE(s.projector);
    EXPECT_DOUBLE_EQ(s.projectorLatency, 0.2);
    ASSERT_EQ(s.users.size(), 1u);
    EXPECT_EQ(std::tuple(s.users[0].hold < 0, s.users[0].target.g, s.users[0].count), std::tuple(true, 255, 3));
    ASSERT_EQ(s.reflections.size(), 1u);
    EXPECT_DOUBLE_EQ(s.reflections[0].until, 6);
}

} // namespace
