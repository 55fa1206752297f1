#pragma once

class QObject;

// The screen of the bar calibration as its procedure sees it.
class ILumerailCalibrationUi {
public:
    virtual void show(bool visible, bool withLoading) = 0;
    virtual void showLoading(bool on) = 0;
    virtual void setLumerailCrossHairNum(int n) = 0;
    virtual void sendEventsTo(QObject* object, const char* slot) = 0;
    virtual void startTimer() = 0;
    virtual void stopTimer() = 0;
    virtual void timedout() = 0;
    virtual ~ILumerailCalibrationUi() = default;
};
