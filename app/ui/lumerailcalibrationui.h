#pragma once

#include "ilumerailcalibrationui.h"
#include "ui.h"

// The bar calibration's screen: the number of the point to press, its ring and texts.
class LumerailCalibrationUi : public Ui, public ILumerailCalibrationUi {
    Q_OBJECT
public:
    LumerailCalibrationUi();

    using Ui::show;
    void show(bool visible, bool withLoading) override;
    void showLoading(bool on) override;
    void setLumerailCrossHairNum(int n) override;
    void startTimer() override;
    void stopTimer() override;
    void timedout() override;
    void sendEventsTo(QObject* object, const char* slot) override;
};
