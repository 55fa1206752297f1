#include "boxtrackingdebug.h"

#include "globalsettings.h"

#include <QFile>
#include <QTextStream>

#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

namespace {

constexpr int FrameWidth = 752;
constexpr int FrameHeight = 480;

cv::Point pt(const EVector& v) { return cv::Point(static_cast<int>(v.x), static_cast<int>(v.y)); }

std::string num(double v) { return std::to_string(static_cast<long long>(std::lround(v))); }

void ensureCanvas(cv::Mat& canvas, int cols, int rows)
{
    if (canvas.empty() || canvas.cols < cols || canvas.rows < rows || canvas.type() != CV_8UC3)
        canvas.create(rows, cols, CV_8UC3);
}

} // namespace

void BoxTrackingDebug::resetIntensities()
{
    intensities.clear();
    for (int i = 0; i < testPoints.size(); ++i)
        intensities.append(-1.0);
}

void BoxTrackingDebug::showIntensities(cv::Mat* image, BlobList blobs, TransformGrid* grid, EPolygon* area)
{
    (void)grid;
    if (frozen)
        return;
    if (intensities.size() != testPoints.size())
        resetIntensities();
    for (Blob* b : blobs.blobs) {
        int nearest = -1;
        double best = std::numeric_limits<double>::max();
        for (int i = 0; i < testPoints.size(); ++i) {
            const double d = (testPoints[i] - b->center()).length();
            if (d < best) {
                best = d;
                nearest = i;
            }
        }
        if (nearest < 0)
            continue;
        double& v = intensities[nearest];
        v = v == -1 ? b->measureD : 0.9 * v + 0.1 * b->measureD;
    }
    drawIntensity(image, area, blobs);
}

void BoxTrackingDebug::drawIntensity(cv::Mat* image, EPolygon* area, BlobList blobs)
{
    const int frameCols = image ? image->cols : FrameWidth;
    const int frameRows = image ? image->rows : FrameHeight;
    ensureCanvas(canvas, frameCols + 272, frameRows + 288);
    canvas.setTo(cv::Scalar::all(0));
    const cv::Scalar white(255, 255, 255);
    cv::putText(canvas, "[ESC] = Exit | [SPACE] = Reset | [ENTER] = Save Report", cv::Point(10, 30),
                cv::FONT_HERSHEY_SIMPLEX, 0.8, white, 1);
    cv::putText(canvas, "P/N: " + std::to_string(testPoints.size()) + "/" + std::to_string(reportNumber),
                cv::Point(10, 60), cv::FONT_HERSHEY_SIMPLEX, 0.8, white, 1);

    const cv::Point origin((canvas.cols - frameCols) / 2, (canvas.rows - frameRows) / 2);
    cv::Mat inner = canvas(cv::Rect(origin.x, origin.y, frameCols, frameRows));
    if (image && image->type() == CV_8UC1)
        cv::cvtColor(*image, inner, cv::COLOR_GRAY2BGR);
    if (area) {
        for (int i = 0; i < area->size(); ++i)
            cv::line(inner, pt((*area)[i]), pt((*area)[(i + 1) % area->size()]), cv::Scalar(0, 128, 0), 1);
    }
    for (Blob* b : blobs.blobs)
        cv::circle(inner, pt(b->center()), 5, cv::Scalar(0, 0, 255), 1);
    for (const EVector& p : testPoints)
        cv::circle(inner, pt(p), 1, cv::Scalar(255, 255, 0), cv::FILLED);

    for (const EVector& h : highlights) {
        const cv::Point c = pt(h) + origin;
        cv::circle(canvas, c, 40, cv::Scalar(40, 40, 40), cv::FILLED);
        cv::circle(canvas, c, 40, cv::Scalar(128, 128, 128), 1);
    }
    for (int i = 0; i < testPoints.size(); ++i) {
        const double v = i < intensities.size() ? intensities[i] : -1;
        cv::putText(canvas, "P" + std::to_string(i) + ": " + num(v), pt(testPoints[i]) + origin + cv::Point(6, -6),
                    cv::FONT_HERSHEY_SIMPLEX, 0.4, white, 1);
    }
}

void BoxTrackingDebug::saveIntensities()
{
    if (!reportPath.isEmpty()) {
        QFile file(reportPath);
        const QIODevice::OpenMode mode =
            QIODevice::WriteOnly | QIODevice::Text | (firstSave ? QIODevice::Truncate : QIODevice::Append);
        if (file.open(mode)) {
            QTextStream out(&file);
            for (int i = 0; i < intensities.size(); ++i)
                out << reportNumber << '\t' << i << '\t' << static_cast<long long>(std::lround(intensities[i])) << '\n';
            file.close();
            firstSave = false;
        }
    }
    resetIntensities();
    ++reportNumber;
}

void BoxTrackingDebug::showDebug(cv::Mat* image, QList<double> deltas, QList<double> hits, QList<double> intensity,
                                 BlobList blobs, QList<double> background, const std::vector<ScanBox>& boxes,
                                 bool showRegions)
{
    if (!image || image->empty())
        return;
    const GS* gs = GS::instance();
    if (image->type() == CV_8UC1)
        cv::cvtColor(*image, canvas, cv::COLOR_GRAY2BGR);
    else
        image->copyTo(canvas);
    const cv::Scalar white(255, 255, 255), yellow(0, 255, 255), green(0, 255, 0), red(0, 0, 255);
    const cv::HersheyFonts font = cv::FONT_HERSHEY_SIMPLEX;

    cv::putText(canvas,
                "regional deltas, passed boxes (min amount of negative: " + std::to_string(gs->regionalBelowCount) +
                    "): ",
                cv::Point(10, 15), font, 0.4, white, 1);
    for (int r = 0; r < deltas.size(); ++r) {
        const double h = r < hits.size() ? hits[r] : 0;
        cv::putText(canvas, "#" + std::to_string(r) + ": " + num(deltas[r]) + ", " + num(h),
                    cv::Point(10, 30 + 13 * r), font, 0.4, white, 1);
    }
    for (Blob* b : blobs.blobs) {
        cv::circle(canvas, pt(b->center()), 6, red, 1);
        cv::rectangle(canvas,
                      cv::Rect(static_cast<int>(b->left), static_cast<int>(b->top), static_cast<int>(b->width),
                               static_cast<int>(b->height)),
                      red, 1);
        cv::putText(canvas,
                    "intens: " + num(b->measureD) + " bg: " + num(b->measureB) + " thresh " +
                        std::to_string(b->cellIndex),
                    pt(b->center()) + cv::Point(8, -8), font, 0.4, yellow, 1);
    }
    if (showRegions) {
        for (int r = 0; r < intensity.size(); ++r) {
            cv::Rect bounds;
            bool any = false;
            for (const ScanBox& box : boxes) {
                if (box.region != r)
                    continue;
                bounds = any ? (bounds | box.rect()) : box.rect();
                any = true;
            }
            if (!any)
                continue;
            cv::rectangle(canvas, bounds, green, 1);
            const double bg = r < background.size() ? background[r] : 0;
            cv::putText(canvas, std::to_string(r), bounds.tl() + cv::Point(3, 12), font, 0.4, green, 1);
            cv::putText(canvas, "region: " + std::to_string(r) + " avg: " + num(intensity[r]) + " bgAvg: " + num(bg),
                        bounds.tl() + cv::Point(3, 25), font, 0.35, green, 1);
        }
    }
    cv::circle(canvas, pt(gs->cornerBottomLeft), 4, yellow, 1);
    cv::circle(canvas, pt(gs->cornerBottomRight), 4, yellow, 1);
    cv::circle(canvas, pt(gs->cornerTopLeft), 4, yellow, 1);
    cv::circle(canvas, pt(gs->cornerTopRight), 3, yellow, 1);
}
