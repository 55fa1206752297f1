#include "sensorviewerui.h"

#include "genericimageprovider.h"
#include "globalsettings.h"
#include "qmlapplicationviewer.h"

#include <QImage>
#include <QQmlEngine>

SensorViewerUi::SensorViewerUi()
    : Ui(GS::instance()->language, "qrc:/qml/Calibration.qml", nullptr, false)
    , imageProvider(new GenericImageProvider())
{
    // The engine owns the provider from here on.
    viewer->engine()->addImageProvider("img", imageProvider);
    viewer->setTitle(tr("Sensor Viewer"));
}

void SensorViewerUi::show(bool visible)
{
    Ui::show(visible);
    setRootProperty("sensorViewerHelpVisible", visible);
}

void SensorViewerUi::showLoading(bool on)
{
    Ui::showLoading(on);
}

void SensorViewerUi::showImage(unsigned char* data, int width, int height)
{
    // A copy: the frame behind data is freed at the next getImage(), and QML may read the
    // picture again later.
    auto* image = new QImage(QImage(data, width, height, width, QImage::Format_Indexed8).copy());
    QList<QRgb> grey(256);
    for (int i = 0; i < 256; ++i)
        grey[i] = qRgb(i, i, i);
    image->setColorTable(grey);
    currentImage = image;
    imageProvider->setImage(image);
    invokeRoot("updateImage");
}

void SensorViewerUi::sendEventsTo(QObject* object, const char* slot)
{
    // The window's own relay: keys, a close request and the menu's ids all reach the viewer.
    connect(this, SIGNAL(uiEvent(int)), object, slot);
}

void SensorViewerUi::printExposure(int exposure)
{
    setRootProperty("exposure", exposure);
}
