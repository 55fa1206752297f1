#include "disturbancechecker.h"

#include "globalsettings.h"

#include <QDebug>

#include <unistd.h>

void DisturbanceChecker::newBlob(Blob* blob, std::vector<Blob*>, unsigned char*)
{
    if (!isChecking || !blob)
        return;
    GS* gs = GS::instance();
    // The calibrated position decides: a reflection beside the screen may stay.
    if (blob->isOutOfScreen(gs->screenWidth, gs->screenHeight)) {
        qDebug() << "Blob found outside screen: " << blob->fx << blob->fy;
    } else {
        foundOnScreen = true;
        qDebug() << "Blob found on screen: " << blob->fx << blob->fy;
    }
    foundAnywhere = true;
}

void DisturbanceChecker::newBlobList(std::vector<Blob*>) {}

bool DisturbanceChecker::checkIsDisturbanceOnScreen()
{
    check();
    return foundOnScreen;
}

bool DisturbanceChecker::checkIsDisturbanceAnywhere()
{
    check();
    return foundAnywhere;
}

void DisturbanceChecker::check()
{
    foundOnScreen = false;
    foundAnywhere = false;
    isChecking = true;
    qDebug() << "disturbance checking a ctivated";
    usleep(static_cast<useconds_t>(GS::instance()->disturbanceCheckMs) * 1000);
    qDebug().nospace() << "Disturbance on screen: " << (foundOnScreen ? "true" : "false")
                       << " anywhere else: " << (foundAnywhere ? "true" : "false");
    isChecking = false;
    qDebug() << "Disturbance checking done";
}
