#include "quillonimagehelper.h"

#include "scanbox.h"
#include "unitweights.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace {

// Byte offset of (x, y) under the accessors' range rules, or -1.
inline std::ptrdiff_t offsetOf(const cv::Mat* image, int x, int y)
{
    if (!image || !image->data || x < 0 || y < 0 || x > image->cols || y > image->rows)
        return -1;
    const std::ptrdiff_t off = std::ptrdiff_t(y) * std::ptrdiff_t(image->step[0]) + std::ptrdiff_t(x) * image->channels();
    const std::ptrdiff_t end = std::ptrdiff_t(image->rows) * std::ptrdiff_t(image->step[0]);
    return off < end ? off : -1;
}

// All of rect lies in a single-channel image: every pixel reads as itself.
inline bool allInside(const cv::Rect& rect, const cv::Mat* image)
{
    return image && image->data && image->channels() == 1 && rect.x >= 0 && rect.y >= 0 && rect.width > 0 &&
           rect.height > 0 && rect.x + rect.width <= image->cols && rect.y + rect.height <= image->rows;
}

// The brightest pixel of a rect that lies in a single-channel image.
inline int brightestInside(const cv::Rect& rect, const cv::Mat* image)
{
    const std::size_t step = image->step[0];
    const unsigned char* row = image->data + std::size_t(rect.y) * step + std::size_t(rect.x);
    int most = 0;
    if (rect.width == 1) {
        // A column: the outline's sides.
        for (int y = 0; y < rect.height; ++y, row += step)
            most = std::max(most, int(*row));
        return most;
    }
    for (int y = 0; y < rect.height; ++y, row += step) {
        for (int x = 0; x < rect.width; ++x)
            most = std::max(most, int(row[x]));
    }
    return most;
}

inline int readAt(const cv::Mat* image, int x, int y)
{
    const std::ptrdiff_t off = offsetOf(image, x, y);
    return off < 0 ? -1 : image->data[off];
}

} // namespace

int QuillonImageHelper::intensityAtByPos(cv::Mat* image, int pos, int value)
{
    if (!image || !image->data)
        return -1;
    const std::size_t imageSize = std::size_t(image->rows) * image->step[0];
    if (pos < 1 || std::size_t(pos) >= imageSize)
        return -1;
    if (value == -1)
        return image->data[pos];
    image->data[pos] = static_cast<unsigned char>(value);
    return value;
}

int QuillonImageHelper::intensityAt(cv::Mat* image, int x, int y, int value)
{
    const std::ptrdiff_t off = offsetOf(image, x, y);
    if (off < 0)
        return -1;
    if (value == -1)
        return image->data[off];
    image->data[off] = static_cast<unsigned char>(value);
    return value;
}

int QuillonImageHelper::intensityAt(unsigned char* data, int x, int y, int width, int value)
{
    if (!data || x < 0 || y < 0 || x > width || y > width)
        return -1;
    unsigned char& px = data[std::size_t(y) * std::size_t(width) + std::size_t(x)];
    if (value == -1)
        return px;
    px = static_cast<unsigned char>(value);
    return value;
}

double QuillonImageHelper::getMaxIntensity(cv::Rect rect, cv::Mat* image, unsigned char* background)
{
    double best = 0;
    // The order of the reads does not change a maximum.
    if (!background && allInside(rect, image))
        return brightestInside(rect, image);
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
        for (int y = rect.y; y < rect.y + rect.height; ++y) {
            const std::ptrdiff_t off = offsetOf(image, x, y);
            if (off < 0)
                continue; // reads as -1, never above the start value
            double v = image->data[off];
            if (background)
                v -= background[std::size_t(y) * std::size_t(image->cols) + std::size_t(x)];
            if (v > best)
                best = v;
        }
    }
    return best;
}

double QuillonImageHelper::getMinIntensity(cv::Rect rect, cv::Mat* image)
{
    double least = 999.0;
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
        for (int y = rect.y; y < rect.y + rect.height; ++y) {
            const double v = readAt(image, x, y);
            if (v < least)
                least = v;
        }
    }
    return least;
}

double QuillonImageHelper::getAvgIntensity(cv::Rect rect, cv::Mat* image, unsigned char* background)
{
    double total = 0;
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
        for (int y = rect.y; y < rect.y + rect.height; ++y) {
            const std::ptrdiff_t off = offsetOf(image, x, y);
            if (off < 0) {
                total -= 1;
                continue;
            }
            double v = image->data[off];
            if (background)
                v -= background[std::size_t(y) * std::size_t(image->cols) + std::size_t(x)];
            total += v;
        }
    }
    return total / (double(rect.width) * double(rect.height));
}

double QuillonImageHelper::getRelativePixelSum(cv::Rect rect, cv::Mat* image)
{
    double total = 0;
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
        for (int y = rect.y; y < rect.y + rect.height; ++y)
            total += readAt(image, x, y) / 255.0;
    }
    return total;
}

bool QuillonImageHelper::hasBrighterThan(cv::Rect rect, cv::Mat* image, double max, double thresh)
{
    // max - v falls as v rises: the brightest pixel decides.
    if (allInside(rect, image))
        return thresh > max - brightestInside(rect, image);
    for (int x = rect.x; x < rect.x + rect.width; ++x) {
        for (int y = rect.y; y < rect.y + rect.height; ++y) {
            if (thresh > max - readAt(image, x, y))
                return true;
        }
    }
    return false;
}

EVector QuillonImageHelper::subPix(cv::Mat* image, cv::Rect rect, int thresh, bool erase, double* sum, int eraseValue)
{
    double weightSum = 0, xSum = 0, ySum = 0, valueSum = 0;
    int count = 0;
    if (image && image->data) {
        // Walk only the part the accessors can reach; the rest never passes.
        const int x0 = std::max(rect.x, 0);
        const int x1 = std::min(rect.x + rect.width, image->cols + 1);
        const int y0 = std::max(rect.y, 0);
        const int y1 = std::min(rect.y + rect.height, image->rows + 1);
        const std::ptrdiff_t step = std::ptrdiff_t(image->step[0]);
        const std::ptrdiff_t end = std::ptrdiff_t(image->rows) * step;
        const int channels = image->channels();
        unsigned char* data = image->data;
        for (int x = x0; x < x1; ++x) {
            std::ptrdiff_t off = std::ptrdiff_t(y0) * step + std::ptrdiff_t(x) * channels;
            for (int y = y0; y < y1 && off < end; ++y, off += step) {
                const int v = data[off];
                if (v <= thresh)
                    continue;
                const double w = unitWeights.w[v];
                weightSum += w;
                xSum += x * w;
                ySum += y * w;
                valueSum += v;
                ++count;
                if (erase)
                    data[off] = static_cast<unsigned char>(eraseValue);
            }
        }
    }
    if (count == 0) {
        if (sum)
            *sum = 0;
        return EVector(-1, -1);
    }
    if (sum)
        *sum = weightSum;
    EVector r(xSum / weightSum, ySum / weightSum);
    r.measureC = count;
    r.measureD = valueSum / count;
    return r;
}

EVector QuillonImageHelper::subPix(cv::Mat* image, const ScanBox& box, int thresh, bool erase, double* sum,
                                   int eraseValue)
{
    return subPix(image, box.rect(), thresh, erase, sum, eraseValue);
}

void QuillonImageHelper::floodFill(cv::Mat* image, const ScanBox& box, int value)
{
    const cv::Rect r = box.rect();
    if (!image || !image->data || r.width <= 0 || r.height <= 0)
        return;
    if (r.x >= 0 && r.y >= 0 && r.x + r.width <= image->cols && r.y + r.height <= image->rows &&
        image->channels() == 1) {
        // The usual case: a scan box inside the frame, filled a row at a time.
        for (int y = r.y; y < r.y + r.height; ++y)
            std::memset(image->ptr<unsigned char>(y) + r.x, value, std::size_t(r.width));
        return;
    }
    for (int x = r.x; x < r.x + r.width; ++x) {
        for (int y = r.y; y < r.y + r.height; ++y)
            intensityAt(image, x, y, value);
    }
}

cv::Rect QuillonImageHelper::createMaskRect(const std::vector<EVector>& points)
{
    int minX = 640, minY = 480, maxX = 0, maxY = 0;
    for (const EVector& p : points) {
        const int x = static_cast<int>(p.x);
        const int y = static_cast<int>(p.y);
        if (x < minX)
            minX = x;
        if (y < minY)
            minY = y;
        if (x > maxX)
            maxX = x;
        if (y > maxY)
            maxY = y;
    }
    return cv::Rect(minX, minY, maxX - minX, maxY - minY);
}
