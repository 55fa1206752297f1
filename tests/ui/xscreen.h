#pragma once
// The screens' tests on a private X server: waiting on the main thread's events, and
// pictures of the whole screen as the server has it.
#include "eventwait.h"

#include <QCoreApplication>
#include <QImage>
#include <QThread>

#include <chrono>
#include <functional>

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
