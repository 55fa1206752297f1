#include "blobcontainer.h"

#include <cmath>

int BlobContainer::length() const
{
    return int(blobs.size());
}

int BlobContainer::getX(int i) const
{
    return blobs[size_t(i)].x;
}

int BlobContainer::getY(int i) const
{
    return blobs[size_t(i)].y;
}

int BlobContainer::getWidth(int i) const
{
    return blobs[size_t(i)].width;
}

int BlobContainer::getHeight(int i) const
{
    return blobs[size_t(i)].height;
}

int BlobContainer::getId(int i) const
{
    return blobs[size_t(i)].id;
}

double BlobContainer::getAngle1(int i) const
{
    return blobs[size_t(i)].angle1;
}

double BlobContainer::getAngle2(int i) const
{
    return blobs[size_t(i)].angle2;
}

double BlobContainer::getIntensity(int i) const
{
    return blobs[size_t(i)].intensity;
}

int BlobContainer::getArea(int i) const
{
    return blobs[size_t(i)].area;
}

int BlobContainer::getAccuracy(int i) const
{
    return blobs[size_t(i)].accuracy;
}

bool BlobContainer::isActive(int i) const
{
    return blobs[size_t(i)].active;
}

bool BlobContainer::isBusy(int i) const
{
    return blobs[size_t(i)].busy;
}

bool BlobContainer::isHandIcon(int i) const
{
    return blobs[size_t(i)].handIcon;
}

bool BlobContainer::isHandIconInverted(int i) const
{
    return blobs[size_t(i)].handIconInverted;
}

bool BlobContainer::isLeftAlignInfo(int i) const
{
    return blobs[size_t(i)].leftAlignInfo;
}

bool BlobContainer::isRightAlignInfo(int i) const
{
    return blobs[size_t(i)].rightAlignInfo;
}

bool BlobContainer::isVisible(int i) const
{
    return blobs[size_t(i)].visible;
}

double BlobContainer::getDebugX(int i) const
{
    return blobs[size_t(i)].debugX;
}

double BlobContainer::getDebugY(int i) const
{
    return blobs[size_t(i)].debugY;
}

double BlobContainer::getDebugX2(int i) const
{
    return blobs[size_t(i)].debugX2;
}

double BlobContainer::getDebugY2(int i) const
{
    return blobs[size_t(i)].debugY2;
}

double BlobContainer::getMaxIntensity(int i) const
{
    return blobs[size_t(i)].maxIntensity;
}

QString BlobContainer::getCustomDoneText(int i) const
{
    return blobs[size_t(i)].customDoneText;
}

int BlobContainer::getAttachMarkerAngle(int i) const
{
    return blobs[size_t(i)].attachMarkerAngle;
}

int BlobContainer::getInfoType(int i) const
{
    return blobs[size_t(i)].infoType;
}

QString BlobContainer::getCustomAccuracyText(int i) const
{
    return blobs[size_t(i)].customAccuracyText;
}

QString BlobContainer::getShiftValue(int i) const
{
    const Blob2& b = blobs[size_t(i)];
    const auto text = [](double v) { return QString::number(std::round(v), 'g', 6); };
    return text(b.shiftX) + " / " + text(b.shiftY) + " calc: " + text(b.blobShiftX) + " / " + text(b.blobShiftY);
}

int BlobContainer::getSensorID() const
{
    return sensorID;
}

void BlobContainer::add(const Blob2& blob)
{
    blobs.push_back(blob);
}

void BlobContainer::clear()
{
    blobs.clear();
}
