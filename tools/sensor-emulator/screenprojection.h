#pragma once

#include "lensmodel.h"

// Where a point of the screen lands on the sensor: a projective map fixed by the four places
// the screen's corners are seen at, followed by the lens.
class ScreenProjection
{
public:
    // corners: sensor x, y of the screen's top left, top right, bottom right, bottom left,
    // as seen through the lens.
    ScreenProjection(double screenWidth, double screenHeight, const double corners[8], const LensModel& lens);

    void toSensor(double sx, double sy, double& outX, double& outY) const;
    // The inverse: the screen point seen at a sensor pixel (may lie off the screen).
    void toScreen(double x, double y, double& outX, double& outY) const;
    bool valid() const { return ok; }

private:
    double h[9];
    double inv[9];
    LensModel lens;
    bool ok;
};
