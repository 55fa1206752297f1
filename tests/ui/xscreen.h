#pragma once
// The screens' tests on a private X server: waiting on the main thread's events, pictures of
// the whole screen as the server has it, window properties, and the laser alignment dots'
// colours. The end-to-end tests of the service's windows use it too.
#include "eventwait.h"

#include <QCoreApplication>
#include <QImage>
#include <QThread>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

// Xlib last: its macros clash with the names of the headers above; include this file last.
#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#undef None
#undef Bool
#undef Status

inline QImage grab(Display* dpy)
{
    XSync(dpy, False);
    const Window root = DefaultRootWindow(dpy);
    XWindowAttributes a;
    XGetWindowAttributes(dpy, root, &a);
    XImage* x = XGetImage(dpy, root, 0, 0, a.width, a.height, AllPlanes, ZPixmap);
    QImage img(reinterpret_cast<const uchar*>(x->data), a.width, a.height, x->bytes_per_line, QImage::Format_RGB32);
    img = img.copy();
    XDestroyImage(x);
    return img;
}

// A property of the window as items of its format: char for 8 bits, long for 32.
template <typename T> std::vector<T> windowProperty(Display* dpy, Window w, const char* name, Atom type)
{
    XSync(dpy, False);
    Atom actual;
    int format;
    unsigned long n, rest;
    unsigned char* data = nullptr;
    std::vector<T> out;
    if (XGetWindowProperty(dpy, w, XInternAtom(dpy, name, False), 0, 256, False, type, &actual, &format, &n, &rest,
                           &data)
            == Success
        && data) {
        out.assign(reinterpret_cast<T*>(data), reinterpret_cast<T*>(data) + n);
        XFree(data);
    }
    return out;
}

inline std::string windowTitle(Display* dpy, Window w)
{
    const auto name = windowProperty<char>(dpy, w, "_NET_WM_NAME", XInternAtom(dpy, "UTF8_STRING", False));
    return std::string(name.begin(), name.end());
}

// A laser alignment dot that waits for its finger, and one that is done (its check mark).
inline bool activeDotBlue(QRgb c)
{
    return qBlue(c) >= 200 && qGreen(c) >= 150 && qRed(c) <= 40;
}
inline bool doneDotGreen(QRgb c)
{
    return qGreen(c) >= 130 && qRed(c) <= 40 && qBlue(c) <= 50;
}
