#pragma once

#include "allblobs.h"
#include "epolygon.h"
#include "evector.h"
#include "itrackingengine.h"
#include "polygonindex.h"
#include "scanbox.h"

#include <QList>

#include <opencv2/core.hpp>

#include <array>
#include <atomic>
#include <memory>
#include <vector>

class BoxTrackingDebug;
class TransformGrid;

// The finger engine. A calibrated grid of scan boxes lies over the screen; each frame only
// the centre pixel of each box is compared with the box's own background plus the
// threshold of its region. What fires is grouped, traced as contours, checked again and
// turned into blobs. Regions of the screen follow slow changes of ambient light.
//
// Frames come on one thread. pause(), setCalibration() and resetBackgroundTable() may be
// called from another; the frame loop sees them through the atomic flags below.
class BoxTrackingEngine : public ITrackingEngine {
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
    // The same outline, indexed for the frame loop's test of every point.
    std::unique_ptr<PolygonIndex> screenIndex;
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
    cv::Mat lastFrame;   // the frame in work, untouched until the frame loop ends; no copy
    cv::Mat backgroundMax;
    std::atomic<bool> updating{false};
    int regionCount;
    AllBlobs result;
    BoxTrackingDebug* debug;
    bool extended = false;
    // The last contour box of the frame, drawn by the overlay.
    ScanBox lastContourBox;

    BoxTrackingEngine(int width, int height, double boxRadius, int gridSize);
    ~BoxTrackingEngine() override;
    BoxTrackingEngine(const BoxTrackingEngine&) = delete;
    BoxTrackingEngine& operator=(const BoxTrackingEngine&) = delete;

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
        // All centres lie inside the frame (index 0 and past the end read as -1).
        bool readable;
        // Smallest centre index of the run; the others as 16-bit offsets from it, when they fit.
        int base;
        bool offsetsFit;
        // Sum of trunc(bgIntensity / gain) over the run, valid for cachedGain.
        double backgroundPart;
    };
    // What the first pass needs of a box, side by side, so that a box costs one load
    // besides its pixel.
    struct PackedBox {
        unsigned index;
        int background;
    };

    void rebuildPackedBoxes();
    void rebuildSweep();
    void rebuildSweepLimits();
    void sumBackgrounds();
    // The first pass of a frame in which no region refreshes: the frame is read chunk by chunk
    // instead of box by box. Returns the centres' sums by region and the boxes above their limit.
    void sweep(const unsigned char* frame, long long* sums);
    void firstPass(cv::Mat* image, int* hits, bool* anyReset);
    void drawOverlay(cv::Mat* image);
    // The scan of one run of readable boxes: returns the sum of the centres and calls fire for
    // each box above its limit, in box order.
    template <class Fire>
    int scanRun(const unsigned char* frame, const Run& run, int limit, Fire&& fire);
    void setShortBackground(std::size_t i, int background);
    // Whether a box that fired earlier in this frame has blanked the pixel at index.
    bool isBlanked(unsigned index) const;
    // Blanks the squares of the boxes that fired, in the caller's frame.
    void applyBlanking(cv::Mat* image);

    std::vector<PackedBox> packed;
    // The same, apart, for the scan of quiet boxes; backgrounds as 16 bits while they fit.
    std::vector<int> packedIndex;
    std::vector<unsigned short> packedOffset;
    std::vector<short> packedBackground;
    bool backgroundsFitShort = true;
    std::vector<unsigned char> centres; // scratch: the centre pixels of one run
    // Squares of the boxes that fired in this frame, blanked in the frame when it is done.
    std::vector<cv::Rect> blanked;
    std::vector<Run> runs;
    double cachedGain = 0;
    // Per region, the sum of its runs' backgroundPart; valid while none of them changes.
    std::vector<double> backgroundOfRegion;
    bool backgroundOfRegionValid = false;
    std::vector<int> limitOfRegion;
    std::vector<char> refreshing;
    // Groups of overlapping boxes; only the first groupCount (group2Count) are this frame's.
    // The vectors are kept from frame to frame, so that grouping allocates only what grows.
    std::vector<std::vector<ScanBox>> groups, groups2;
    std::size_t groupCount = 0, group2Count = 0;
    std::vector<ScanBox> merged;
    std::vector<ScanBox> contours; // of one merged box
    std::vector<EVector> points;
    // The boxes' centres by 32-pixel chunk of the frame and region: per chunk the lowest
    // value that fires a box of it (255: none) and which pixels hold a centre; pixels with
    // more than one centre are listed apart. Boxes outside the frame go box by box.
    struct SweepRun {
        int begin, end, region; // consecutive chunks of one region
    };
    std::vector<unsigned> sweepOffset;    // first pixel of each chunk
    std::vector<int> sweepRegion;         // region of each chunk
    std::vector<unsigned char> sweepLimit; // per chunk its 32 limits
    std::vector<unsigned char> sweepLowest; // per chunk the least of its limits
    std::vector<unsigned> sweepCentres;    // per chunk, a bit for each pixel with a centre
    struct SweepRepeat {
        unsigned index;
        int region;
        int count; // centres on the pixel beyond the first
    };
    std::vector<SweepRepeat> sweepRepeats;
    std::vector<SweepRun> sweepRuns;
    std::vector<std::pair<unsigned, int>> sweepBoxes; // (centre, box), sorted
    std::vector<int> sweepFirst;                      // per chunk, its first entry in sweepBoxes
    std::vector<int> sweepRunOf;                      // per chunk, its run
    std::vector<std::array<long long, 4>> sweepRunEnds;     // per run, the running sum's lanes at its end
    std::vector<std::array<long long, 4>> sweepRegionLanes; // per region, its lanes
    std::vector<int> sweepLeftover;                   // boxes scanned one at a time
    std::vector<int> sweepAlways;                     // boxes whose limit lies below 0
    std::vector<int> sweepLimits;                     // the limits the chunks were filled for
    std::vector<int> candidates;
    std::vector<long long> regionSums;
    bool sweepValid = false;
    bool sweepPays = false;
    // 0 none, 1 a full refresh, 2 a short one; asked for by resetBackgroundTable.
    std::atomic<int> pendingRefresh{0};
};
