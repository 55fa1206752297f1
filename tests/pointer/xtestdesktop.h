#pragma once
// A private X server for one test binary, with a window that records the buttons pressed
// on it.

#include <X11/Xlib.h>
#include <gtest/gtest.h>

#include "xvfbserver.h"

#include <poll.h>

#include <chrono>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

class XTestDesktop {
public:
    struct Button {
        bool press;
        unsigned int number;
        int x;
        int y;
        bool operator==(const Button&) const = default;
        friend std::ostream& operator<<(std::ostream& os, const Button& b)
        {
            return os << (b.press ? "press " : "release ") << b.number << " at " << b.x << "," << b.y;
        }
    };

    Display* dpy = nullptr;
    Window window = 0;
    std::string failure;

    // The window covers (left, top) to (left + width, top + height) of a 1280x1024 screen.
    static constexpr int left = 100, top = 100, width = 800, height = 600;

    bool start()
    {
        if (!server.start("1280x1024x24"))
            failure = server.failure;
        else if (!(dpy = XOpenDisplay(server.display.c_str())))
            failure = "cannot open " + server.display;
        else if (!openWindow())
            failure = "the window never showed";
        return failure.empty();
    }

    ~XTestDesktop()
    {
        if (dpy)
            XCloseDisplay(dpy);
        server.stop();
    }

    // Where the server has the pointer, once it has reached (x, y) or after a time-out.
    std::pair<int, int> pointerAt(int x, int y, unsigned int* mask = nullptr)
    {
        std::pair<int, int> at{-1, -1};
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        do {
            Window root, child;
            int wx, wy;
            unsigned int m = 0;
            XQueryPointer(dpy, DefaultRootWindow(dpy), &root, &child, &at.first, &at.second, &wx, &wy, &m);
            if (mask)
                *mask = m;
            if (at.first == x && at.second == y)
                break;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        } while (std::chrono::steady_clock::now() < until);
        return at;
    }

    // The next button event on the window, waiting up to the time-out; number 0 when none came.
    // idle is called while waiting, for example to run the Qt event loop.
    template <typename Idle = void (*)()> Button nextButton(Idle idle = [] {}, int timeoutMs = 10000)
    {
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            while (XPending(dpy) > 0) {
                XEvent e;
                XNextEvent(dpy, &e);
                if (e.type == ButtonPress || e.type == ButtonRelease)
                    return {e.type == ButtonPress, e.xbutton.button, e.xbutton.x_root, e.xbutton.y_root};
            }
            if (std::chrono::steady_clock::now() >= until)
                return {false, 0, 0, 0};
            idle();
            pollfd p{ConnectionNumber(dpy), POLLIN, 0};
            poll(&p, 1, 5);
        }
    }

    // Every button event that has arrived by now, without waiting.
    std::vector<Button> pendingButtons()
    {
        std::vector<Button> out;
        XSync(dpy, False);
        for (Button b; (b = nextButton([] {}, 0)).number != 0;)
            out.push_back(b);
        return out;
    }

private:
    XvfbServer server;

    bool openWindow()
    {
        XSetWindowAttributes attrs{};
        attrs.override_redirect = True;
        attrs.event_mask = ButtonPressMask | ButtonReleaseMask | ExposureMask;
        window = XCreateWindow(dpy, DefaultRootWindow(dpy), left, top, width, height, 0, CopyFromParent,
                               InputOutput, CopyFromParent, CWOverrideRedirect | CWEventMask, &attrs);
        XMapRaised(dpy, window);
        XSync(dpy, False);
        // Input reaches the window only once it is on the screen.
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < until) {
            XEvent e;
            if (XCheckTypedWindowEvent(dpy, window, Expose, &e))
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    }
};

// A private X server shared by the tests of one suite: started in SetUpTestSuite, deleted in
// TearDownTestSuite. A server that does not come up fails the suite, never the machine.
inline XTestDesktop* startSuiteDesktop()
{
    auto* desk = new XTestDesktop();
    if (!desk->start())
        ADD_FAILURE() << "X server: " << desk->failure;
    return desk;
}

// The tests of a suite on one such desktop.
template <typename Base = ::testing::Test> class OnSuiteDesktop : public Base {
protected:
    static inline XTestDesktop* desk = nullptr;
    static void SetUpTestSuite() { desk = startSuiteDesktop(); }
    static void TearDownTestSuite() { delete desk, desk = nullptr; }
};
