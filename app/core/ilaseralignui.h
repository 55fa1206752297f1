#pragma once

#include "evector.h"

#include <QString>

#include <vector>

class QObject;

// The numbers of these enums travel as the screen's event ids and as arguments of its calls.
enum class AlignState { AutoCorrection = 0, Horizontal = 1, Vertical = 2 };
enum class LaserDistance { Far = 6001, Medium = 6002, Close = 6003 };
enum class SurfaceFlatness { Even = 6004, Moderate = 6005, Uneven = 6006 };
enum class DotInfoType { None = -1, GearA = 0, GearB = 2 };

// The screen of the laser alignment as its procedure sees it. Dots are indices into the list
// last given to showLaserAlignDots; an index outside it is ignored. Callable from any thread.
class ILaserAlignUi {
public:
    virtual ~ILaserAlignUi() = default;

    virtual void show(bool visible) = 0;
    virtual void showLoading(bool on) = 0;
    // Delivers the screen's event ids to a slot written as SLOT() writes it.
    virtual void sendEventsTo(QObject* object, const char* slot) = 0;
    virtual void stopEventsTo(QObject* object) = 0;

    virtual void showLaserAlignDots(const std::vector<EVector>& points) = 0;
    virtual void showActiveLaserAlignDots(const std::vector<int>& dots) = 0;
    virtual void setDotVisible(int dot, bool visible) = 0;
    virtual void showLaserAlignInfo(int dot, DotInfoType type) = 0;
    virtual void setCustomAccuracyText(int dot, const QString& text) = 0;
    // -1 clears every hand.
    virtual void showHandOnDot(int dot, bool inverted) = 0;
    virtual void setLaserAlignAccuracy(int accuracy, int dot) = 0;
    virtual void setLaserAlignDebugPoint(EVector point, double shiftX, double shiftY, double blobShiftX,
                                         double blobShiftY, int dot) = 0;
    virtual void setLaserAlignAccuracyThreshold(int threshold) = 0;
    virtual void showAlignState(AlignState state) = 0;
    virtual void showLaserAlignRetryCancelView(bool on) = 0;
};
