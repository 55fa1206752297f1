#pragma once

#include "isensorviewerui.h"
#include "ui.h"

class GenericImageProvider;
class QImage;

// The sensor viewer's window: the camera picture with the help box of keys and exposure.
class SensorViewerUi : public Ui, public ISensorViewerUi {
    Q_OBJECT
public:
    SensorViewerUi();

    GenericImageProvider* imageProvider;
    // The picture behind the provider, which owns it.
    QImage* currentImage = nullptr;

    void show(bool visible) override;
    void showLoading(bool on) override;
    void showImage(unsigned char* data, int width, int height) override;
    void sendEventsTo(QObject* object, const char* slot) override;
    void printExposure(int exposure) override;
};
