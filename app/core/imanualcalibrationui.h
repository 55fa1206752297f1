#pragma once

class QObject;

// The screen of the manual calibration as its procedure sees it.
class IManualCalibrationUi {
public:
    virtual void show(bool visible, bool withLoading) = 0;
    virtual void showLoading(bool on) = 0;
    virtual void setup(int /*cols*/, int /*rows*/, int /*marginXPercent*/, int /*marginYPercent*/) {}
    virtual void moveCrosshairTo(int x, int y, int index) = 0;
    virtual void setSuccess(bool) {}
    virtual void sendEventsTo(QObject* object, const char* slot) = 0;
    virtual void startTimer() = 0;
    virtual void stopTimer() = 0;
    virtual void timedout() = 0;
    virtual void setTouch(bool touch) = 0;
    virtual void setAcFailed(bool failed) = 0;
    virtual ~IManualCalibrationUi() = default;
};
