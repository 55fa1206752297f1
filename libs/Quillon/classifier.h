#pragma once

#include "evector.h"

#include <opencv2/core.hpp>

#include <vector>

// Finds projected dots in camera pictures for the automatic calibration: the lit area of the
// screen, and one row of dots at a time. Failure is an empty result; the caller decides what
// it means. Pictures are 8-bit, one channel; an empty Mat stands for "no picture".
class Classifier {
public:
    Classifier();

    // Mask (255 inside) of the largest region that the projector lights.
    cv::Mat CreateMaskFromProjectionBorder(const cv::Mat& whiteImage, const cv::Mat& blackImage, double* area,
                                           cv::Mat* colorDebugImage, bool* lowContrast);
    // Exactly expectedCount dots forming a straight, even row, left to right, or nothing.
    std::vector<EVector> FindPattern(const cv::Mat& image, const cv::Mat& reference, cv::Mat* colorDebugImage,
                                     int expectedCount, int unused, bool* flag, bool invert, bool lowContrast);
    void setParams(int width, int height);

    std::vector<EVector> FindPointsOfInterest(std::vector<EVector> candidates, int expectedCount);
    bool anglesBelow(const std::vector<EVector>& points, int limit);
    double measureAngle(const EVector& a, const EVector& b, const EVector& c);
    bool IsWeightAndDistance(const std::vector<EVector>& points);

    static void fillBinary(int* bits, int n);
    static int decimal2Binary(int value, int* bits, int n);
    static int binary2Decimal(const int* bits, int n);

    // Toolbox kept for later procedures; nothing calls these today.
    cv::Mat radialThreshold(const cv::Mat& image, int center, int unused);
    bool isEqualToLastPattern(const cv::Mat& image, int id);
    EVector GetSubPix(cv::Rect rect, const cv::Mat& image, const cv::Mat& mask);
    static void ExpandAndClamp(cv::Rect* rect, int grow, int width, int height);

    double maxWeightRatio = 5.0;
    double maxDistanceRatio = 5.0;
    double maxAngle = 30.0;
    int imageCounter = 0;
    int imageWidth = 0;
    int imageHeight = 0;

private:
    int lastPatternId = 0;
    cv::Mat lastImage;
    int sameCount = 0;
};
