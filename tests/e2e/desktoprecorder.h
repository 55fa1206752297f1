#pragma once
// What reaches the test's X window in single-pointer mode: every left press to its release is
// one gesture (with the pointer's positions in between), other buttons and moves are kept
// apart. Read while the run plays, so that the server's queue never fills.
#include "endtoendrun.h"
#include "xtestdesktop.h"

class DesktopRecorder {
public:
    std::vector<Gesture> gestures;
    std::vector<std::pair<double, double>> moves;
    std::vector<unsigned> otherButtons;

    explicit DesktopRecorder(XTestDesktop& desktop) : dpy(desktop.dpy)
    {
        XSelectInput(dpy, desktop.window, ButtonPressMask | ButtonReleaseMask | PointerMotionMask);
        XSync(dpy, False);
    }

    void read()
    {
        while (XPending(dpy) > 0) {
            XEvent e;
            XNextEvent(dpy, &e);
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
    }

    // Every stroke one left drag on its path, the pointer never off the drawn paths, no other
    // button, and the touch device silent.
    void expectStrokes(const EndToEndRun& run, size_t strokes, double tolerance) const
    {
        const auto tracks = run.tracks();
        ASSERT_EQ(tracks.size(), strokes) << "the emulator drew fewer spots than the scene has";
        EXPECT_TRUE(run.events.empty()) << "the touch device heard of a single-pointer gesture";
        EXPECT_TRUE(otherButtons.empty()) << "button " << otherButtons.front() << " arrived";
        ASSERT_FALSE(moves.empty());
        for (const auto& [x, y] : moves) {
            double nearest = 1e18;
            for (const auto& [id, track] : tracks)
                nearest = std::min(nearest, distanceToTrack(track, x, y));
            EXPECT_LE(nearest, tolerance) << "the pointer went to (" << x << ", " << y << ")";
        }
        expectOneGesturePerStroke(gestures, tracks, tolerance);
    }

private:
    Display* dpy;
};

// Single-pointer mode on a private 1280x1024 X server: the scene played for `seconds`, then
// every stroke one left drag on its path.
inline void expectLeftDragPerStroke(const char* scene, int inputMode, double seconds, size_t strokes,
                                    double tolerance)
{
    XTestDesktop desktop;
    ASSERT_TRUE(desktop.start()) << desktop.failure;
    DesktopRecorder recorder(desktop);

    EndToEndRun run;
    run.idle = [&] { recorder.read(); };
    ASSERT_NO_FATAL_FAILURE(run.run(scene, inputMode, 0, seconds, 1280, 1024));
    // After the run: the rest of the queue.
    XSync(desktop.dpy, False);
    recorder.read();
    recorder.expectStrokes(run, strokes, tolerance);
}
