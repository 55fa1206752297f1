#pragma once

#include "evector.h"

// Moves a sensor point to where a perfect lens would have put it.
class ICorrection {
public:
    virtual ~ICorrection() = default;

    virtual EVector undistort(EVector p) = 0;
    virtual bool initByIntrinsic(double cx, double cy, double fx, double fy) = 0;
    // The camera matrix belongs to the full sensor; the scales adapt it to a binned picture.
    virtual bool initByFiles(const char* intrinsicPath, const char* distortionPath, double widthScale,
                             double heightScale) = 0;
    // points: count doubles, x and y alternating.
    virtual void correctIntrinsicFileCenter(double* points, int count) = 0;
};
