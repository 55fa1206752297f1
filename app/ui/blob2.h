#pragma once

#include <QString>

// One dot of the laser alignment as QML reads it through BlobContainer.
struct Blob2 {
    int x = 0, y = 0, width = 0, height = 0, id = 0;
    double angle1 = 0, angle2 = 0, intensity = 0;
    int area = 0, accuracy = 0;
    bool active = false, busy = false, handIcon = false, handIconInverted = false, leftAlignInfo = false,
         rightAlignInfo = false, visible = false;
    double debugX = 0, debugY = 0, debugX2 = 0, debugY2 = 0, maxIntensity = 0;
    QString customDoneText;
    int attachMarkerAngle = 0;
    double shiftX = 0, shiftY = 0, blobShiftX = 0, blobShiftY = 0;
    int infoType = 0;
    QString customAccuracyText;
};
