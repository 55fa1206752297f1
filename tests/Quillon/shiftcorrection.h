#pragma once

#include "icorrection.h"

// A lens that moves every point right by a fixed amount: easy to see in a mapped result.
class ShiftCorrection : public ICorrection {
public:
    explicit ShiftCorrection(double dx) : dx_(dx) {}
    EVector undistort(EVector p) override { return EVector(p.x + dx_, p.y); }
    bool initByIntrinsic(double, double, double, double) override { return true; }
    bool initByFiles(const char*, const char*, double, double) override { return true; }
    void correctIntrinsicFileCenter(double*, int) override {}

private:
    double dx_;
};
