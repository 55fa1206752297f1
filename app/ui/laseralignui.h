#pragma once

#include "blob2.h"
#include "ilaseralignui.h"
#include "ui.h"

#include <functional>
#include <vector>

// The laser alignment's screen: its dots travel to the document through the BlobContainer
// "laserAlignDots", which is changed on the main thread only, and the document draws them.
class LaserAlignUi : public Ui, public ILaserAlignUi {
    Q_OBJECT
public:
    LaserAlignUi();

    void show(bool visible) override;
    void showLoading(bool on) override;
    void sendEventsTo(QObject* object, const char* slot) override;
    void stopEventsTo(QObject* object) override;

    void showLaserAlignDots(const std::vector<EVector>& points) override;
    void showActiveLaserAlignDots(const std::vector<int>& dots) override;
    void setDotVisible(int dot, bool visible) override;
    void showLaserAlignInfo(int dot, DotInfoType type) override;
    void setCustomAccuracyText(int dot, const QString& text) override;
    void showHandOnDot(int dot, bool inverted) override;
    void setLaserAlignAccuracy(int accuracy, int dot) override;
    void setLaserAlignDebugPoint(EVector point, double shiftX, double shiftY, double blobShiftX, double blobShiftY,
                                 int dot) override;
    void setLaserAlignAccuracyThreshold(int threshold) override;
    void showAlignState(AlignState state) override;
    void showLaserAlignRetryCancelView(bool on) override;

private:
    // Runs the change on the main thread; the document redraws the dots when it returns true.
    void change(std::function<bool(std::vector<Blob2>&)> edit);
    // The same for one dot, ignored outside the list.
    void changeDot(int dot, std::function<bool(Blob2&)> edit);
};
