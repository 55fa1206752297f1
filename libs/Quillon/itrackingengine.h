#pragma once

#include "allblobs.h"
#include "epolygon.h"
#include "evector.h"

#include <vector>

class BlobCorrectionByFormula;
class Calibration;
class ICorrection;

// What both engines offer: one 8-bit frame in, the frame's blobs out.
class ITrackingEngine {
public:
    // The screen polygon in undistorted sensor space, or null. Not owned.
    EPolygon* blobFilter = nullptr;
    ICorrection* correction = nullptr;
    BlobCorrectionByFormula* formulaCorrection = nullptr;
    std::vector<std::vector<double>> fingerYShifts;
    std::vector<std::vector<double>> fingerXShifts;

    // The blobs of the result are the caller's.
    virtual AllBlobs processImage(unsigned char* image, bool extended, bool debug) = 0;
    virtual void setCalibration(Calibration* calibration, int mode) = 0;
    // Folds a flat, row-major table into the two square shift tables; a table that is
    // not square loses its tail, one of fewer than 4 entries is ignored.
    void setFingerTouchShifts(std::vector<EVector> shifts);
    virtual void resetBackgroundTable(bool full) { (void)full; }

    virtual ~ITrackingEngine() = default;
};
