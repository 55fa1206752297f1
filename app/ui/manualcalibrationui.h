#pragma once

#include "imanualcalibrationui.h"
#include "ui.h"

// The manual calibration's screen: the crosshair on the dot to press, its ring and texts.
class ManualCalibrationUi : public Ui, public IManualCalibrationUi {
    Q_OBJECT
public:
    ManualCalibrationUi();

    using Ui::show;
    void show(bool visible, bool withLoading) override;
    void showLoading(bool on) override;
    void moveCrosshairTo(int x, int y, int index) override;
    void setTouch(bool touch) override;
    void setAcFailed(bool failed) override;
    void startTimer() override;
    void stopTimer() override;
    void timedout() override;
    void sendEventsTo(QObject* object, const char* slot) override;
};
