#include "laseralignui.h"

#include "blobcontainer.h"
#include "globalsettings.h"

#include <QDebug>
#include <QMetaObject>

LaserAlignUi::LaserAlignUi()
    : Ui(GS::instance()->language, "qrc:/qml/LaserAlignOrin.qml", nullptr, true)
{
}

void LaserAlignUi::show(bool visible)
{
    Ui::show(visible);
}

void LaserAlignUi::showLoading(bool on)
{
    Ui::showLoading(on);
}

void LaserAlignUi::sendEventsTo(QObject* object, const char* slot)
{
    connect(this, SIGNAL(uiEvent(int)), object, slot);
}

void LaserAlignUi::stopEventsTo(QObject* object)
{
    disconnect(this, &Ui::uiEvent, object, nullptr);
}

void LaserAlignUi::change(std::function<bool(std::vector<Blob2>&)> edit)
{
    // QML reads the container on the main thread, so it is written there too.
    QMetaObject::invokeMethod(
        this,
        [this, edit = std::move(edit)] {
            if (blobContainer && edit(blobContainer->blobs))
                invokeRoot("updateLaserAlignDots");
        },
        Qt::AutoConnection);
}

void LaserAlignUi::changeDot(int dot, std::function<bool(Blob2&)> edit)
{
    change([dot, edit = std::move(edit)](std::vector<Blob2>& dots) {
        if (dot < 0 || dot >= static_cast<int>(dots.size()))
            return false;
        return edit(dots[size_t(dot)]);
    });
}

void LaserAlignUi::showLaserAlignDots(const std::vector<EVector>& points)
{
    change([points](std::vector<Blob2>& dots) {
        dots.clear();
        for (const EVector& p : points) {
            Blob2 b;
            b.x = static_cast<int>(p.x);
            b.y = static_cast<int>(p.y);
            b.visible = true;
            b.infoType = -1;
            b.attachMarkerAngle = -1;
            dots.push_back(b);
        }
        return true;
    });
}

void LaserAlignUi::showActiveLaserAlignDots(const std::vector<int>& active)
{
    change([active](std::vector<Blob2>& dots) {
        for (Blob2& b : dots)
            b.active = false;
        for (int i : active)
            if (i >= 0 && i < static_cast<int>(dots.size()))
                dots[size_t(i)].active = true;
        return true;
    });
}

void LaserAlignUi::setDotVisible(int dot, bool visible)
{
    changeDot(dot, [visible](Blob2& b) {
        b.visible = visible;
        return true;
    });
}

void LaserAlignUi::showLaserAlignInfo(int dot, DotInfoType type)
{
    changeDot(dot, [type](Blob2& b) {
        b.infoType = static_cast<int>(type);
        return true;
    });
}

void LaserAlignUi::setCustomAccuracyText(int dot, const QString& text)
{
    changeDot(dot, [text](Blob2& b) {
        b.customAccuracyText = text;
        return true;
    });
}

void LaserAlignUi::showHandOnDot(int dot, bool inverted)
{
    change([dot, inverted](std::vector<Blob2>& dots) {
        bool cleared = false;
        for (Blob2& b : dots) {
            cleared = cleared || b.handIcon;
            b.handIcon = false;
        }
        if (dot >= 0 && dot < static_cast<int>(dots.size())) {
            dots[size_t(dot)].handIcon = true;
            dots[size_t(dot)].handIconInverted = inverted;
        }
        // A fresh list's first hand shows with the next update.
        return cleared;
    });
}

void LaserAlignUi::setLaserAlignAccuracy(int accuracy, int dot)
{
    setRootProperty("isInit", true);
    changeDot(dot, [accuracy](Blob2& b) {
        if (b.accuracy == accuracy)
            return false;
        b.accuracy = accuracy;
        b.busy = true;
        return true;
    });
}

void LaserAlignUi::setLaserAlignDebugPoint(EVector point, double shiftX, double shiftY, double blobShiftX,
                                           double blobShiftY, int dot)
{
    setRootProperty("isInit", true);
    changeDot(dot, [=](Blob2& b) {
        b.debugX = point.x;
        b.debugY = point.y;
        b.shiftX = shiftX;
        b.shiftY = shiftY;
        b.blobShiftX = blobShiftX;
        b.blobShiftY = blobShiftY;
        return true;
    });
}

void LaserAlignUi::setLaserAlignAccuracyThreshold(int threshold)
{
    setRootProperty("accuracyThreshold", threshold);
}

void LaserAlignUi::showAlignState(AlignState state)
{
    switch (state) {
    case AlignState::AutoCorrection:
        invokeRoot("showAutoCorrection");
        return;
    case AlignState::Horizontal:
        invokeRoot("showHorizontalAlign");
        return;
    case AlignState::Vertical:
        invokeRoot("showVerticalAlign");
        return;
    }
    qDebug() << "Unhandled Align state";
}

void LaserAlignUi::showLaserAlignRetryCancelView(bool on)
{
    invokeRoot(on ? "showDisturbanceFound" : "hideDisturbanceFound");
}
