#include "classifier.h"

#include "globalsettings.h"
#include "utility.h"

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <string>

namespace {

const cv::Scalar kLitAreaColour(0, 160, 0);
const cv::Scalar kContourColour(0, 200, 255);
const cv::Scalar kResultColour(0, 0, 255);

// The tracing this code was tuned with never let a region touch the frame: its outermost rows
// and columns were cleared first. The padding of cv::findContours would otherwise move regions at
// the edge by a pixel and change their areas.
std::vector<std::vector<cv::Point>> traceContours(cv::Mat& binary, int mode, std::vector<cv::Vec4i>* hierarchy)
{
    if (binary.rows > 0 && binary.cols > 0) {
        binary.row(0).setTo(0);
        binary.row(binary.rows - 1).setTo(0);
        binary.col(0).setTo(0);
        binary.col(binary.cols - 1).setTo(0);
    }
    std::vector<std::vector<cv::Point>> contours;
    std::vector<cv::Vec4i> links;
    cv::findContours(binary, contours, hierarchy ? *hierarchy : links, mode, cv::CHAIN_APPROX_SIMPLE);
    return contours;
}

int truncatedArea(const std::vector<cv::Point>& contour)
{
    return static_cast<int>(cv::contourArea(contour));
}

// Difference picture, smoothed and stretched, cut by a local Gaussian threshold.
cv::Mat thresholdedDifference(const cv::Mat& minuend, const cv::Mat& subtrahend, int kernel, double gain,
                              int block, double* meanBeforeGain)
{
    cv::Mat diff;
    cv::subtract(minuend, subtrahend, diff);
    cv::GaussianBlur(diff, diff, cv::Size(kernel, kernel), 0, 0, cv::BORDER_REPLICATE);
    if (meanBeforeGain) {
        *meanBeforeGain = utility::calcAvg(diff, -1);
        gain = *meanBeforeGain < 50.0 ? 4.0 : 2.0;
    }
    diff.convertTo(diff, -1, gain);
    cv::Mat binary;
    cv::adaptiveThreshold(diff, binary, 255, cv::ADAPTIVE_THRESH_GAUSSIAN_C, cv::THRESH_BINARY, block, -10);
    return binary;
}

} // namespace

Classifier::Classifier() = default;

void Classifier::setParams(int width, int height)
{
    imageWidth = width;
    imageHeight = height;
}

cv::Mat Classifier::CreateMaskFromProjectionBorder(const cv::Mat& whiteImage, const cv::Mat& blackImage,
                                                   double* area, cv::Mat* colorDebugImage, bool* lowContrast)
{
    if (area)
        *area = 0;
    if (whiteImage.empty() || blackImage.empty())
        return cv::Mat();

    double avg = 0;
    cv::Mat binary = thresholdedDifference(whiteImage, blackImage, 5, 2.0, 201, &avg);
    if (lowContrast)
        *lowContrast = avg < 50.0;
    // Bridge dark specks and ragged edges, so that the lit area traces as one region.
    cv::dilate(binary, binary, cv::Mat(), cv::Point(-1, -1), 2);
    if (colorDebugImage)
        cv::cvtColor(binary, *colorDebugImage, cv::COLOR_GRAY2BGR);

    const std::vector<std::vector<cv::Point>> contours = traceContours(binary, cv::RETR_EXTERNAL, nullptr);
    int best = -1;
    int bestArea = 0;
    for (std::size_t i = 0; i < contours.size(); ++i) {
        const int a = truncatedArea(contours[i]);
        if (a > bestArea) {
            best = static_cast<int>(i);
            bestArea = a;
        }
    }
    if (area)
        *area = bestArea;
    if (best >= 0 && colorDebugImage)
        cv::drawContours(*colorDebugImage, contours, best, kLitAreaColour, cv::FILLED);
    ++imageCounter;

    cv::Mat mask = cv::Mat::zeros(whiteImage.size(), CV_8UC1);
    if (best >= 0)
        cv::drawContours(mask, contours, best, cv::Scalar(255), cv::FILLED);
    // Pull the mask back from the edge, where the dilation grew it past the light.
    cv::erode(mask, mask, cv::Mat());
    ++imageCounter;
    return mask;
}

std::vector<EVector> Classifier::FindPattern(const cv::Mat& image, const cv::Mat& reference,
                                             cv::Mat* colorDebugImage, int expectedCount, int /*unused*/,
                                             bool* flag, bool invert, bool lowContrast)
{
    if (image.empty() || reference.empty())
        return {};
    ++imageCounter;
    cv::Mat binary = invert ? thresholdedDifference(reference, image, 3, lowContrast ? 4.0 : 2.0, 31, nullptr)
                            : thresholdedDifference(image, reference, 3, lowContrast ? 4.0 : 2.0, 31, nullptr);
    if (flag)
        *flag = false;
    if (colorDebugImage)
        cv::cvtColor(image, *colorDebugImage, cv::COLOR_GRAY2BGR);

    std::vector<cv::Vec4i> hierarchy;
    const std::vector<std::vector<cv::Point>> contours = traceContours(binary, cv::RETR_CCOMP, &hierarchy);
    // The outer boundaries are the top level; holes hang below them and are not dots.
    int first = -1;
    for (std::size_t i = 0; i < hierarchy.size() && first < 0; ++i) {
        if (hierarchy[i][3] < 0)
            first = static_cast<int>(i);
    }
    std::vector<EVector> candidates;
    for (int i = first; i >= 0; i = hierarchy[i][0]) {
        const std::vector<cv::Point>& contour = contours[i];
        const int a = truncatedArea(contour);
        // Specks of noise are too small, a reflection of the lit area too large, and an upright
        // rectangle (four corners once traced) is a pixel artefact rather than a round dot.
        if (a < 6 || a >= 10000 || contour.size() <= 4)
            continue;
        const cv::Moments m = cv::moments(contour);
        EVector p(m.m10 / m.m00, m.m01 / m.m00);
        p.weight = a;
        candidates.push_back(p);
        if (colorDebugImage)
            cv::drawContours(*colorDebugImage, contours, i, kContourColour, 1, cv::LINE_8, cv::noArray(), 0);
    }

    std::vector<EVector> result = FindPointsOfInterest(candidates, expectedCount);
    if (colorDebugImage) {
        for (const EVector& p : result) {
            const cv::Point at(static_cast<int>(std::lround(p.x)), static_cast<int>(std::lround(p.y)));
            cv::circle(*colorDebugImage, at, 1, kResultColour);
            const std::string label = std::to_string(at.x) + "/" + std::to_string(at.y);
            cv::putText(*colorDebugImage, label, at + cv::Point(0, 20), cv::FONT_HERSHEY_SIMPLEX, 0.7,
                        kResultColour);
        }
    }
    return result;
}

std::vector<EVector> Classifier::FindPointsOfInterest(std::vector<EVector> candidates, int expectedCount)
{
    const int limit = static_cast<int>(maxAngle);
    if (candidates.size() < 2)
        return {};
    std::sort(candidates.begin(), candidates.end(), weightDescSort);
    // The subset search doubles with every candidate: keep the heaviest and the lightest one.
    if (candidates.size() > 16)
        candidates.erase(candidates.begin() + 16, candidates.end() - 1);
    std::sort(candidates.begin(), candidates.end(), xAscSort2);

    const int m = static_cast<int>(candidates.size());
    if (expectedCount > m)
        return {};
    if (expectedCount == m) {
        if (anglesBelow(candidates, limit) && IsWeightAndDistance(candidates))
            return candidates;
        return {};
    }

    int bits[32];
    fillBinary(bits, m);
    const int total = binary2Decimal(bits, m);
    std::vector<EVector> subset;
    subset.reserve(static_cast<std::size_t>(std::max(expectedCount, 0)));
    // Rising masks try subsets of the left points first; the first row that passes wins.
    for (int mask = 0; mask < total; ++mask) {
        if (decimal2Binary(mask, bits, m) != expectedCount)
            continue;
        subset.clear();
        for (int j = 0; j < m; ++j) {
            if (bits[j])
                subset.push_back(candidates[j]);
        }
        if (anglesBelow(subset, limit) && IsWeightAndDistance(subset))
            return subset;
    }
    return {};
}

bool Classifier::anglesBelow(const std::vector<EVector>& points, int limit)
{
    if (points.size() == 2)
        return true;
    for (std::size_t i = 0; i + 2 < points.size(); ++i) {
        if (!(measureAngle(points[i], points[i + 1], points[i + 2]) < limit))
            return false;
    }
    return true;
}

double Classifier::measureAngle(const EVector& a, const EVector& b, const EVector& c)
{
    const EVector u = b - a;
    const EVector w = c - b;
    double t = u.angle(w) + 180.0;
    if (t > 180.0)
        t = 360.0 - t;
    return 180.0 - t;
}

bool Classifier::IsWeightAndDistance(const std::vector<EVector>& points)
{
    double previous = -1.0;
    for (std::size_t i = 0; i + 1 < points.size(); ++i) {
        const EVector& left = points[i];
        const EVector& right = points[i + 1];
        if (!(left.weight > 0))
            return false;
        double r = right.weight / left.weight;
        if (!(r > 0))
            return false;
        if (r < 1)
            r = 1 / r;
        if (r > maxWeightRatio)
            return false;
        const double d = (right - left).length();
        if (!(d > 0))
            return false;
        if (previous > 0) {
            double q = previous / d;
            if (q < 1)
                q = 1 / q;
            if (q > maxDistanceRatio)
                return false;
        }
        previous = d;
    }
    return true;
}

void Classifier::fillBinary(int* bits, int n)
{
    std::fill(bits, bits + n, 1);
}

int Classifier::decimal2Binary(int value, int* bits, int n)
{
    int ones = 0;
    for (int i = n - 1; i >= 0; --i) {
        const int power = 1 << i;
        if (value >= power) {
            value -= power;
            bits[i] = 1;
            ++ones;
        } else {
            bits[i] = 0;
        }
    }
    return ones;
}

int Classifier::binary2Decimal(const int* bits, int n)
{
    // (2 * bit) to the power i: a zero in entry 0 still counts 1. Only all-ones arrays come here.
    int sum = 0;
    for (int i = 0; i < n; ++i) {
        int term = 1;
        for (int k = 0; k < i; ++k)
            term *= 2 * bits[i];
        sum += term;
    }
    return sum;
}

cv::Mat Classifier::radialThreshold(const cv::Mat& image, int center, int /*unused*/)
{
    CV_Assert(image.type() == CV_8UC1 && image.isContinuous() &&
              image.total() >= static_cast<std::size_t>(imageWidth) * imageHeight);
    const double base = GS::instance()->tableTopAc && center != 0 ? 0.33 : 0.66;
    const EVector middle(imageWidth / 2, imageHeight / 2);
    const double radius = middle.length();
    cv::Mat result = cv::Mat::zeros(image.size(), CV_8UC1);
    const uint8_t* in = image.ptr<uint8_t>();
    uint8_t* out = result.ptr<uint8_t>();
    for (int y = 0; y < imageHeight; ++y) {
        for (int x = 0; x < imageWidth; ++x) {
            const int at = y * imageWidth + x;
            const double p = in[at];
            if (p < base)
                continue;
            const double d = (EVector(x, y) - middle).length();
            if (p >= base + (center - base) * (1 - d / radius))
                out[at] = 255;
        }
    }
    return result;
}

bool Classifier::isEqualToLastPattern(const cv::Mat& image, int id)
{
    if (lastImage.empty()) {
        lastImage = image.clone();
        lastPatternId = id;
        sameCount = 0;
        return false;
    }
    if (id == 0) {
        image.copyTo(lastImage);
        lastPatternId = 0;
        sameCount = 0;
        return false;
    }
    if (id == lastPatternId) {
        sameCount = 0;
        return false;
    }
    cv::Mat both;
    cv::bitwise_and(image, lastImage, both);
    const double overlap = utility::totalBrightness(both);
    const double stored = utility::totalBrightness(lastImage);
    const double ratio = GS::instance()->tableTopAc ? 0.6 : 0.33;
    if (overlap <= static_cast<int>(ratio * stored)) {
        image.copyTo(lastImage);
        lastPatternId = id;
        sameCount = 0;
        return false;
    }
    // A projector that never switches must not stall the caller for ever.
    if (++sameCount < 11)
        return true;
    sameCount = 0;
    return false;
}

EVector Classifier::GetSubPix(cv::Rect rect, const cv::Mat& image, const cv::Mat& mask)
{
    rect &= cv::Rect(0, 0, image.cols, image.rows);
    double total = 0, sumX = 0, sumY = 0;
    for (int y = rect.y; y < rect.y + rect.height; ++y) {
        for (int x = rect.x; x < rect.x + rect.width; ++x) {
            if (mask.at<uint8_t>(y, x) == 0)
                continue;
            const double w = image.at<uint8_t>(y, x) / 255.0;
            total += w;
            sumX += w * x;
            sumY += w * y;
        }
    }
    if (total > 0)
        return EVector(sumX / total, sumY / total);
    return EVector(-1, -1);
}

void Classifier::ExpandAndClamp(cv::Rect* rect, int grow, int width, int height)
{
    rect->x -= grow;
    rect->y -= grow;
    rect->width += 2 * grow;
    rect->height += 2 * grow;
    if (rect->x < 0)
        rect->x = 0;
    if (rect->y < 0)
        rect->y = 0;
    if (rect->x + rect->width > width)
        rect->x = width - rect->width;
    if (rect->y + rect->height > height)
        rect->y = height - rect->height;
}
