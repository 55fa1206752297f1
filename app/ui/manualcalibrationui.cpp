#include "manualcalibrationui.h"

#include "globalsettings.h"

#include <QDebug>

ManualCalibrationUi::ManualCalibrationUi()
    : Ui(GS::instance()->language, "qrc:/qml/Calibration.qml", nullptr, true)
{
}

void ManualCalibrationUi::show(bool visible, bool withLoading)
{
    Ui::show(visible);
    if (withLoading)
        showLoading(true);
    else
        invokeRoot(visible ? "showMc" : "hideMc");
}

void ManualCalibrationUi::showLoading(bool on)
{
    qDebug() << "Show Loading";
    Ui::showLoading(on);
    invokeRoot(on ? "hideMc" : "showMc");
}

void ManualCalibrationUi::moveCrosshairTo(int x, int y, int index)
{
    stopTimer();
    setRootProperty("mcCrossHairX", x);
    setRootProperty("mcCrossHairY", y);
    setRootProperty("isFirstPoint", index < 1);
}

void ManualCalibrationUi::setTouch(bool touch)
{
    setRootProperty("isTouch", touch);
}

void ManualCalibrationUi::setAcFailed(bool failed)
{
    setRootProperty("didAcFail", failed);
}

void ManualCalibrationUi::startTimer()
{
    invokeRoot("startTimer");
}

void ManualCalibrationUi::stopTimer()
{
    invokeRoot("stopTimer");
}

void ManualCalibrationUi::timedout()
{
    invokeRoot("timedout");
}

void ManualCalibrationUi::sendEventsTo(QObject* object, const char* slot)
{
    if (root)
        connect(root, SIGNAL(uiEvent(int)), object, slot);
}
