#pragma once
// The finger engine's frame loop as it stood before it was made faster, kept as the
// reference that the present engine must match blob for blob.
#include "allblobs.h"
#include "boxtrackingdebug.h"
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
#include "workerthread.h"

#include <QDebug>
#include <QList>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>


// The finger engine. A calibrated grid of scan boxes lies over the screen; each frame only
// the centre pixel of each box is compared with the box's own background plus the
// threshold of its region. What fires is grouped, traced as contours, checked again and
// turned into blobs. Regions of the screen follow slow changes of ambient light.
//
// Frames come on one thread. pause(), setCalibration() and resetBackgroundTable() may be
// called from another; the frame loop sees them through the atomic flags below.
class ReferenceBoxTrackingEngine : public ITrackingEngine {
public:
    int width, height;
    int gridSize;
    bool cameraInverted = false;
    std::atomic<bool> paused{false};
    std::atomic<bool> idle{true};
    bool shiftInverted = false;
    std::atomic<bool> regionsReset{true};
    double boxRadius;
    std::atomic<int> updateCount{0};
    int updateFrames;
    int frameCount = 0;
    bool backgroundScaled = false;
    std::atomic<int> learnCount{0};
    int learnFrames;
    double backgroundScale = 1.2;
    TransformGrid* transform = nullptr;        // sensor pixels to grid space
    TransformGrid* inverseTransform = nullptr; // grid space to sensor pixels
    std::vector<EVector> border;               // outline of the screen in the sensor image
    EPolygon* screenArea = nullptr;
    // Read-only outside the engine: the frame loop works on its own packed copy of the
    // centre indices and backgrounds, and writes a box's record back when it changes.
    // intensity is refreshed only on boxes whose centre rose above their limit.
    std::vector<ScanBox> boxes;
    EVector topCenterGrid, topCenter;
    EVector shadowLeft, shadowRight;
    EVector bottomMiddle, topLeft, bottomLeft, topRight, bottomRight;
    QList<double> regionIntensity, regionBackground, regionThreshold;
    QList<int> regionsToUpdate;
    QList<double> regionDeltas;
    QList<double> regionHits;
    cv::Mat frameHeader; // the caller's frame, seen without a copy
    cv::Mat lastFrame;   // untouched copy of the frame in work
    cv::Mat backgroundMax;
    std::atomic<bool> updating{false};
    int regionCount;
    AllBlobs result;
    BoxTrackingDebug* debug;
    bool extended = false;
    // The last contour box of the frame, drawn by the overlay.
    ScanBox lastContourBox;

    ReferenceBoxTrackingEngine(int width, int height, double boxRadius, int gridSize);
    ~ReferenceBoxTrackingEngine() override;
    ReferenceBoxTrackingEngine(const ReferenceBoxTrackingEngine&) = delete;
    ReferenceBoxTrackingEngine& operator=(const ReferenceBoxTrackingEngine&) = delete;

    // The caller's frame is changed: boxes that fire are blanked in it. With debugFrame it
    // ends up as the untouched frame with an overlay of what was found.
    AllBlobs processImage(unsigned char* image, bool extended, bool debugFrame) override;
    AllBlobs processImage(cv::Mat* image, bool debugFrame);

    // Lays the scan boxes over the screen of calibration, in a grid space of gridSize
    // units, and starts learning anew.
    void setCalibration(Calibration* calibration, int gridSize) override;
    // Holds frames back and waits for the one in work, without a time limit.
    void pause();

    // One frame of learning: the per-pixel maximum.
    void triggerUpdateBackground(cv::Mat* image);
    // Orders a refresh of the listed regions (of all when full): over all frames of an
    // update when full and not topUp, else over GS::stylusBgTopUpFrames. Frame thread only.
    void triggerBgRefresh(bool full, bool topUp);
    void updateRegionals();
    // Refreshes all regions (short when topUp) and waits for it, for learning too, at
    // most ten seconds. Safe from any thread: the frame loop starts the refresh.
    void resetBackgroundTable(bool topUp) override;

private:
    struct Run {
        int begin, end, region; // consecutive boxes of one region
        // Sum of trunc(bgIntensity / gain) over the run, valid for cachedGain.
        double backgroundPart;
    };

    void rebuildPackedBoxes();
    void sumBackgrounds();
    void firstPass(cv::Mat* image, int* hits, bool* anyReset);
    void drawOverlay(cv::Mat* image);

    std::vector<int> packedIndex;
    std::vector<int> packedBackground;
    std::vector<Run> runs;
    double cachedGain = 0;
    std::vector<int> limitOfRegion;
    std::vector<char> refreshing;
    std::vector<std::vector<ScanBox>> groups, groups2;
    std::vector<ScanBox> merged;
    std::vector<EVector> points;
    // 0 none, 1 a full refresh, 2 a short one; asked for by resetBackgroundTable.
    std::atomic<int> pendingRefresh{0};
};

// The scan box layout as it stood, for the reference engine.
inline std::vector<ScanBox> referenceScanBoxes(double radius, int step, int gridWidth, int gridHeight, TransformGrid* grid,
                                               int width, int height)
{
    std::vector<ScanBox> boxes;
    if (!grid || step < 1)
        return boxes;
    const int n = GS::instance()->boxStride;
    // The region of a raster coordinate: the last cell whose start lies below it.
    auto cellOf = [n](int v, int extent) {
        int cell = 0;
        for (int i = 0; i < n; ++i) {
            if (i * extent / n < v)
                cell = i;
        }
        return cell;
    };
    for (int y = 0; y < gridHeight; y += step) {
        const int ry = cellOf(y, gridHeight);
        for (int x = 0; x < gridWidth; x += step) {
            const EVector q = grid->Filter(EVector(x, y));
            if (q.x < 0 || q.x > width || q.y < 0 || q.y > height)
                continue;
            const EVector left = grid->Filter(EVector(x - radius, y));
            const EVector right = grid->Filter(EVector(x + radius, y));
            const EVector up = grid->Filter(EVector(x, y - radius));
            const EVector down = grid->Filter(EVector(x, y + radius));
            double size = std::sqrt((right.x - left.x) * (right.x - left.x) + (up.y - down.y) * (up.y - down.y));
            double half;
            if (size < 20.0) {
                size = 20.0;
                half = 11.0;
            } else {
                half = static_cast<int>(size * 0.5 + 1.0);
            }
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
            box.region = cellOf(x, gridWidth) + ry * n;
            boxes.push_back(std::move(box));
        }
    }
    return boxes;
}

// The contour step as it stood, for the reference loop.
namespace reference_detail {

// Scratch of the contour step, kept per thread so that a frame allocates only what grows.
struct ContourScratch {
    cv::Mat patch;
    cv::Mat binary;
    std::vector<std::vector<cv::Point>> contours;
};

inline thread_local ContourScratch scratch;

inline const char* yesNo(bool b) { return b ? "true" : "false"; }

} // namespace reference_detail

inline std::vector<ScanBox> referenceMinimumScanBox(const ScanBox& self, bool* contourFound, cv::Mat* image,
                                                   const std::vector<ScanBox>& boxes, cv::Mat* background,
                                                   bool useBackground, bool extended)
{
    using namespace reference_detail;
    const double x = self.x, y = self.y, width = self.width, height = self.height;
    const int imageWidth = self.imageWidth;
    const int intensity = self.intensity, bgIntensity = self.bgIntensity;
    std::vector<ScanBox> found;
    double avgWidth = 0;
    for (const ScanBox& b : boxes)
        avgWidth += b.width;
    if (!boxes.empty())
        avgWidth /= static_cast<double>(boxes.size());
    if (contourFound)
        *contourFound = false;

    if (x < 0 || y < 0 || width < 1 || height < 1)
        return found;
    if (!image || !image->data)
        return found;
    const cv::Rect roi = self.rect() & cv::Rect(0, 0, image->cols, image->rows);
    if (roi.width <= 0 || roi.height <= 0)
        return found;

    // A copy of the region, since the threshold works in place.
    (*image)(roi).copyTo(scratch.patch);
    if (useBackground && background && background->data)
        cv::subtract(scratch.patch, (*background)(roi), scratch.patch);

    int block = 3, offset = 0;
    ScanBox::thresholdBlock(avgWidth, extended, &block, &offset);

    const GS* gs = GS::instance();
    if (gs->scanBoxLargeCheck && block > 40) {
        cv::dilate(scratch.patch, scratch.patch, cv::Mat(), cv::Point(-1, -1), 2);
    } else {
        const int erosions = block > 100 ? 3 : block > 80 ? 2 : block > 55 ? 1 : 0;
        if (erosions > 0)
            cv::erode(scratch.patch, scratch.patch, cv::Mat(), cv::Point(-1, -1), erosions);
    }

    cv::adaptiveThreshold(scratch.patch, scratch.binary, 255, cv::ADAPTIVE_THRESH_MEAN_C, cv::THRESH_BINARY, block,
                          extended ? -20.0 : static_cast<double>(offset));
    if (scratch.binary.cols == 0 || scratch.binary.rows == 0) {
        std::printf("Exception caught\n");
        return found;
    }

    // The contour tracer has always treated the outermost row and column as empty; a spot
    // cut by the rectangle keeps that shape.
    scratch.binary.row(0).setTo(0);
    scratch.binary.row(scratch.binary.rows - 1).setTo(0);
    scratch.binary.col(0).setTo(0);
    scratch.binary.col(scratch.binary.cols - 1).setTo(0);

    scratch.contours.clear();
    cv::findContours(scratch.binary, scratch.contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_SIMPLE);

    for (const std::vector<cv::Point>& contour : scratch.contours) {
        const cv::Moments m = cv::moments(contour);
        const cv::Rect r = cv::boundingRect(contour);
        if (contourFound)
            *contourFound = true;
        if (r.width <= 0 || r.height <= 0)
            continue;

        bool roundEnough = true;
        if (gs->scanBoxShapeLimit > 0) {
            const double a = std::fabs(cv::contourArea(contour));
            const double p = cv::arcLength(contour, true);
            if (a >= gs->scanBoxMinArea && p >= gs->scanBoxMinArcLength)
                roundEnough = a / p > gs->scanBoxShapeLimit;
        }
        const bool small = r.width < gs->scanBoxShape2A && r.height < gs->scanBoxShape2B;
        bool widthOk = true;
        if (gs->scanBoxShape2Ratio > 0 && !small)
            widthOk = static_cast<double>(r.width) / r.height < gs->scanBoxShape2Ratio;
        bool heightOk = true;
        if (gs->scanBoxShape2Limit > 0 && !small)
            heightOk = static_cast<double>(r.height) / r.width < gs->scanBoxShape2Limit;
        if (!roundEnough || !widthOk || !heightOk) {
            if (gs->verboseLog)
                std::printf("area: %s, w/h: %s\n", yesNo(roundEnough), yesNo(widthOk));
            continue;
        }

        ScanBox box(static_cast<int>(r.x + x), static_cast<int>(r.y + y), r.width, r.height, imageWidth, -1);
        box.intensity = intensity;
        box.bgIntensity = bgIntensity;
        box.centroidX = m.m10 / m.m00 + x;
        box.centroidY = m.m01 / m.m00 + y;
        box.region = 0;
        found.push_back(box);
    }
    return found;
}

namespace reference_detail {

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

inline ReferenceBoxTrackingEngine::ReferenceBoxTrackingEngine(int width_, int height_, double boxRadius_, int gridSize_)
    : width(width_), height(height_), gridSize(gridSize_), boxRadius(boxRadius_),
      updateFrames(GS::instance()->stylusBgFrames), learnFrames(GS::instance()->stylusBgFrames),
      lastFrame(cv::Mat::zeros(height_, width_, CV_8UC1)), backgroundMax(cv::Mat::zeros(height_, width_, CV_8UC1)),
      regionCount(GS::instance()->boxStride * GS::instance()->boxStride), debug(new BoxTrackingDebug())
{
    EngineHelper::resetRegionsList(&regionIntensity, regionCount);
    EngineHelper::resetRegionsList(&regionBackground, regionCount);
    EngineHelper::resetRegionsList(&regionThreshold, regionCount);
    EngineHelper::resetRegionsList(&regionHits, regionCount);
}

ReferenceBoxTrackingEngine::~ReferenceBoxTrackingEngine()
{
    delete transform;
    delete inverseTransform;
    delete screenArea;
    delete debug;
}

inline void ReferenceBoxTrackingEngine::pause()
{
    paused = true;
    while (!idle.load())
        WorkerThread::msleep(1);
}

inline void ReferenceBoxTrackingEngine::setCalibration(Calibration* calibration, int gridSize_)
{
    gridSize = gridSize_;
    pause();
    delete transform;
    delete inverseTransform;
    delete screenArea;
    transform = nullptr;
    inverseTransform = nullptr;
    screenArea = nullptr;
    border.clear();
    if (!calibration) {
        boxes.clear();
        rebuildPackedBoxes();
        paused = false;
        return;
    }

    transform = calibration->getTransform(gridSize, gridSize, false, formulaCorrection);
    inverseTransform = calibration->getTransform(gridSize, gridSize, true, formulaCorrection);
    border = GridHelper::calcBorder(gridSize, gridSize, inverseTransform);
    screenArea = new EPolygon(border);

    const double half = gridSize * 0.5;
    topCenterGrid = EVector(half, 0);
    topCenter = inverseTransform->Filter(topCenterGrid);
    bottomMiddle = inverseTransform->Filter(EVector(half, gridSize));
    topLeft = inverseTransform->Filter(EVector(0, 0));
    bottomLeft = inverseTransform->Filter(EVector(0, gridSize));
    topRight = inverseTransform->Filter(EVector(gridSize, 0));
    bottomRight = inverseTransform->Filter(EVector(gridSize, gridSize));
    shadowLeft = inverseTransform->Filter(EVector(gridSize * 0.1, 0));
    shadowRight = inverseTransform->Filter(EVector(gridSize * 0.9, 0));

    GS* gs = GS::instance();
    // The nearer edge of the screen looks longer; the lengths compare as whole pixels.
    if (static_cast<int>((topLeft - topRight).length()) < static_cast<int>((bottomLeft - bottomRight).length())) {
        cameraInverted = true;
        qDebug() << "Camera is inverted";
        gs->cornerTopLeft = bottomMiddle;
        gs->cornerTopRight = topRight;
        gs->cornerBottomRight = bottomLeft;
        gs->cornerBottomLeft = bottomRight;
    } else {
        cameraInverted = false;
        gs->cornerTopLeft = topCenter;
        gs->cornerTopRight = bottomRight;
        gs->cornerBottomRight = topLeft;
        gs->cornerBottomLeft = topRight;
    }
    if (bottomMiddle.y < topCenter.y) {
        qDebug() << "Shift is inverted";
        shiftInverted = true;
    } else {
        shiftInverted = false;
    }

    // Frames stay held back until the boxes and the learning state are exchanged whole.
    const int stride = gs->boxStride;
    if (stride * stride != regionCount) {
        regionCount = stride * stride;
        EngineHelper::resetRegionsList(&regionIntensity, regionCount);
        EngineHelper::resetRegionsList(&regionBackground, regionCount);
        EngineHelper::resetRegionsList(&regionThreshold, regionCount);
        EngineHelper::resetRegionsList(&regionHits, regionCount);
        regionsToUpdate.clear();
    }
    boxes = referenceScanBoxes(boxRadius, 1, gridSize, gridSize, inverseTransform, width, height);
    qDebug() << "Scanboxes:" << boxes.size();
    rebuildPackedBoxes();
    gs->distanceScale = (gs->cornerTopLeft - gs->cornerTopRight).length();

    learnCount = 0;
    backgroundScaled = false;
    backgroundMax.setTo(0);
    paused = false;
}

inline void ReferenceBoxTrackingEngine::rebuildPackedBoxes()
{
    const std::size_t n = boxes.size();
    packedIndex.resize(n);
    packedBackground.resize(n);
    runs.clear();
    for (std::size_t i = 0; i < n; ++i) {
        ScanBox& b = boxes[i];
        // A region outside the table would index past it; such a box joins region 0.
        if (b.region < 0 || b.region >= regionCount)
            b.region = 0;
        packedIndex[i] = b.centerIndex;
        packedBackground[i] = b.bgIntensity;
        if (runs.empty() || runs.back().region != b.region)
            runs.push_back({static_cast<int>(i), static_cast<int>(i) + 1, b.region, 0.0});
        else
            runs.back().end = static_cast<int>(i) + 1;
    }
    cachedGain = GS::instance()->stylusBgGain;
    sumBackgrounds();
    limitOfRegion.assign(std::size_t(regionCount), 0);
    refreshing.assign(std::size_t(regionCount), 0);
}

inline void ReferenceBoxTrackingEngine::sumBackgrounds()
{
    for (Run& run : runs) {
        run.backgroundPart = 0;
        for (int i = run.begin; i < run.end; ++i)
            run.backgroundPart += std::trunc(packedBackground[std::size_t(i)] / cachedGain);
    }
}

inline AllBlobs ReferenceBoxTrackingEngine::processImage(unsigned char* image, bool extended_, bool debugFrame)
{
    ++frameCount;
    extended = extended_;
    result.clear();
    if (!image)
        return result;
    frameHeader = cv::Mat(height, width, CV_8UC1, image);
    return processImage(&frameHeader, debugFrame);
}

inline void ReferenceBoxTrackingEngine::triggerUpdateBackground(cv::Mat* image)
{
    cv::max(backgroundMax, *image, backgroundMax);
}

inline void ReferenceBoxTrackingEngine::triggerBgRefresh(bool full, bool topUp)
{
    updating = true;
    if (GS::instance()->verboseLog)
        std::printf("full update: %s\n", full ? "yes" : "no");
    if (full) {
        QList<int> all;
        all.reserve(regionCount);
        for (int r = 0; r < regionCount; ++r)
            all.append(r);
        regionsToUpdate = all;
    }
    regionsReset = true;
    if (full && !topUp)
        updateCount = 0;
    else
        updateCount = updateFrames - GS::instance()->stylusBgTopUpFrames;
}

inline void ReferenceBoxTrackingEngine::updateRegionals()
{
    if (updating)
        return;
    EngineHelper::updateRegionals(&regionIntensity, &regionBackground, &regionThreshold, &regionsToUpdate,
                                  &regionDeltas, &regionHits, regionCount, static_cast<double>(boxes.size()));
    if (!regionsToUpdate.isEmpty())
        triggerBgRefresh(false, false);
}

inline void ReferenceBoxTrackingEngine::resetBackgroundTable(bool topUp)
{
    std::printf("Reset Background: %d\n", updateFrames);
    std::fflush(stdout);
    pendingRefresh = topUp ? 2 : 1;
    for (int n = 0; n < 100; ++n) {
        if (pendingRefresh.load() == 0 && updateCount.load() >= updateFrames && learnCount.load() >= learnFrames)
            return;
        WorkerThread::msleep(100);
    }
}

inline void ReferenceBoxTrackingEngine::firstPass(cv::Mat* image, int* hits, bool* anyReset)
{
    const GS* gs = GS::instance();
    const double gain = gs->stylusBgGain;
    if (gain != cachedGain) {
        cachedGain = gain;
        sumBackgrounds();
    }

    std::fill(refreshing.begin(), refreshing.end(), 0);
    for (int r : regionsToUpdate) {
        if (r >= 0 && r < regionCount)
            refreshing[std::size_t(r)] = 1;
    }
    for (int r = 0; r < regionCount; ++r) {
        double t = regionThreshold[r];
        if (extended)
            t = std::max(35.0, t);
        limitOfRegion[std::size_t(r)] = reference_detail::integerLimit(t);
    }

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
        const int region = run.region;
        const int limit = limitOfRegion[std::size_t(region)];
        long long intensitySum = 0;
        if (!refreshing[std::size_t(region)]) {
            for (int i = run.begin; i < run.end; ++i) {
                const unsigned ci = static_cast<unsigned>(index[i]);
                const int v = ci - 1u < readable ? last[ci] : -1;
                intensitySum += v;
                if (v - background[i] > limit)
                    fire(i, v, background[i], limit, region);
            }
            regionBackground[region] += run.backgroundPart;
        } else {
            double part = 0;
            for (int i = run.begin; i < run.end; ++i) {
                int bg = background[i];
                if (resetting) {
                    bg = 0;
                    *anyReset = true;
                }
                const unsigned ci = static_cast<unsigned>(index[i]);
                const int v = ci - 1u < readable ? last[ci] : -1;
                if (bg < v)
                    bg = static_cast<int>(v * gain);
                background[i] = bg;
                boxes[std::size_t(i)].bgIntensity = bg;
                intensitySum += v;
                if (v - bg > limit)
                    fire(i, v, bg, limit, region);
                part += std::trunc(bg / gain);
            }
            run.backgroundPart = part;
            regionBackground[region] += part;
        }
        regionIntensity[region] += static_cast<double>(intensitySum);
    }
}

inline AllBlobs ReferenceBoxTrackingEngine::processImage(cv::Mat* image, bool debugFrame)
{
    idle = false;
    result.clear();
    // paused first: once it is seen clear, a waiting setCalibration has not begun to
    // change the boxes and will wait for idle.
    if (paused || !image || !image->data || boxes.empty()) {
        idle = true;
        return result;
    }

    // A refresh asked for from another thread starts here, on the frame thread.
    const int request = pendingRefresh.exchange(0);
    if (request != 0)
        triggerBgRefresh(true, request == 2);

    if (learnCount < learnFrames) {
        triggerUpdateBackground(image);
        ++learnCount;
        idle = true;
        return result;
    }
    if (!backgroundScaled) {
        backgroundMax.convertTo(backgroundMax, -1, backgroundScale);
        backgroundScaled = true;
    }

    image->copyTo(lastFrame);

    for (int r = 0; r < regionCount; ++r) {
        regionIntensity[r] = 0;
        regionBackground[r] = 0;
        regionHits[r] = 0;
    }
    bool anyReset = false;
    int hits = 0;
    groups.clear();

    firstPass(image, &hits, &anyReset);

    updateRegionals();
    if (anyReset)
        regionsReset = false;

    const GS* gs = GS::instance();
    if (updateCount < updateFrames) {
        updating = true;
        ++updateCount;
        if (gs->verboseLog) {
            std::printf("Update background, #%d, regions:", updateCount.load());
            for (int r : regionsToUpdate)
                std::printf(" %d", r);
            std::printf("\n");
        }
    } else if (updating) {
        updating = false;
        regionsToUpdate.clear();
        if (gs->verboseLog)
            std::printf("Update background is over.\n");
    }

    if (hits > 255) {
        std::printf("More than 255 boxes detected in total, returning from here\n");
        idle = true;
        return result;
    }

    // Twice, since one pass does not join groups that a later box connects.
    merged = ScanBox::mergeOverlapping(groups);
    groups2.clear();
    for (const ScanBox& box : merged)
        ScanBox::addOverlapping(&groups2, box);
    merged = ScanBox::mergeOverlapping(groups2);

    const std::vector<ScanBox> noMembers;
    for (std::size_t i = 0; i < merged.size(); ++i) {
        const ScanBox& mergedBox = merged[i];
        // Members of the first grouping, paired by index with boxes of the second.
        const std::vector<ScanBox>& members = i < groups.size() ? groups[i] : noMembers;
        bool found = false;
        std::vector<ScanBox> contours =
            referenceMinimumScanBox(mergedBox, &found, &lastFrame, members, &backgroundMax, backgroundScaled, extended);
        if (!found)
            continue;

        points.clear();
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
            if (!passed) {
                if (gs->verboseLog)
                    std::printf("not passed through 2. pass: intens = %d, bgIntens = %d, thresh = %d, "
                                "containerFound = %s\n",
                                c.intensity, c.bgIntensity, t, containerFound ? "true" : "false");
                continue;
            }
            c.shrink(-2);
            EVector p = QuillonImageHelper::subPix(&lastFrame, c, t, false, nullptr, 0);
            if (p.x > -1.0 && p.y > -1.0) {
                p.boxWidth = c.width;
                p.boxHeight = c.height;
                p.measureB = c.bgIntensity;
                p.cellIndex = t;
                points.push_back(p);
            } else if (gs->verboseLog) {
                std::printf("not passed through subpix\n");
            }
        }
        EngineHelper::erasePointsInLightShadow(&points, shadowLeft, shadowRight);
        EngineHelper::addBlobs(points, screenArea, fingerYShifts, fingerXShifts, transform, gridSize, shiftInverted,
                               &result.blobs, extended);
    }

    // Drawn before the frame is declared done, so that a calibration that waits for it
    // cannot change the border or the corners under the drawing.
    if (debugFrame) {
        lastFrame.copyTo(*image);
        drawOverlay(image);
    }
    idle = true;
    return result;
}

inline void ReferenceBoxTrackingEngine::drawOverlay(cv::Mat* image)
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
        const cv::Rect r(static_cast<int>(b->left), static_cast<int>(b->top), static_cast<int>(b->width),
                         static_cast<int>(b->height));
        cv::rectangle(*image, r, cv::Scalar(255), 1);
        const cv::Point centre(static_cast<int>(b->x), static_cast<int>(b->y));
        cv::circle(*image, centre, 1, cv::Scalar(255), cv::FILLED);
        std::snprintf(label, sizeof label, "%.2f/%.2f", b->x, b->y);
        cv::putText(*image, label, cv::Point(centre.x, centre.y - 20), cv::FONT_HERSHEY_SIMPLEX, 0.7, cv::Scalar(255),
                    1);
    }
}
