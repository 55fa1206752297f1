#pragma once

#include <opencv2/core.hpp>

#include <vector>

// The outer borders of the regions of set pixels in a threshold's picture (0 and 255, or 0 and
// 1) whose outermost rows and columns are 0: Suzuki's border following in the form of OpenCV's
// external contours with simple chains. The same points from the same start pixel, the contours
// in the same order (the last one found comes first), and the borders marked as the library
// marks them. The library's call rewrites the whole picture to 0 and 1 first and builds
// sequences in a memory storage, which cost more than the tracing itself for the small patches
// of the finger engine.
class ContourTracer {
public:
    // What the finger engine asks of a contour, computed as cv::boundingRect, cv::contourArea,
    // cv::arcLength (closed) and cv::moments compute it, to the last bit.
    struct Shape {
        cv::Rect bounds;
        double area = 0, perimeter = 0;
        double m00 = 0, m10 = 0, m01 = 0;
    };

    // Fills contours, reusing its vectors; binary's borders are marked in place. Rows outside
    // `rows` must hold no set pixel; they are not looked at.
    void trace(cv::Mat& binary, std::vector<std::vector<cv::Point>>& contours, cv::Range rows = cv::Range::all());
    static Shape shape(const std::vector<cv::Point>& contour);

private:
    void follow(signed char* start, int step, cv::Point at, std::vector<cv::Point>& points) const;
};
