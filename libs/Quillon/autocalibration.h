#pragma once

#include "evector.h"
#include "iautocalibration.h"

#include <opencv2/core.hpp>

#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

class Calibration;
class Classifier;
class IBlobEmitter;
class IDisturbanceChecker;

// Calibrates without a user: shows patterns full-screen, films them, and finds where each
// dot of a grid lies on the sensor. All of the work after start() runs on one worker thread;
// the projector's latency is respected by waiting, the only feedback being the measured delay.
// finished: 1 made and set, 0 none found, -2 made but light was seen on the screen
// afterwards, -3 cancelled.
class AutoCalibration : public IAutoCalibration {
    Q_OBJECT
public:
    using Rows = std::vector<std::vector<EVector>>;

    AutoCalibration(IDisturbanceChecker* disturbanceChecker, IBlobEmitter* emitter);
    ~AutoCalibration() override;

    void start(IImageSource* source, IAutoCalibrationUi* ui, char* configPath, std::string debugDir,
               int screenWidth, int screenHeight, int sensorWidth, int sensorHeight, bool debug,
               bool hideWhenDone) override;

    // Meaning goes by line number; a missing file leaves what is there.
    void loadConfig();

    Calibration* ProcessOnce();
    // True when the dots look larger at the far (top) end: they must grow the other way.
    bool checkTableTopAC_robust();

    void setExposure(int exposure);
    void saveDebugImage(const cv::Mat& image, const std::string& name, int index);
    void showImage(const cv::Mat& image, int id);

    // The lit area, or -3 on cancellation; renews blackImage and maskImage.
    double getBackground();
    int getDelayInProjection();
    int findBestExposure(int start, const cv::Mat& region);
    int findHistogramQuality(const cv::Mat& mask);
    cv::Mat getImage(const cv::Mat& mask, bool whiteOutside);
    // One frame as it comes, through the mask (black outside): no mean over frames.
    cv::Mat getSingleFrame(const cv::Mat& mask);
    cv::Mat getMaxContrastImage();
    cv::Mat getMaxContrastImage_exposure(const cv::Mat& mask);

    void showPattern(const Rows& rows, int index, bool inverted);
    void showPattern_tableTopAc(const Rows& rows, int index, int radius, bool inverted);
    void drawPattern(cv::Mat& image, const std::vector<EVector>& points, int index, int color);
    void drawPattern_tableTopAc(cv::Mat& image, const std::vector<EVector>& points, int radius, int color);
    void showCheckBoardPattern();
    void showBorderImage();
    void drawTopRows(cv::Mat& image, bool inverted);
    void drawBottomRows(cv::Mat& image, bool inverted);

    IAutoCalibrationUi* ui = nullptr;
    IImageSource* source = nullptr;
    IBlobEmitter* emitter;
    IDisturbanceChecker* disturbanceChecker;
    Classifier* classifier;

    int status = 0;
    Calibration* result = nullptr;
    std::string configPath;
    std::string debugDir;
    bool debug = true;
    bool hideWhenDone = false;
    int screenWidth = 0;
    int screenHeight = 0;
    int sensorWidth = 0;
    int sensorHeight = 0;

    double exposure = 0;
    double startExposure = 0;
    int framesPerImage = 20;
    int maxDelayMs = 1200;
    int interframeDelayMs = 100;
    int darkRows = 4;
    bool lowContrast = false;
    bool invertDraw = false;

    cv::Mat blackImage;
    cv::Mat whiteImage;
    cv::Mat maskImage;
    cv::Mat projectedImage; // screen size, the one picture drawn on and shown
    cv::Mat debugImage;     // sensor size, three channels

    // The lines of ac.conf, in their order. Those without a default hold 0 until it is read.
    int patternCols = 0;
    int patternRows = 0;
    double dotRadius = 0; // per 1024 screen pixels of width in the file; pixels once a run has laid out its grid
    double marginX = 0;
    double marginY = 0;
    double unusedLine5 = 0;
    double maxWeightRatio = 5.0;
    double maxDistanceRatio = 5.0;
    double maxAngle = 30.0;
    double exposureFloor = 0;
    double unusedLine10 = 160000.0;
    double exposureStep = 40000.0;
    double unusedLine13 = 0;
    double shiftX = 0;
    double shiftY = 0;
    double ratioLeft = 0;
    double ratioRight = 0;
    double ratioTop = 0;
    double ratioBottom = 0;
    double growth = 0;
    int refineSteps = 5;
    double exposureFactorUp = 0.33;
    double exposureFactorDown = 0.6;
    double exposureFactorFixed = 0;
    bool tableTop = false;

    static constexpr int ConfigLines = 27;

public slots:
    void startProcessing();

private:
    bool cancelled();
    void sleepMs(int ms);
    // One row's dots, or fewer: the classifier's answer for the shot after the pattern.
    std::vector<EVector> findRow(const cv::Mat& reference, bool inverted, int index, const char* debugName);

    FILE* exposureLog = nullptr;
    // The worker clears this as its last step: the facade may delete the object as soon as
    // the queued finished() arrives, and must not do so while the slot is still unwinding.
    std::atomic<bool> working{false};
};
