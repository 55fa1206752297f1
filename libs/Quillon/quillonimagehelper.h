#pragma once

#include "evector.h"

#include <opencv2/core.hpp>

#include <vector>

class ScanBox;

// Pixel and rectangle measurement on 8-bit frames, shared by both engines. Stateless.
// Rectangles are walked column by column (x outside, y inside); an empty one does nothing.
// The pixel accessors read when value is -1 and write value otherwise; out of range they
// return -1 and touch nothing.
class QuillonImageHelper {
public:
    // pos 0 is never readable.
    static int intensityAtByPos(cv::Mat* image, int pos, int value);
    // x == width and y == height are accepted: they address the pixel the row stride
    // leads to, as long as it lies inside the buffer.
    static int intensityAt(cv::Mat* image, int x, int y, int value);
    // A raw buffer with stride width; y is compared with the width as well, no height being known.
    static int intensityAt(unsigned char* data, int x, int y, int width, int value);

    // background, if given, is a raw buffer with the image's width as stride.
    static double getMaxIntensity(cv::Rect rect, cv::Mat* image, unsigned char* background);
    static double getMinIntensity(cv::Rect rect, cv::Mat* image);
    static double getAvgIntensity(cv::Rect rect, cv::Mat* image, unsigned char* background);
    static double getRelativePixelSum(cv::Rect rect, cv::Mat* image);
    // True at the first pixel that comes within thresh of max.
    static bool hasBrighterThan(cv::Rect rect, cv::Mat* image, double max, double thresh);
    // Brightness-weighted centroid of the pixels strictly above thresh, or (-1, -1) when
    // there are none. measureC of the result is their count, measureD their mean value.
    static EVector subPix(cv::Mat* image, cv::Rect rect, int thresh, bool erase, double* sum, int eraseValue);
    // The same over the box's rectangle, each value truncated.
    static EVector subPix(cv::Mat* image, const ScanBox& box, int thresh, bool erase, double* sum, int eraseValue);
    // Writes value to every pixel of the box's rectangle; no connectivity is followed.
    static void floodFill(cv::Mat* image, const ScanBox& box, int value);
    static cv::Rect createMaskRect(const std::vector<EVector>& points);
};
