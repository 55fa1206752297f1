#pragma once

#include "blob2.h"

#include <QObject>
#include <QString>

#include <vector>

// The dots of the laser alignment, handed to QML one value at a time. The getters take an
// index without a bounds check: QML asks only below length().
class BlobContainer : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;

    std::vector<Blob2> blobs;
    int sensorID = 0;

    Q_INVOKABLE int length() const;
    Q_INVOKABLE int getX(int i) const;
    Q_INVOKABLE int getY(int i) const;
    Q_INVOKABLE int getWidth(int i) const;
    Q_INVOKABLE int getHeight(int i) const;
    Q_INVOKABLE int getId(int i) const;
    Q_INVOKABLE double getAngle1(int i) const;
    Q_INVOKABLE double getAngle2(int i) const;
    Q_INVOKABLE double getIntensity(int i) const;
    Q_INVOKABLE int getArea(int i) const;
    Q_INVOKABLE int getAccuracy(int i) const;
    Q_INVOKABLE bool isActive(int i) const;
    Q_INVOKABLE bool isBusy(int i) const;
    Q_INVOKABLE bool isHandIcon(int i) const;
    Q_INVOKABLE bool isHandIconInverted(int i) const;
    Q_INVOKABLE bool isLeftAlignInfo(int i) const;
    Q_INVOKABLE bool isRightAlignInfo(int i) const;
    Q_INVOKABLE bool isVisible(int i) const;
    Q_INVOKABLE double getDebugX(int i) const;
    Q_INVOKABLE double getDebugY(int i) const;
    Q_INVOKABLE double getDebugX2(int i) const;
    Q_INVOKABLE double getDebugY2(int i) const;
    Q_INVOKABLE double getMaxIntensity(int i) const;
    Q_INVOKABLE QString getCustomDoneText(int i) const;
    Q_INVOKABLE int getAttachMarkerAngle(int i) const;
    Q_INVOKABLE QString getShiftValue(int i) const;
    Q_INVOKABLE int getInfoType(int i) const;
    Q_INVOKABLE QString getCustomAccuracyText(int i) const;
    Q_INVOKABLE int getSensorID() const;

    void add(const Blob2& blob);
    void clear();
};
