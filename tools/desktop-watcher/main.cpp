// velora-desktop-watcher [--stamp] [DISPLAY]: prints what reaches the X desktop, one line per
// event:
//   move X Y / press BUTTON X Y / release BUTTON X Y
// With --stamp each line starts with the CLOCK_MONOTONIC time of its arrival in nanoseconds,
// the clock the emulated sensor stamps its frames with.
// A window covering the whole screen catches the pointer, as any application under it would.
#include <X11/Xlib.h>

#include <cstdio>
#include <cstring>
#include <ctime>

int main(int argc, char** argv)
{
    bool stamp = false;
    const char* display = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--stamp") == 0)
            stamp = true;
        else
            display = argv[i];
    }
    Display* dpy = XOpenDisplay(display);
    if (!dpy) {
        std::fprintf(stderr, "%s: cannot open the display\n", argv[0]);
        return 1;
    }
    const int screen = DefaultScreen(dpy);
    XSetWindowAttributes attributes{};
    attributes.override_redirect = True;
    attributes.event_mask = PointerMotionMask | ButtonPressMask | ButtonReleaseMask;
    const Window window = XCreateWindow(dpy, RootWindow(dpy, screen), 0, 0, DisplayWidth(dpy, screen),
                                        DisplayHeight(dpy, screen), 0, CopyFromParent, InputOnly, CopyFromParent,
                                        CWOverrideRedirect | CWEventMask, &attributes);
    XMapRaised(dpy, window);
    XFlush(dpy);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::printf("watching %dx%d\n", DisplayWidth(dpy, screen), DisplayHeight(dpy, screen));
    for (;;) {
        XEvent e;
        XNextEvent(dpy, &e);
        if (stamp && (e.type == MotionNotify || e.type == ButtonPress || e.type == ButtonRelease)) {
            timespec now;
            clock_gettime(CLOCK_MONOTONIC, &now);
            std::printf("%lld ", static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec);
        }
        switch (e.type) {
        case MotionNotify:
            std::printf("move %d %d\n", e.xmotion.x_root, e.xmotion.y_root);
            break;
        case ButtonPress:
        case ButtonRelease:
            std::printf("%s %u %d %d\n", e.type == ButtonPress ? "press" : "release", e.xbutton.button,
                        e.xbutton.x_root, e.xbutton.y_root);
            break;
        default:
            break;
        }
    }
}
