#pragma once

#include "evector.h"

#include <cstdint>

// One light spot, from the engine that found it through frame matching to the
// screen-mapped copy that listeners receive.
class Blob {
public:
    int id;
    double x, y;
    double left, top;
    double width, height;
    double size;
    int64_t timeMs;
    double speed = 0; // read by the inertia filter; nothing writes it
    int state;        // 0 new, 1 lost, 2 matched; -1 until matching sets it
    double moved;
    int slot;
    Blob* partner;
    double reach;
    int lostFrames;
    int lostEvents;
    double fx, fy;
    double prevFx, prevFy;
    bool fresh;
    double yShift, xShift;
    double shiftSpare = 0;
    double measureD, measureB;
    int hasShift;
    int cellIndex;
    double radial;
    int sessionId;
    int lostReset;
    bool wasLost;
    bool outside;

    // Touch ids of the process: never reset and never wrapped.
    static int incS_Id;

    Blob(double x, double y, double width, double height, int id);
    void init(double x, double y, double width, double height);

    EVector center() const { return EVector(x, y); }
    EVector fcenter() const { return EVector(fx, fy); }
    EVector prevFCenter() const { return EVector(prevFx, prevFy); }

    double getDistance(Blob other) const;
    // Folds the new frame's detection of the same touch into this blob.
    void mergeWith(Blob other);
    void setSessionID();
    // The first row and column count as outside, the last ones as inside.
    bool isOutOfScreen(int width, int height) const;
};

bool xAscSort(Blob* a, Blob* b);
bool yAscSort(Blob* a, Blob* b);
bool xDescSort(Blob* a, Blob* b);
bool yDescSort(Blob* a, Blob* b);
