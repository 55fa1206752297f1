#pragma once

class QObject;

// The screen of the sensor viewer as the viewer sees it.
class ISensorViewerUi {
public:
    virtual void show(bool visible) = 0;
    virtual void showLoading(bool on) = 0;
    virtual void showImage(unsigned char* data, int width, int height) = 0;
    virtual void sendEventsTo(QObject* object, const char* slot) = 0;
    virtual void printExposure(int exposure) = 0;
    virtual ~ISensorViewerUi() = default;
};
