#pragma once

#include "evector.h"
#include "ibloblistener.h"
#include "ilaseralignment.h"
#include "ilaseralignui.h"

#include <atomic>
#include <mutex>
#include <vector>

class IBlobEmitter;
class IDisturbanceChecker;
class IPointerController;

// Guides the fitter of the finger unit: a finger held on a dot is reported off the dot by as
// much as the laser curtain is too high. Two mechanical steps (Gear-A on the bottom middle dot,
// Gear-B on the bottom left one) and an auto correction that moves each dot's finger shift at
// frame rate until the reported point meets the dot, then a last check for stray light.
// Owns its screen and its disturbance checker. finished: 0 last step done, -1 left earlier.
class LaserAlignment : public ILaserAlignment, public IBlobListener {
    Q_OBJECT
public:
    LaserAlignment(IBlobEmitter* emitter, IPointerController* pointer, ILaserAlignUi* ui,
                   IDisturbanceChecker* disturbanceChecker);
    ~LaserAlignment() override;

    void start(int step) override;

    void newBlob(Blob*, std::vector<Blob*>, unsigned char*) override {}
    void newBlobList(std::vector<Blob*> all) override;

    void setSurfaceFlatness(SurfaceFlatness value);
    void setDotDistance(LaserDistance distance);
    void setDots(double divisorX, double divisorY);
    void showVerticalAlign(bool keepScreen);
    void showHorizontalAlign();
    void showAutoCorrection();
    // Blocks for the checker's listening period; on light it puts up the retry view.
    bool isDisturbance();
    void resetAccuracies();

public slots:
    void onUiEvent(int id);
    void dispose();
    void retry();
    void continueStep();
    void initAlign();
    // After the last dot, on a thread of its own, so that the final check hears the frames.
    void finishAutoCorrection();

private:
    // Called with lock held.
    void setDotsLocked(double divisorX, double divisorY);
    void showVerticalAlignLocked(bool keepScreen);

    IBlobEmitter* emitter;
    IPointerController* pointer;
    ILaserAlignUi* ui;
    IDisturbanceChecker* disturbanceChecker;

    const double dotTolerance;
    std::atomic<int> exitCode{0};
    std::atomic<int> step{-1};
    std::atomic<bool> disposed{false};
    // A worker is in the final check: Esc then waits for it, as the object must outlive it.
    std::atomic<bool> checking{false};
    std::atomic<bool> disposeRequested{false};
    int savedTopUpFrames = 0;

    // The frame thread and the main thread meet on these.
    std::mutex lock;
    std::vector<EVector> dots;
    std::vector<int> activeDots;
    std::vector<int> accuracies;
    std::vector<std::vector<double>> samples;
    int horizontalDot = 1;
    const int dotCount = 9;
    int alignState = -1; // an AlignState once a step is shown
    int accuracyThreshold = 0;
    double marginX = 0, marginY = 0;
    const double dotMarginRatio = 10.0;
    double flatness = 0;
    LaserDistance dotDistance = LaserDistance::Far;
};
