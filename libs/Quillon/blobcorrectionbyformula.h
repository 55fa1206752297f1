#pragma once

#include "evector.h"

// A numeric lens correction beside the camera model: a radial and tangential
// model (filter) and a plain scaling about a centre (zoom).
class BlobCorrectionByFormula {
public:
    EVector center;
    double zoomFactor = -1.0; // -1.0: zoom is off
    double k1 = 0, k2 = 0, k3 = 0; // radial terms of r, r^2 and r^4
    double p1 = 0, p2 = 0;         // tangential terms

    BlobCorrectionByFormula();

    void config(EVector center, double zoomFactor, double k1, double k2, double k3, double p1, double p2);

    // Only x and y of the result are defined.
    EVector filter(EVector p) const;
    static EVector filter(EVector p, EVector center, double k1, double k2, double k3, double p1, double p2);
    // Keeps p's payload. The centre itself gives NaN; calibration points never fall there.
    EVector zoom(EVector p) const;
};
