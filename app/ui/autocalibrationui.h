#pragma once

#include "iautocalibrationui.h"
#include "ui.h"

class GenericImageProvider;
class QImage;

// The automatic calibration's screen: its patterns and camera pictures full-screen.
class AutoCalibrationUi : public Ui, public IAutoCalibrationUi {
    Q_OBJECT
public:
    AutoCalibrationUi();

    GenericImageProvider* imageProvider;
    std::atomic<bool> cancelled{false};
    QImage* currentImage = nullptr;

    void showImage(unsigned char* data, int width, int height, int id) override;
    void show(bool visible, bool loading) override;
    void showLoading(bool on) override;
    bool isCancelled() override;
    bool isWindowShown() override;
    void bringToFront() override;

public slots:
    void onUiEvent(int id) override;
};
