#include "blob.h"

#include "globalsettings.h"

#include <ctime>

int Blob::incS_Id = 0;

namespace {

// Processor time of the process in milliseconds. clock() is a system call, and an engine
// makes blobs by the dozen per frame; the value is taken again only when the coarse clock
// (read without a system call) has ticked, so it may lag by one tick of a few milliseconds.
int64_t processTimeMs()
{
    thread_local int64_t lastTick = -1;
    thread_local int64_t cached = 0;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    const int64_t tick = static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
    if (tick != lastTick) {
        lastTick = tick;
        cached = static_cast<int64_t>(static_cast<double>(clock()) / 1000000.0 * 1000.0);
    }
    return cached;
}

} // namespace

Blob::Blob(double x_, double y_, double width_, double height_, int id_)
    : id(id_), moved(0), slot(-1), partner(nullptr), reach(999.0), prevFx(0), prevFy(0),
      measureD(0), measureB(0), outside(false)
{
    init(x_, y_, width_, height_);
}

void Blob::init(double x_, double y_, double width_, double height_)
{
    x = x_;
    y = y_;
    width = width_;
    height = height_;
    left = x - width * 0.5;
    top = y - height * 0.5;
    size = width * height;
    timeMs = processTimeMs();
    state = -1;
    lostFrames = 0;
    lostEvents = 0;
    fx = -1;
    fy = -1;
    fresh = true;
    yShift = 0;
    xShift = 0;
    hasShift = 0;
    cellIndex = 0;
    radial = 0;
    sessionId = -1;
    lostReset = 0;
    wasLost = false;
}

double Blob::getDistance(Blob other) const
{
    return (center() - other.center()).length();
}

void Blob::mergeWith(Blob other)
{
    moved = getDistance(other);
    const GS* gs = GS::instance();
    // A blob far out that barely moved holds still: this keeps the picture's edge from jittering.
    const bool held = radial > gs->edgeRadius && moved <= gs->edgeStillDistance;
    if (!held) {
        x = other.x;
        y = other.y;
        left = other.left;
        top = other.top;
        radial = other.radial;
    }
    lostFrames = 0;
    size = other.size;
    outside = other.outside;
    shiftSpare = other.shiftSpare;
    xShift = other.xShift;
    yShift = other.yShift;
}

void Blob::setSessionID()
{
    if (sessionId == -1)
        sessionId = ++incS_Id;
}

bool Blob::isOutOfScreen(int w, int h) const
{
    return fx < 1.0 || fy < 1.0 || fx > w || fy > h;
}

bool xAscSort(Blob* a, Blob* b) { return a->x < b->x; }
bool yAscSort(Blob* a, Blob* b) { return a->y < b->y; }
bool xDescSort(Blob* a, Blob* b) { return a->x > b->x; }
bool yDescSort(Blob* a, Blob* b) { return a->y > b->y; }
