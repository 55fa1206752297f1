#include "screencapture.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

struct ScreenCapture::Connection {
    Display* dpy = nullptr;
    Window root = 0;
    int width = 0, height = 0;
    bool shm = false;
    XShmSegmentInfo segment{};
    XImage* image = nullptr;  // the shared one, when shm
    std::vector<uint8_t> mask;  // per colour, per luminance pixel: some desktop pixel matches
    std::vector<int> label;
    std::vector<int> stack;

    ~Connection()
    {
        if (image) {
            XShmDetach(dpy, &segment);
            XDestroyImage(image);
            shmdt(segment.shmaddr);
        }
        if (dpy) {
            XCloseDisplay(dpy);
        }
    }
};

namespace {
bool attachFailed = false;

int noteAttachError(Display*, XErrorEvent*)
{
    attachFailed = true;
    return 0;
}

int shiftOf(unsigned long mask)
{
    int s = 0;
    while (mask && !(mask & 1)) {
        mask >>= 1;
        ++s;
    }
    return s;
}
} // namespace

ScreenCapture::ScreenCapture(std::vector<ColourMatch> c, double rateHz, double w, double h)
    : colours(std::move(c)),
      period(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / rateHz))),
      screenWidth(w), screenHeight(h)
{
    thread = std::thread([this] { run(); });
    pthread_setname_np(thread.native_handle(), "emu-screen");
}

ScreenCapture::~ScreenCapture()
{
    {
        std::lock_guard<std::mutex> lock(mu);
        stopping = true;
    }
    wake.notify_all();
    thread.join();
}

void ScreenCapture::keepFor(Clock::duration span)
{
    std::lock_guard<std::mutex> lock(mu);
    keep = span;
}

std::shared_ptr<const ScreenCapture::Look> ScreenCapture::seenAt(Clock::time_point t) const
{
    std::lock_guard<std::mutex> lock(mu);
    for (auto it = history.rbegin(); it != history.rend(); ++it) {
        if ((*it)->at <= t) {
            return *it;
        }
    }
    return nullptr;
}

bool ScreenCapture::connect(Connection& c, std::string& error)
{
    const char* name = std::getenv("DISPLAY");
    if (!name || !*name) {
        error = "DISPLAY is not set";
        return false;
    }
    c.dpy = XOpenDisplay(name);
    if (!c.dpy) {
        error = std::string("cannot open display ") + name;
        return false;
    }
    c.root = DefaultRootWindow(c.dpy);
    c.width = DisplayWidth(c.dpy, DefaultScreen(c.dpy));
    c.height = DisplayHeight(c.dpy, DefaultScreen(c.dpy));
    Visual* visual = DefaultVisual(c.dpy, DefaultScreen(c.dpy));
    if (DefaultDepth(c.dpy, DefaultScreen(c.dpy)) < 24 || visual->c_class != TrueColor) {
        error = "the screen is not 24-bit true colour";
        return false;
    }
    if (!XShmQueryExtension(c.dpy)) {
        return true;  // XGetImage each time: slower, same pictures
    }
    c.image = XShmCreateImage(c.dpy, visual, static_cast<unsigned>(DefaultDepth(c.dpy, DefaultScreen(c.dpy))),
                              ZPixmap, nullptr, &c.segment, static_cast<unsigned>(c.width),
                              static_cast<unsigned>(c.height));
    if (!c.image) {
        return true;
    }
    c.segment.shmid = shmget(IPC_PRIVATE, static_cast<size_t>(c.image->bytes_per_line) * c.height, IPC_CREAT | 0600);
    c.segment.shmaddr = c.image->data = c.segment.shmid >= 0 ? static_cast<char*>(shmat(c.segment.shmid, nullptr, 0))
                                                               : reinterpret_cast<char*>(-1);
    if (c.segment.shmaddr == reinterpret_cast<char*>(-1)) {
        c.image->data = nullptr;
        XDestroyImage(c.image);
        c.image = nullptr;
        return true;
    }
    c.segment.readOnly = False;
    // A server on another machine refuses the segment with an X error, which would end the
    // process under the default handler; the handler is replaced only for this round trip.
    attachFailed = false;
    auto previous = XSetErrorHandler(noteAttachError);
    XShmAttach(c.dpy, &c.segment);
    XSync(c.dpy, False);
    XSetErrorHandler(previous);
    shmctl(c.segment.shmid, IPC_RMID, nullptr);  // freed once both sides let go
    if (attachFailed) {
        XDestroyImage(c.image);
        shmdt(c.segment.shmaddr);
        c.image = nullptr;
    }
    c.shm = c.image != nullptr;
    return true;
}

void ScreenCapture::run()
{
    Connection c;
    std::string error;
    if (!connect(c, error)) {
        std::fprintf(stderr, "sensor emulator: no X screen to look at (%s)\n", error.c_str());
        return;
    }
    uint64_t sequence = 0;
    auto next = Clock::now();
    std::unique_lock<std::mutex> lock(mu);
    while (!stopping) {
        lock.unlock();
        std::shared_ptr<Look> look = take(c);
        lock.lock();
        if (look) {
            look->sequence = ++sequence;
            history.push_back(std::move(look));
            // Keep the newest look older than the span: it is what the span's far end sees.
            const auto oldest = history.back()->at - keep;
            while (history.size() > 1 && history[1]->at <= oldest) {
                history.pop_front();
            }
        }
        next += period;
        const auto now = Clock::now();
        if (next < now) {
            next = now;  // fell behind: no catching up with a burst
        }
        wake.wait_until(lock, next, [this] { return stopping; });
    }
}

std::shared_ptr<ScreenCapture::Look> ScreenCapture::take(Connection& c)
{
    XImage* image = nullptr;
    if (c.shm) {
        if (!XShmGetImage(c.dpy, c.root, c.image, 0, 0, AllPlanes)) {
            return nullptr;
        }
        image = c.image;
    } else {
        image = XGetImage(c.dpy, c.root, 0, 0, static_cast<unsigned>(c.width), static_cast<unsigned>(c.height),
                          AllPlanes, ZPixmap);
        if (!image) {
            return nullptr;
        }
    }
    auto look = std::make_shared<Look>();
    look->at = Clock::now();
    look->desktopWidth = c.width;
    look->desktopHeight = c.height;
    if (image->bits_per_pixel == 32) {
        const uint32_t masks[3] = {static_cast<uint32_t>(image->red_mask), static_cast<uint32_t>(image->green_mask),
                                   static_cast<uint32_t>(image->blue_mask)};
        analyse(c, reinterpret_cast<const uint32_t*>(image->data), image->bytes_per_line / 4, *look, masks);
    } else {
        look = nullptr;
    }
    if (!c.shm) {
        XDestroyImage(image);
    }
    return look;
}

void ScreenCapture::analyse(Connection& c, const uint32_t* pixels, int stride, Look& look, const uint32_t masks[3])
{
    const int rs = shiftOf(masks[0]), gs = shiftOf(masks[1]), bs = shiftOf(masks[2]);
    const int w = look.desktopWidth / look.scale, h = look.desktopHeight / look.scale;
    const size_t cells = static_cast<size_t>(w) * h;
    const size_t n = colours.size();
    look.width = w;
    look.height = h;
    look.luminance.assign(cells, 0);
    c.mask.assign(cells * n, 0);

    auto matches = [&](uint32_t p, const ColourMatch& m) {
        return std::abs(static_cast<int>(p >> rs & 255) - m.colour.r) <= m.tolerance
            && std::abs(static_cast<int>(p >> gs & 255) - m.colour.g) <= m.tolerance
            && std::abs(static_cast<int>(p >> bs & 255) - m.colour.b) <= m.tolerance;
    };
    for (int y = 0; y < h; ++y) {
        const uint32_t* row0 = pixels + static_cast<size_t>(2 * y) * stride;
        const uint32_t* row1 = row0 + stride;
        uint8_t* out = look.luminance.data() + static_cast<size_t>(y) * w;
        for (int x = 0; x < w; ++x) {
            const uint32_t quad[4] = {row0[2 * x], row0[2 * x + 1], row1[2 * x], row1[2 * x + 1]};
            unsigned sum = 0;
            for (uint32_t p : quad) {
                sum += 77 * (p >> rs & 255) + 150 * (p >> gs & 255) + 29 * (p >> bs & 255);
            }
            out[x] = static_cast<uint8_t>(sum >> 10);
            for (size_t k = 0; k < n; ++k) {
                c.mask[k * cells + static_cast<size_t>(y) * w + x] = matches(quad[0], colours[k])
                    || matches(quad[1], colours[k]) || matches(quad[2], colours[k]) || matches(quad[3], colours[k]);
            }
        }
    }

    // Per colour: the largest 8-connected patch on the half-resolution mask, then the centroid
    // of its matching desktop pixels, so that the position is exact to the desktop pixel.
    look.sightings.assign(n, Sighting{});
    c.label.resize(cells);
    for (size_t k = 0; k < n; ++k) {
        const uint8_t* mask = c.mask.data() + k * cells;
        std::fill(c.label.begin(), c.label.end(), 0);
        int labels = 0, best = 0;
        size_t bestSize = 0;
        int box[4] = {0, 0, 0, 0}, bestBox[4] = {0, 0, 0, 0};  // x0 y0 x1 y1, half resolution
        for (size_t start = 0; start < cells; ++start) {
            if (!mask[start] || c.label[start]) {
                continue;
            }
            ++labels;
            size_t size = 0;
            c.stack.assign(1, static_cast<int>(start));
            c.label[start] = labels;
            box[0] = box[2] = static_cast<int>(start % static_cast<size_t>(w));
            box[1] = box[3] = static_cast<int>(start / static_cast<size_t>(w));
            while (!c.stack.empty()) {
                const int i = c.stack.back();
                c.stack.pop_back();
                ++size;
                const int x = i % w, y = i / w;
                box[0] = std::min(box[0], x);
                box[1] = std::min(box[1], y);
                box[2] = std::max(box[2], x);
                box[3] = std::max(box[3], y);
                for (int dy = -1; dy <= 1; ++dy) {
                    for (int dx = -1; dx <= 1; ++dx) {
                        const int nx = x + dx, ny = y + dy;
                        if (nx < 0 || ny < 0 || nx >= w || ny >= h) {
                            continue;
                        }
                        const int j = ny * w + nx;
                        if (mask[j] && !c.label[static_cast<size_t>(j)]) {
                            c.label[static_cast<size_t>(j)] = labels;
                            c.stack.push_back(j);
                        }
                    }
                }
            }
            if (size > bestSize) {
                bestSize = size;
                best = labels;
                std::copy(box, box + 4, bestBox);
            }
        }
        if (!best) {
            continue;
        }
        double sx = 0, sy = 0;
        int area = 0;
        for (int y = 2 * bestBox[1]; y < 2 * bestBox[3] + 2; ++y) {
            const uint32_t* row = pixels + static_cast<size_t>(y) * stride;
            const int* labelRow = c.label.data() + static_cast<size_t>(y / 2) * w;
            for (int x = 2 * bestBox[0]; x < 2 * bestBox[2] + 2; ++x) {
                if (labelRow[x / 2] == best && matches(row[x], colours[k])) {
                    sx += x;
                    sy += y;
                    ++area;
                }
            }
        }
        Sighting& s = look.sightings[k];
        s.found = area > 0;
        s.area = area;
        if (area > 0) {
            s.x = sx / area * screenWidth / look.desktopWidth;
            s.y = sy / area * screenHeight / look.desktopHeight;
        }
    }
}
