#pragma once

#include "allblobs.h"
#include "bloblist.h"
#include "itrackingengine.h"

#include <opencv2/core.hpp>

#include <atomic>
#include <memory>
#include <vector>

// The stylus engine: a small, very bright tip on a dark frame. Bright pixels that are
// not masked by the learned background are collected into horizontal runs, runs are
// chained into blobs, and each blob's centre is refined on the image.
class TrackingEngine : public ITrackingEngine {
public:
    // One horizontal run of bright pixels.
    struct blobline {
        int id;
        int xStart;
        int xEnd; // inclusive
        int y;
    };

    // The state of one scan.
    struct bloblineContext {
        int nextId = -1;
        int lastX = -1, lastY = -1;
        int runStart = 0;
        int runEnd = 0;
        int maxRuns = 2000;
        std::vector<blobline> lines;
    };

    static constexpr int MaxRuns = 2000;
    static constexpr int MaxBlobs = 1000;

    double width, height;
    double threshold;
    int pixelStep;
    bool weighted;
    int bufferSize;
    int startIndex = 0;
    int clipLeft, clipRight, clipTop, clipBottom; // right and bottom exclusive
    // Written by resetBackgroundTable from another thread while frames run.
    std::atomic<bool> learning{true};
    std::atomic<int> learnedFrames{0};
    int framesToLearn;
    // One entry per pixel of the frame; null until the first learning frame.
    std::unique_ptr<unsigned char[]> backgroundTable;
    std::atomic<bool> clearTable{true};
    cv::Mat imageHeader;
    AllBlobs allBlobs;

    TrackingEngine(int width, int height, int threshold, int pixelStep, bool weighted);

    // extended is ignored; debug marks the blobs on the frame itself.
    AllBlobs processImage(unsigned char* image, bool extended, bool debug) override;
    void setCalibration(Calibration* calibration, int mode) override;
    // Learns the background again into a zeroed table: all frames when full, otherwise
    // only GS::stylusBgTopUpFrames. Blocks the caller until learned, at most ten seconds.
    void resetBackgroundTable(bool full) override;

    void Clip(int left, int right, int top, int bottom);

    // Resets and hands out the engine's one context, so that scanning allocates nothing.
    bloblineContext* CreateBloblineContext(int maxRuns);
    static void AddBlobPixel(bloblineContext* context, int x, int y, unsigned char value);
    static bool IsAttached(const blobline* a, const blobline* b);
    AllBlobs GenerateBlobList(bloblineContext* context, unsigned char* image);
    void updateBg(unsigned char* image);
    // Drops blobs too near the frame's edge and moves the rest to their refined centre.
    void rectifyBlobsPos(BlobList& list, cv::Mat& header, bool debug);

private:
    bloblineContext context;

    void buildBlobList(bloblineContext* context, unsigned char* image);
    void scan(bloblineContext* context, const unsigned char* image);
    void scanRowFast(bloblineContext* context, const unsigned char* image, int rowIndex, int count, int y);
    void addBlob(Blob* blob);
};
