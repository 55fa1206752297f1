#pragma once

#include <string>

// The camera lens in OpenCV's model (camera matrix plus k1 k2 p1 p2 k3 k4 k5 k6), applied the
// way round a real lens does it: an ideal pinhole position goes in, the bent one comes out.
class LensModel
{
public:
    LensModel();
    LensModel(double fx, double fy, double cx, double cy, const double* coeffs, int count);

    // Reads the two OpenCV persistence files the running system uses for the same lens.
    bool loadFiles(const std::string& intrinsicPath, const std::string& distortionPath, std::string& error);

    void distort(double x, double y, double& outX, double& outY) const;
    void undistort(double x, double y, double& outX, double& outY) const;
    bool isIdentity() const { return identity; }

private:
    void updateIdentity();

    double fx, fy, cx, cy;
    double k[8];
    bool identity;
};
