#pragma once

// The screen of the automatic calibration as its procedure sees it.
class IAutoCalibrationUi {
public:
    virtual void showImage(unsigned char* data, int width, int height, int id) = 0;
    virtual void show(bool visible, bool loading) = 0;
    virtual void showLoading(bool on) = 0;
    virtual void setup(int, int, int, int, int, int) {}
    virtual bool isCancelled() = 0;
    virtual void setSuccess(bool) {}
    virtual ~IAutoCalibrationUi() = default;
    virtual bool isWindowShown() = 0;
    virtual void bringToFront() = 0;
};
