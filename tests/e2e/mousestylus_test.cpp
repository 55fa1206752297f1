// A stylus in single-pointer mode on a private X server: each stroke
// and the tap must reach the server as one left press and release, with the pointer on the
// drawn path throughout, and the touch device must stay silent.
#include "endtoendrun.h"
#include "xtestdesktop.h"

namespace {

// Spots as large as in the multi-touch run, for the same reason. The strokes keep inside the
// test window, (100, 100) to (900, 700) of the 1280x1024 desktop, so that every button event
// lands on it.
const char* const scene = R"(
screen 1280 1024
lens factory
stroke stylus 6.0 1.5 size 9 path 200,200 800,200
tap    stylus 8.5 0.2 size 9 at 500,450
stroke stylus 10.0 1.5 size 9 path 250,650 750,300
)";

TEST(MouseStylus, EveryStrokeIsOneLeftDragOnItsPath)
{
    XTestDesktop desktop;
    ASSERT_TRUE(desktop.start()) << desktop.failure;
    XSelectInput(desktop.dpy, desktop.window, ButtonPressMask | ButtonReleaseMask | PointerMotionMask);
    XSync(desktop.dpy, False);

    std::vector<Gesture> gestures;
    std::vector<std::pair<double, double>> moves;
    std::vector<unsigned> otherButtons;
    auto readServer = [&] {
        while (XPending(desktop.dpy) > 0) {
            XEvent e;
            XNextEvent(desktop.dpy, &e);
            if (e.type == MotionNotify) {
                moves.emplace_back(e.xmotion.x_root, e.xmotion.y_root);
                if (!gestures.empty() && !gestures.back().closed)
                    gestures.back().points.emplace_back(e.xmotion.x_root, e.xmotion.y_root);
            } else if (e.type == ButtonPress || e.type == ButtonRelease) {
                if (e.xbutton.button != Button1) {
                    otherButtons.push_back(e.xbutton.button);
                } else if (e.type == ButtonPress) {
                    gestures.push_back({int(gestures.size()), {{double(e.xbutton.x_root), double(e.xbutton.y_root)}}, false});
                } else if (!gestures.empty()) {
                    gestures.back().points.emplace_back(e.xbutton.x_root, e.xbutton.y_root);
                    gestures.back().closed = true;
                }
            }
        }
    };

    EndToEndRun run;
    run.idle = readServer;
    run.run(scene, 1, 0, 13.0, 1280, 1024);
    ASSERT_TRUE(run.started);
    XSync(desktop.dpy, False);
    readServer();

    const auto tracks = run.tracks();
    ASSERT_EQ(tracks.size(), 3u) << "the emulator drew fewer spots than the scene has";
    EXPECT_TRUE(run.events.empty()) << "the touch device heard of a single-pointer gesture";
    EXPECT_TRUE(otherButtons.empty()) << "button " << otherButtons.front() << " arrived";
    ASSERT_FALSE(moves.empty());
    for (const auto& [x, y] : moves) {
        double nearest = 1e18;
        for (const auto& [id, track] : tracks)
            nearest = std::min(nearest, distanceToTrack(track, x, y));
        EXPECT_LE(nearest, 3.0) << "the pointer went to (" << x << ", " << y << ")";
    }
    expectOneGesturePerStroke(gestures, tracks, 3.0);
}

} // namespace
