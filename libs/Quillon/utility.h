#pragma once

#include <opencv2/core.hpp>

#include <cstdint>
#include <string>

// Measurements on 8-bit pictures for the calibration procedures. They visit every second
// pixel of every second row: a quarter of the work, and plenty for a mean.
namespace utility {

std::string Trim(const std::string& s);
int CharToInt(const char* text);

double totalBrightness(const cv::Mat& image);
// Mean of the pixels whose mask pixel is above 0.
double calcAvg(const cv::Mat& image, const cv::Mat& mask);
// Mean of the pixels above limit.
double calcAvg(const cv::Mat& image, int limit);
// Mean of the pixels below limit.
double calcAvgBelow(const cv::Mat& image, int limit);
// Mean absolute deviation from mean over the pixels above limit (below it when below is set).
double calcVariance(const cv::Mat& image, double mean, int limit, bool below);
// The same, restricted to the pixels whose mask pixel is above 0.
double calcVarianceMasked(const cv::Mat& image, double mean, int limit, bool below, const cv::Mat& mask);

// Processor time of the process in milliseconds.
int64_t getCurrTimestamp();
void sleep(int ms);
// Writes directory/name<index>.png (a running number when index is negative); makes the directory.
bool SaveDebugImage(const cv::Mat& image, const std::string& directory, const std::string& name, int index = -1);

} // namespace utility
