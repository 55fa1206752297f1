#pragma once

#include "ibloblistener.h"
#include "ilumerailcalibration.h"

#include <atomic>
#include <mutex>
#include <vector>

class Calibration;
class IBlobEmitter;
class IDisturbanceChecker;
class ILumerailCalibrationUi;
class QTimer;
class Sensor;

// Teaches the system the four marked points of the bar beside the screen: the user presses
// them in turn with the stylus, and their screen positions, as fractions of the screen, become
// the bar points of the calibration in force. No new calibration is made.
// finished: 1 done, -2 light disturbance (the new points stay), -3 cancelled (the old ones
// come back when the object is deleted).
class LumerailCalibration : public ILumerailCalibration, public IBlobListener {
    Q_OBJECT
public:
    static constexpr int BarPoints = 4;

    LumerailCalibration(ILumerailCalibrationUi* ui, IBlobEmitter* emitter, Sensor* sensor);
    ~LumerailCalibration() override;

    void start(ActivePen* activePen) override;

    void newBlob(Blob* blob, std::vector<Blob*> all, unsigned char* image) override;
    void newBlobList(std::vector<Blob*> all) override;
    void newOutsideBlob(Blob* blob, std::vector<Blob*> all, unsigned char* image) override;
    void newOutsideBlobList(std::vector<Blob*> all) override;

public slots:
    void onUiEvent(int id);
    // Runs on a thread of its own: it sleeps through the listening period.
    void checkDisturbanceAndContinue();
    void onDotPressed();
    void onStartTimer();
    void onStopTimer();

signals:
    void startTimerSignal();
    void stopTimerSignal();

private:
    void finishPoint(const std::vector<EVector>& sample);
    void end(int status);

    IBlobEmitter* emitter;
    ILumerailCalibrationUi* ui;
    Sensor* sensor;
    ActivePen* activePen = nullptr;
    IDisturbanceChecker* disturbanceChecker;
    // The emitter's, never ours to delete.
    Calibration* calibration = nullptr;
    std::vector<EVector> savedBarPoints;

    // The frame thread, the main thread and the checking thread meet on these.
    std::atomic<bool> isListening{false};
    std::atomic<bool> disturbanceChecked{false};
    std::atomic<bool> dotTimedOut{false};
    std::atomic<bool> isUp{true};
    std::atomic<bool> timerRunning{false};
    std::atomic<bool> checking{false};
    std::atomic<bool> ended{false};
    std::atomic<int> trackedBlobId{-1};
    // Never set here: the bar is pressed with the stylus.
    bool isTouch = false;

    std::vector<EVector> srcPoints;
    // Undo on the main thread and a finished point on the frame thread change these together.
    std::mutex dotsLock;
    std::vector<std::vector<EVector>> collected;
    int crosshairNumber = 1;
    // Frame thread only.
    std::vector<std::vector<EVector>> pressSamples;

    QTimer* dotTimer = nullptr;
};
