#pragma once

// A contact position held back until its gesture is known, in screen pixels.
struct TouchPoint {
    double x;
    double y;
    int id;
};
