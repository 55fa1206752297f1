#pragma once

#include "icorrection.h"

// Closed-form model of a wide lens over a table: the image radius is taken as the
// angle of the ray, and tan gives where a pinhole camera would have seen it.
class FisheyeUndistortion : public ICorrection {
public:
    double fx = 0, fy = 0, cx = 0, cy = 0;
    bool ready = false;

    // Until initialised, points pass unchanged, payload and all. The principal
    // point itself gives NaN (tan(0)/0); grid points never fall there.
    EVector undistort(EVector p) override;
    bool initByIntrinsic(double cx, double cy, double fx, double fy) override;
    // This model has no files.
    bool initByFiles(const char*, const char*, double, double) override { return false; }
    void correctIntrinsicFileCenter(double*, int) override {}
};
