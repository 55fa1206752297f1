#pragma once

#include "activepencontext.h"
#include "evector.h"

#include <atomic>
#include <mutex>
#include <vector>

class Blob;
class BlobCorrectionByFormula;
class BlobList;
class Calibration;
class ICorrection;
class ITrackingEngine;
class Interpolation;
class Sensor;
class TransformGrid;

enum InputMode { Finger = 0, Stylus = 1, StylusCalibration = 2 };

// Between the sensor's frames and the blob listeners: runs the engine of the input mode,
// keeps each touch's identity across frames, smooths, and maps to the screen.
class ActivePen {
public:
    ITrackingEngine* fingerEngine = nullptr;
    ITrackingEngine* stylusEngine = nullptr;
    int maxBlobs = 0;
    TransformGrid* grid = nullptr;            // undistorted sensor to screen
    TransformGrid* invertedGrid = nullptr;    // screen to undistorted sensor
    TransformGrid* rawInvertedGrid = nullptr; // screen to raw sensor, for the sensor window
    BlobList* blobs = nullptr;
    BlobList* outsideBlobs = nullptr;
    Interpolation* interpolationMain = nullptr;
    Interpolation* bezier = nullptr;
    Interpolation* inertia = nullptr;
    BlobCorrectionByFormula* formulaCorrection = nullptr;
    ICorrection* correction = nullptr;
    // Set from the main thread, read by the frame loop.
    std::atomic<int> inputMode{Finger};
    Sensor* sensor = nullptr;
    ActivePenContext context;
    std::atomic<bool> extended{false};
    std::atomic<bool> dualEngine{false};
    std::atomic<bool> lumerailCalibrated{false};

    ActivePen() = default;
    ~ActivePen();
    ActivePen(const ActivePen&) = delete;
    ActivePen& operator=(const ActivePen&) = delete;

    // sensor may be null: then there is no window to set.
    void start(Sensor* sensor, ActivePenContext context);
    bool initNormalUndistortion(const char* intrinsicPath, const char* distortionPath, double scaleX, double scaleY);
    bool initFisheyeUndistortion(int cx, int cy, int fx, int fy);
    void configExtraCorrection(double x, double y, double factor);

    EVector transform(EVector p, bool inverted);
    void setInputMode(int mode);
    void resetBackgroundTable(bool full);

    // The blobs of one frame in screen space, new objects owned by the caller: those of
    // the screen first, then those of the outside list.
    std::vector<Blob*> convert(unsigned char* image, int keepFrames, bool debug);

    void setWindow();
    void setAutoWindow(const std::vector<EVector>& points);

    void setCalibration(Calibration* calibration, Calibration* engineCalibration, int width, int height, int mode);
    void setEngineCalibration(Calibration* calibration, int mode);
    void setBlobFilter(const std::vector<EVector>& polygon);
    void setShiftCorrection(const std::vector<EVector>& shifts);

private:
    // The frame loop and the calibration set-up meet here: grids and the blob filter are
    // replaced while frames flow, and a frame must see them whole.
    std::mutex frameLock;
};
