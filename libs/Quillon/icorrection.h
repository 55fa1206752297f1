#pragma once

#include "evector.h"

// Moves a sensor point to where a perfect lens would have put it.
class ICorrection {
public:
    virtual EVector undistort(EVector p) = 0;
    virtual bool initByIntrinsic(double cx, double cy, double fx, double fy) = 0;
    virtual bool initByFiles(const char* intrinsicPath, const char* distortionPath, double widthScale,
                             double heightScale) = 0;
    // points holds count doubles as x, y pairs.
    virtual void correctIntrinsicFileCenter(double* points, int count) = 0;
    virtual ~ICorrection() = default;
};
