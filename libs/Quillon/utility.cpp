#include "utility.h"

#include "stringutil.h"

#include <QImage>

#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <sstream>
#include <unistd.h>

namespace utility {

namespace {

// Calls f(pixel, x, y) for every second pixel of every second row.
template <typename F> void visit(const cv::Mat& image, F f)
{
    CV_Assert(image.type() == CV_8UC1);
    for (int y = 0; y < image.rows; y += 2) {
        const uint8_t* row = image.ptr<uint8_t>(y);
        for (int x = 0; x < image.cols; x += 2)
            f(row[x], x, y);
    }
}

double meanOr0(double sum, long count)
{
    return count > 0 ? sum / count : sum;
}

} // namespace

std::string Trim(const std::string& s)
{
    return StringUtil::trim(s);
}

int CharToInt(const char* text)
{
    std::istringstream in(text ? text : "");
    int value = 0;
    in >> value;
    return value;
}

double totalBrightness(const cv::Mat& image)
{
    double sum = 0;
    visit(image, [&](uint8_t p, int, int) { sum += p; });
    return sum;
}

double calcAvg(const cv::Mat& image, const cv::Mat& mask)
{
    double sum = 0;
    long count = 0;
    visit(image, [&](uint8_t p, int x, int y) {
        if (mask.at<uint8_t>(y, x) > 0) {
            sum += p;
            ++count;
        }
    });
    return meanOr0(sum, count);
}

double calcAvg(const cv::Mat& image, int limit)
{
    double sum = 0;
    long count = 0;
    visit(image, [&](uint8_t p, int, int) {
        if (p > limit) {
            sum += p;
            ++count;
        }
    });
    return meanOr0(sum, count);
}

double calcAvgBelow(const cv::Mat& image, int limit)
{
    double sum = 0;
    long count = 0;
    visit(image, [&](uint8_t p, int, int) {
        if (p < limit) {
            sum += p;
            ++count;
        }
    });
    return meanOr0(sum, count);
}

double calcVariance(const cv::Mat& image, double mean, int limit, bool below)
{
    double sum = 0;
    long count = 0;
    visit(image, [&](uint8_t p, int, int) {
        if (below ? p < limit : p > limit) {
            sum += std::fabs(p - mean);
            ++count;
        }
    });
    return meanOr0(sum, count);
}

double calcVarianceMasked(const cv::Mat& image, double mean, int limit, bool below, const cv::Mat& mask)
{
    double sum = 0;
    long count = 0;
    visit(image, [&](uint8_t p, int x, int y) {
        if (mask.at<uint8_t>(y, x) > 0 && (below ? p < limit : p > limit)) {
            sum += std::fabs(p - mean);
            ++count;
        }
    });
    return meanOr0(sum, count);
}

int64_t getCurrTimestamp()
{
    return static_cast<int64_t>(static_cast<double>(clock()) / CLOCKS_PER_SEC * 1000.0);
}

void sleep(int ms)
{
    usleep(static_cast<useconds_t>(ms) * 1000);
}

bool SaveDebugImage(const cv::Mat& image, const std::string& directory, const std::string& name, int index)
{
    static int running = 0;
    std::error_code ec;
    if (!std::filesystem::is_directory(directory, ec)) {
        printf("Debug image directory does not exists, creating: %s\n", directory.c_str());
        std::filesystem::create_directories(directory, ec);
    }
    const int number = index >= 0 ? index : running++;
    const std::string file = directory + "/" + name + std::to_string(number) + ".png";
    printf("Save debug image to: %s\n", file.c_str());
    // Qt's PNG writer, not OpenCV's: the image codecs library pulls in some hundred more
    // shared libraries, which cost the service a tenth of a second at every start.
    cv::Mat eight;
    if (image.depth() == CV_8U)
        eight = image;
    else
        image.convertTo(eight, CV_8U);
    if (eight.channels() == 4)
        cv::cvtColor(eight, eight, cv::COLOR_BGRA2BGR);
    if (eight.channels() != 1 && eight.channels() != 3)
        return false;
    const QImage picture(eight.data, eight.cols, eight.rows, static_cast<qsizetype>(eight.step),
                         eight.channels() == 1 ? QImage::Format_Grayscale8 : QImage::Format_BGR888);
    return picture.save(QString::fromStdString(file), "PNG");
}

} // namespace utility
