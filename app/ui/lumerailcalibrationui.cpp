#include "lumerailcalibrationui.h"

#include "globalsettings.h"

#include <QDebug>

LumerailCalibrationUi::LumerailCalibrationUi()
    : Ui(GS::instance()->language, "qrc:/qml/Calibration.qml", nullptr, true)
{
}

void LumerailCalibrationUi::show(bool visible, bool withLoading)
{
    Ui::show(visible);
    if (withLoading)
        showLoading(true);
    else
        invokeRoot(visible ? "showLrc" : "hideLrc");
}

void LumerailCalibrationUi::showLoading(bool on)
{
    qDebug() << "Show Loading";
    Ui::showLoading(on);
    invokeRoot(on ? "hideLrc" : "showLrc");
}

void LumerailCalibrationUi::setLumerailCrossHairNum(int n)
{
    stopTimer();
    // Below 1 only stops the ring; the number shown stays.
    if (n < 1)
        return;
    setRootProperty("lrcCrosshairNoText", QString::number(n));
}

void LumerailCalibrationUi::startTimer()
{
    invokeRoot("startTimer");
}

void LumerailCalibrationUi::stopTimer()
{
    invokeRoot("stopTimer");
}

void LumerailCalibrationUi::timedout()
{
    invokeRoot("timedout");
}

void LumerailCalibrationUi::sendEventsTo(QObject* object, const char* slot)
{
    if (root)
        connect(root, SIGNAL(uiEvent(int)), object, slot);
}
