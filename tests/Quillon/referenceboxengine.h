#pragma once
// The finger engine's frame loop as it stood before it was made faster, kept as the
// reference that the present engine must match blob for blob. Only what a single frame
// thread reaches is kept: no pausing, no refresh asked for from another thread, no logging.
#include "allblobs.h"
#include "calibration.h"
#include "enginehelper.h"
#include "epolygon.h"
#include "evector.h"
#include "globalsettings.h"
#include "gridhelper.h"
#include "itrackingengine.h"
#include "quillonimagehelper.h"
#include "scanbox.h"
#include "transformgrid.h"

#include <QList>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <vector>

namespace reference_detail {

// The scan box layout as it stood.
inline std::vector<ScanBox> scanBoxes(double radius, int gridWidth, int gridHeight, TransformGrid* grid, int width,
                                      int height)
{
    std::vector<ScanBox> boxes;
    const int n = GS::instance()->boxStride;
    // The region of a raster coordinate: the last cell whose start lies below it.
    auto cellOf = [n](int v, int extent) {
        int cell = 0;
        for (int i = 0; i < n; ++i)
            if (i * extent / n < v)
                cell = i;
        return cell;
    };
    for (int y = 0; y < gridHeight; ++y)
        for (int x = 0; x < gridWidth; ++x) {
            const EVector q = grid->Filter(EVector(x, y));
            if (q.x < 0 || q.x > width || q.y < 0 || q.y > height)
                continue;
            const EVector left = grid->Filter(EVector(x - radius, y)), right = grid->Filter(EVector(x + radius, y));
            const EVector up = grid->Filter(EVector(x, y - radius)), down = grid->Filter(EVector(x, y + radius));
            double size = std::sqrt((right.x - left.x) * (right.x - left.x) + (up.y - down.y) * (up.y - down.y));
            double half = static_cast<int>(size * 0.5 + 1.0);
            if (size < 20.0)
                size = 20.0, half = 11.0;
            // Near the frame's edge the box shrinks so that it stays inside.
            if (q.x + half >= width)
                size = (width - q.x - 1) * 2 - 1;
            if (q.y + half >= height)
                size = (height - q.y - 1) * 2 - 1;
            if (q.x - size < 0)
                size = q.x;
            if (q.y - size < 0)
                size = q.y;
            ScanBox box(q.x - size * 0.5, q.y - size * 0.5, size, size, width, -1);
            box.region = cellOf(x, gridWidth) + cellOf(y, gridHeight) * n;
            boxes.push_back(std::move(box));
        }
    return boxes;
}

// The contour step as it stood.
inline std::vector<ScanBox> minimumScanBox(const ScanBox& self, bool* contourFound, cv::Mat* image,
                                           const std::vector<ScanBox>& boxes, cv::Mat* background, bool useBackground,
                                           bool extended)
{
    thread_local cv::Mat patch, binary;
    thread_local std::vector<std::vector<cv::Point>> contours;
    std::vector<ScanBox> found;
    double avgWidth = 0;
    for (const ScanBox& b : boxes)
        avgWidth += b.width;
    if (!boxes.empty())
        avgWidth /= static_cast<double>(boxes.size());
    *contourFound = false;
    if (self.x < 0 || self.y < 0 || self.width < 1 || self.height < 1 || !image->data)
        return found;
    const cv::Rect roi = self.rect() & cv::Rect(0, 0, image->cols, image->rows);
    if (roi.width <= 0 || roi.height <= 0)
        return found;

    // A copy of the region, since the threshold works in place.
    (*image)(roi).copyTo(patch);
    if (useBackground && background->data)
        cv::subtract(patch, (*background)(roi), patch);
    int block = 3, offset = 0;
    ScanBox::thresholdBlock(avgWidth, extended, &block, &offset);
    const GS* gs = GS::instance();
    if (gs->scanBoxLargeCheck && block > 40) {
        cv::dilate(patch, patch, cv::Mat(), cv::Point(-1, -1), 2);
    } else {
        const int erosions = block > 100 ? 3 : block > 80 ? 2 : block > 55 ? 1 : 0;
        if (erosions > 0)
            cv::erode(patch, patch, cv::Mat(), cv::Point(-1, -1), erosions);
    }
    cv::adaptiveThreshold(patch, binary, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY, block,
                          extended ? -20.0 : static_cast<double>(offset));
    if (binary.cols == 0 || binary.rows == 0)
        return found;
    // The outermost row and column count as empty: a spot cut by the rectangle keeps that shape.
    binary.row(0).setTo(0);
    binary.row(binary.rows - 1).setTo(0);
    binary.col(0).setTo(0);
    binary.col(binary.cols - 1).setTo(0);
    contours.clear();
    cv::findContours(binary, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);

    for (const std::vector<cv::Point>& contour : contours) {
        const cv::Moments m = cv::moments(contour);
        const cv::Rect r = cv::boundingRect(contour);
        *contourFound = true;
        if (r.width <= 0 || r.height <= 0)
            continue;
        bool roundEnough = true;
        if (gs->scanBoxShapeLimit > 0) {
            const double a = std::fabs(cv::contourArea(contour)), p = cv::arcLength(contour, true);
            if (a >= gs->scanBoxMinArea && p >= gs->scanBoxMinArcLength)
                roundEnough = a / p > gs->scanBoxShapeLimit;
        }
        const bool small = r.width < gs->scanBoxShape2A && r.height < gs->scanBoxShape2B;
        if (!roundEnough
            || (gs->scanBoxShape2Ratio > 0 && !small && !(double(r.width) / r.height < gs->scanBoxShape2Ratio))
            || (gs->scanBoxShape2Limit > 0 && !small && !(double(r.height) / r.width < gs->scanBoxShape2Limit)))
            continue;
        ScanBox box(static_cast<int>(r.x + self.x), static_cast<int>(r.y + self.y), r.width, r.height,
                    self.imageWidth, -1);
        box.intensity = self.intensity;
        box.bgIntensity = self.bgIntensity;
        box.centroidX = m.m10 / m.m00 + self.x;
        box.centroidY = m.m01 / m.m00 + self.y;
        box.region = 0;
        found.push_back(box);
    }
    return found;
}

// v > bg + t for whole v and bg is v - bg > floor(t); the hot loop compares integers.
inline int integerLimit(double t)
{
    if (std::isnan(t) || t >= 1e9)
        return 1000000000;
    if (t <= -1e9)
        return -1000000000;
    return static_cast<int>(std::floor(t));
}

} // namespace reference_detail

// The finger engine. A calibrated grid of scan boxes lies over the screen; each frame only
// the centre pixel of each box is compared with the box's own background plus the
// threshold of its region. What fires is grouped, traced as contours, checked again and
// turned into blobs. Regions of the screen follow slow changes of ambient light.
class ReferenceBoxTrackingEngine : public ITrackingEngine {
public:
    int width, height, gridSize;
    double boxRadius;
    bool shiftInverted = false, regionsReset = true, updating = false, backgroundScaled = false, extended = false;
    int updateCount = 0, updateFrames, learnCount = 0, learnFrames;
    std::unique_ptr<TransformGrid> transform, inverseTransform; // sensor to grid space, and back
    std::vector<EVector> border;                                 // the screen's outline in the sensor image
    std::unique_ptr<EPolygon> screenArea;
    std::vector<ScanBox> boxes;
    EVector shadowLeft, shadowRight;
    QList<double> regionIntensity, regionBackground, regionThreshold, regionDeltas, regionHits;
    QList<int> regionsToUpdate;
    cv::Mat lastFrame, backgroundMax; // untouched copy of the frame in work; per-pixel maximum
    int regionCount;
    AllBlobs result;
    ScanBox lastContourBox; // drawn by the overlay

    ReferenceBoxTrackingEngine(int width_, int height_, double boxRadius_, int gridSize_)
        : width(width_), height(height_), gridSize(gridSize_), boxRadius(boxRadius_),
          updateFrames(GS::instance()->stylusBgFrames), learnFrames(GS::instance()->stylusBgFrames),
          lastFrame(cv::Mat::zeros(height_, width_, CV_8UC1)), backgroundMax(cv::Mat::zeros(height_, width_, CV_8UC1)),
          regionCount(GS::instance()->boxStride * GS::instance()->boxStride)
    {
        for (QList<double>* l : {&regionIntensity, &regionBackground, &regionThreshold, &regionHits})
            EngineHelper::resetRegionsList(l, regionCount);
    }

    void setCalibration(Calibration* calibration, int gridSize_) override
    {
        gridSize = gridSize_;
        transform.reset(calibration->getTransform(gridSize, gridSize, false, formulaCorrection));
        inverseTransform.reset(calibration->getTransform(gridSize, gridSize, true, formulaCorrection));
        border = GridHelper::calcBorder(gridSize, gridSize, inverseTransform.get());
        screenArea = std::make_unique<EPolygon>(border);
        auto at = [&](double x, double y) { return inverseTransform->Filter(EVector(x * gridSize, y * gridSize)); };
        const EVector topCenter = at(0.5, 0), bottomMiddle = at(0.5, 1), topLeft = at(0, 0), bottomLeft = at(0, 1),
                      topRight = at(1, 0), bottomRight = at(1, 1);
        shadowLeft = at(0.1, 0);
        shadowRight = at(0.9, 0);
        GS* gs = GS::instance();
        // The nearer edge of the screen looks longer; the lengths compare as whole pixels.
        if (static_cast<int>((topLeft - topRight).length()) < static_cast<int>((bottomLeft - bottomRight).length())) {
            gs->cornerTopLeft = bottomMiddle;
            gs->cornerTopRight = topRight;
            gs->cornerBottomRight = bottomLeft;
            gs->cornerBottomLeft = bottomRight;
        } else {
            gs->cornerTopLeft = topCenter;
            gs->cornerTopRight = bottomRight;
            gs->cornerBottomRight = topLeft;
            gs->cornerBottomLeft = topRight;
        }
        shiftInverted = bottomMiddle.y < topCenter.y;
        if (gs->boxStride * gs->boxStride != regionCount) {
            regionCount = gs->boxStride * gs->boxStride;
            for (QList<double>* l : {&regionIntensity, &regionBackground, &regionThreshold, &regionHits})
                EngineHelper::resetRegionsList(l, regionCount);
            regionsToUpdate.clear();
        }
        boxes = reference_detail::scanBoxes(boxRadius, gridSize, gridSize, inverseTransform.get(), width, height);
        rebuildPackedBoxes();
        gs->distanceScale = (gs->cornerTopLeft - gs->cornerTopRight).length();
        learnCount = 0;
        backgroundScaled = false;
        backgroundMax.setTo(0);
    }

    // Orders a refresh of the listed regions (of all when full): over all frames of an
    // update when full and not topUp, else over GS::stylusBgTopUpFrames.
    void triggerBgRefresh(bool full, bool topUp)
    {
        updating = true;
        if (full) {
            regionsToUpdate.clear();
            for (int r = 0; r < regionCount; ++r)
                regionsToUpdate.append(r);
        }
        regionsReset = true;
        updateCount = full && !topUp ? 0 : updateFrames - GS::instance()->stylusBgTopUpFrames;
    }

    // The caller's frame is changed: boxes that fire are blanked in it. With debugFrame it
    // ends up as the untouched frame with an overlay of what was found.
    AllBlobs processImage(unsigned char* data, bool extended_, bool debugFrame) override
    {
        extended = extended_;
        result.clear();
        if (!data || boxes.empty())
            return result;
        cv::Mat frame(height, width, CV_8UC1, data);
        cv::Mat* image = &frame;
        if (learnCount < learnFrames) {
            cv::max(backgroundMax, *image, backgroundMax);
            ++learnCount;
            return result;
        }
        if (!backgroundScaled) {
            backgroundMax.convertTo(backgroundMax, -1, 1.2);
            backgroundScaled = true;
        }
        image->copyTo(lastFrame);
        for (int r = 0; r < regionCount; ++r)
            regionIntensity[r] = regionBackground[r] = regionHits[r] = 0;
        bool anyReset = false;
        int hits = 0;
        groups.clear();
        firstPass(image, &hits, &anyReset);

        if (!updating) {
            EngineHelper::updateRegionals(&regionIntensity, &regionBackground, &regionThreshold, &regionsToUpdate,
                                          &regionDeltas, &regionHits, regionCount, static_cast<double>(boxes.size()));
            if (!regionsToUpdate.isEmpty())
                triggerBgRefresh(false, false);
        }
        if (anyReset)
            regionsReset = false;
        if (updateCount < updateFrames) {
            updating = true;
            ++updateCount;
        } else if (updating) {
            updating = false;
            regionsToUpdate.clear();
        }
        if (hits > 255)
            return result;

        // Twice, since one pass does not join groups that a later box connects.
        std::vector<ScanBox> merged = ScanBox::mergeOverlapping(groups);
        std::vector<std::vector<ScanBox>> groups2;
        for (const ScanBox& box : merged)
            ScanBox::addOverlapping(&groups2, box);
        merged = ScanBox::mergeOverlapping(groups2);

        const std::vector<ScanBox> noMembers;
        for (std::size_t i = 0; i < merged.size(); ++i) {
            // Members of the first grouping, paired by index with boxes of the second.
            const std::vector<ScanBox>& members = i < groups.size() ? groups[i] : noMembers;
            bool found = false;
            std::vector<ScanBox> contours = reference_detail::minimumScanBox(
                merged[i], &found, &lastFrame, members, &backgroundMax, backgroundScaled, extended);
            if (!found)
                continue;
            std::vector<EVector> points;
            for (ScanBox& c : contours) {
                const ScanBox defaultBox;
                const ScanBox* m = &defaultBox;
                bool containerFound = false;
                for (const ScanBox& member : members) {
                    m = &member;
                    if (c.fitsIn(member)) {
                        containerFound = true;
                        break;
                    }
                }
                const int region = m->region >= 0 && m->region < regionCount ? m->region : 0;
                const int t = static_cast<int>(regionThreshold[region]);
                const bool passed = containerFound && c.hasBrightCenter(&lastFrame, true, t, false, true);
                lastContourBox = c;
                if (!passed)
                    continue;
                c.shrink(-2);
                EVector p = QuillonImageHelper::subPix(&lastFrame, c, t, false, nullptr, 0);
                if (p.x > -1.0 && p.y > -1.0) {
                    p.boxWidth = c.width;
                    p.boxHeight = c.height;
                    p.measureB = c.bgIntensity;
                    p.cellIndex = t;
                    points.push_back(p);
                }
            }
            EngineHelper::erasePointsInLightShadow(&points, shadowLeft, shadowRight);
            EngineHelper::addBlobs(points, screenArea.get(), fingerYShifts, fingerXShifts, transform.get(), gridSize,
                                   shiftInverted, &result.blobs, extended);
        }
        if (debugFrame) {
            lastFrame.copyTo(*image);
            drawOverlay(image);
        }
        return result;
    }

private:
    struct Run {
        int begin, end, region; // consecutive boxes of one region
        double backgroundPart;  // sum of trunc(bgIntensity / gain) over the run, for cachedGain
    };
    std::vector<int> packedIndex, packedBackground, limitOfRegion;
    std::vector<Run> runs;
    double cachedGain = 0;
    std::vector<char> refreshing;
    std::vector<std::vector<ScanBox>> groups;

    void rebuildPackedBoxes()
    {
        packedIndex.resize(boxes.size());
        packedBackground.resize(boxes.size());
        runs.clear();
        for (int i = 0; i < int(boxes.size()); ++i) {
            ScanBox& b = boxes[std::size_t(i)];
            // A region outside the table would index past it; such a box joins region 0.
            if (b.region < 0 || b.region >= regionCount)
                b.region = 0;
            packedIndex[std::size_t(i)] = b.centerIndex;
            packedBackground[std::size_t(i)] = b.bgIntensity;
            if (runs.empty() || runs.back().region != b.region)
                runs.push_back({i, i + 1, b.region, 0.0});
            else
                runs.back().end = i + 1;
        }
        cachedGain = GS::instance()->stylusBgGain;
        sumBackgrounds();
        limitOfRegion.assign(std::size_t(regionCount), 0);
        refreshing.assign(std::size_t(regionCount), 0);
    }

    void sumBackgrounds()
    {
        for (Run& run : runs) {
            run.backgroundPart = 0;
            for (int i = run.begin; i < run.end; ++i)
                run.backgroundPart += std::trunc(packedBackground[std::size_t(i)] / cachedGain);
        }
    }

    void firstPass(cv::Mat* image, int* hits, bool* anyReset)
    {
        const double gain = GS::instance()->stylusBgGain;
        if (gain != cachedGain) {
            cachedGain = gain;
            sumBackgrounds();
        }
        std::fill(refreshing.begin(), refreshing.end(), 0);
        for (int r : regionsToUpdate)
            if (r >= 0 && r < regionCount)
                refreshing[std::size_t(r)] = 1;
        for (int r = 0; r < regionCount; ++r)
            limitOfRegion[std::size_t(r)] =
                reference_detail::integerLimit(extended ? std::max(35.0, regionThreshold[r]) : regionThreshold[r]);

        const unsigned char* last = lastFrame.data;
        unsigned char* work = image->data;
        // intensityAtByPos: index 0 and anything past the buffer read as -1.
        const unsigned readable = static_cast<unsigned>(lastFrame.total()) - 1u;
        const bool resetting = regionsReset;
        const int* index = packedIndex.data();
        int* background = packedBackground.data();
        auto fire = [&](int i, int v, int bg, int limit, int region) {
            // The working frame may have been blanked here by an earlier box.
            const int w = v < 0 ? v : work[index[i]];
            ScanBox& box = boxes[std::size_t(i)];
            box.intensity = w;
            if (w - bg <= limit)
                return;
            QuillonImageHelper::floodFill(image, box, 0);
            ScanBox::addOverlapping(&groups, box);
            ++*hits;
            regionHits[region] += 1.0;
        };
        for (Run& run : runs) {
            const int region = run.region, limit = limitOfRegion[std::size_t(region)];
            const bool refresh = refreshing[std::size_t(region)];
            long long intensitySum = 0;
            double part = 0;
            for (int i = run.begin; i < run.end; ++i) {
                const unsigned ci = static_cast<unsigned>(index[i]);
                const int v = ci - 1u < readable ? last[ci] : -1;
                intensitySum += v;
                int bg = background[i];
                if (refresh) {
                    if (resetting) {
                        bg = 0;
                        *anyReset = true;
                    }
                    if (bg < v)
                        bg = static_cast<int>(v * gain);
                    background[i] = bg;
                    boxes[std::size_t(i)].bgIntensity = bg;
                    part += std::trunc(bg / gain);
                }
                if (v - bg > limit)
                    fire(i, v, bg, limit, region);
            }
            if (refresh)
                run.backgroundPart = part;
            regionBackground[region] += run.backgroundPart;
            regionIntensity[region] += static_cast<double>(intensitySum);
        }
    }

    void drawOverlay(cv::Mat* image)
    {
        const GS* gs = GS::instance();
        auto pt = [](const EVector& v) { return cv::Point(static_cast<int>(v.x), static_cast<int>(v.y)); };
        cv::rectangle(*image, lastContourBox.rect(), cv::Scalar(180), 1);
        cv::circle(*image, pt(gs->cornerTopLeft), 4, cv::Scalar(255), 1);
        cv::circle(*image, pt(gs->cornerTopRight), 3, cv::Scalar(255), 1);
        for (const EVector& b : border)
            cv::circle(*image, pt(b), 2, cv::Scalar(50), cv::FILLED);
        char label[64];
        for (Blob* b : result.blobs.blobs) {
            const cv::Rect box(int(b->left), int(b->top), int(b->width), int(b->height));
            cv::rectangle(*image, box, cv::Scalar(255), 1);
            const cv::Point centre(static_cast<int>(b->x), static_cast<int>(b->y));
            cv::circle(*image, centre, 1, cv::Scalar(255), cv::FILLED);
            std::snprintf(label, sizeof label, "%.2f/%.2f", b->x, b->y);
            cv::putText(*image, label, cv::Point(centre.x, centre.y - 20), cv::FONT_HERSHEY_SIMPLEX, 0.7,
                        cv::Scalar(255), 1);
        }
    }
};
