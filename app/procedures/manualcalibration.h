#pragma once

#include "ibloblistener.h"
#include "imanualcalibration.h"

#include <atomic>
#include <mutex>
#include <vector>

class Calibration;
class IBlobEmitter;
class IDisturbanceChecker;
class IManualCalibrationUi;
class QTimer;
class Sensor;

// The dot-press calibration: a crosshair at each point of a grid, pressed in turn with the
// stylus or a finger; the sensor positions of the presses become the new calibration.
// finished: 1 done, -2 light disturbance (after the last dot the new calibration stays in
// force all the same), -3 cancelled.
class ManualCalibration : public IManualCalibration, public IBlobListener {
    Q_OBJECT
public:
    ManualCalibration(IManualCalibrationUi* ui, IBlobEmitter* emitter, Sensor* sensor);
    ~ManualCalibration() override;

    void start(ActivePen* activePen, bool acFailed) override;

    void newBlob(Blob* blob, std::vector<Blob*> all, unsigned char* image) override;
    void newBlobList(std::vector<Blob*> all) override;

    // Inert on purpose: a run always starts at the first dot.
    void cachePoints(const std::vector<std::vector<EVector>>& points);
    std::vector<std::vector<EVector>> loadCachedPoints();

public slots:
    void onUiEvent(int id);
    // Runs on a thread of its own: it sleeps through the listening period.
    void checkDisturbanceAndContinue();
    void onDotPressed();

signals:
    void startTimerSignal();
    void stopTimerSignal();

private slots:
    void onStartTimer();
    void onStopTimer();

private:
    void finishDot(const std::vector<EVector>& sample);
    void showDot(int index);
    void end(int status);

    IBlobEmitter* emitter;
    IManualCalibrationUi* ui;
    Sensor* sensor;
    ActivePen* activePen = nullptr;
    IDisturbanceChecker* disturbanceChecker;
    Calibration* calibration = nullptr;
    bool calibrationHandedOver = false;

    // The frame thread, the main thread and the checking thread meet on these.
    std::atomic<bool> isListening{false};
    std::atomic<bool> disturbanceChecked{false};
    std::atomic<bool> dotTimedOut{false};
    std::atomic<bool> isUp{true};
    std::atomic<bool> timerRunning{false};
    // A check runs on its thread: Esc then waits for its verdict, as the object must outlive it.
    std::atomic<bool> checking{false};
    std::atomic<bool> ended{false};
    std::atomic<int> trackedBlobId{-1};
    bool isTouch = false;

    std::vector<EVector> dstPoints;
    std::vector<EVector> srcPoints;
    // Undo on the main thread and a finished dot on the frame thread change these together.
    std::mutex dotsLock;
    std::vector<std::vector<EVector>> collected;
    int pointIndex = 0;
    // Frame thread only.
    std::vector<std::vector<EVector>> pressSamples;

    QTimer* dotTimer = nullptr;
};
