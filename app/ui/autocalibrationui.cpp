#include "autocalibrationui.h"

#include "genericimageprovider.h"
#include "globalsettings.h"
#include "qmlapplicationviewer.h"

#include <QImage>
#include <QQmlEngine>

AutoCalibrationUi::AutoCalibrationUi()
    : Ui(GS::instance()->language, "qrc:/qml/Calibration.qml", nullptr, true)
    , imageProvider(new GenericImageProvider())
{
    // The engine owns the provider from here on.
    viewer->engine()->addImageProvider("img", imageProvider);
}

void AutoCalibrationUi::showImage(unsigned char* data, int width, int height, int)
{
    // A copy: the frame buffer behind data is reused by the sensor before QML reads it.
    auto* image = new QImage(QImage(data, width, height, width, QImage::Format_Indexed8).copy());
    QList<QRgb> grey(256);
    for (int i = 0; i < 256; ++i)
        grey[i] = qRgb(i, i, i);
    image->setColorTable(grey);
    currentImage = image;
    imageProvider->setImage(image);
    invokeRoot("updateImage");
}

void AutoCalibrationUi::show(bool visible, bool)
{
    Ui::show(visible);
}

void AutoCalibrationUi::showLoading(bool on)
{
    Ui::showLoading(on);
}

bool AutoCalibrationUi::isCancelled()
{
    return cancelled;
}

bool AutoCalibrationUi::isWindowShown()
{
    return shown;
}

void AutoCalibrationUi::bringToFront()
{
    Ui::bringToFront();
}

void AutoCalibrationUi::onUiEvent(int id)
{
    if (id == 1 || id == 13)
        cancelled = true;
    Ui::onUiEvent(id);
}
