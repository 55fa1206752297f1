#pragma once

#include "icorrection.h"

#include <opencv2/core.hpp>

// The camera's lens model from two OpenCV files and OpenCV's own point undistortion.
class NormalUndistortion : public ICorrection {
public:
    bool ready = false;
    cv::Mat intrinsicMatrix;  // 3x3, CV_64F
    cv::Mat distortionCoeffs; // as cv::undistortPoints takes them, CV_64F

    // Until initialised, points pass unchanged, payload and all.
    EVector undistort(EVector p) override;
    bool initByIntrinsic(double, double, double, double) override { return false; }
    // A missing or unusable camera matrix is a broken installation and raises
    // ConfigFileError; a missing distortion file only leaves the correction inactive.
    bool initByFiles(const char* intrinsicPath, const char* distortionPath, double widthScale,
                     double heightScale) override;
    // Moves the principal point to the mean of the points.
    void correctIntrinsicFileCenter(double* points, int count) override;
};
