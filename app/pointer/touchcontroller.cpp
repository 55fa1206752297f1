#include "touchcontroller.h"

#include "globalsettings.h"
#include "linuxmouse.h"
#include "linuxmousecontroller.h"
#include "touch.h"

#include <QDebug>
#include <QThread>
#include <QTimer>

#include <climits>
#include <cmath>
#include <cstdint>

namespace {

bool multiTouchMode()
{
    return GS::instance()->pointerMode == 1;
}

int scaleToDevice(double v, int extent)
{
    if (extent <= 0 || std::isnan(v))
        return 0;
    double units = std::round(double(Touch::MaxUnits) * (v / extent));
    units = std::fmax(double(INT_MIN), std::fmin(double(INT_MAX), units));
    // Off-screen positions wrap rather than clamp; only an up meets them, and it sends no position.
    return static_cast<int16_t>(static_cast<int>(units));
}

// The desktop's own scaling, as the offset correction measured it: each side of the logical
// centre is stretched by its ratio, so that the desktop's scaling lands the touch back in place.
double undoDesktopScaling(double v, double centre, double below, double above)
{
    return centre + (v < centre ? below : above) * (v - centre);
}

} // namespace

TouchController::TouchController(QObject*) : TouchController(new Touch()) {}

TouchController::TouchController(Touch* device) : QObject(nullptr), touch(device)
{
    mouseController = new LinuxMouseController();
    mouse = LinuxMouse::instance();
    startPoint = new EVector(0, 0);
    lastPoint = new EVector(0, 0);
    const GS* gs = GS::instance();
    rightClickTolerance = gs->rightClickTolerance;
    rightClickTime = gs->rightClickTime;
    flushDelay = 2;
    // A still press at the full frame rate collects this many points at the most.
    pendingPoints.reserve(256);
    rightClickTimer = new QTimer(this);
    rightClickTimer->setInterval(rightClickTime);
    connect(rightClickTimer, &QTimer::timeout, this, &TouchController::onRightClick);
    connect(this, &TouchController::startRightClickTimer, this, &TouchController::onStartRightClickTimer);
    connect(this, &TouchController::stopRightClickTimer, this, &TouchController::onStopRightClickTimer);
}

TouchController::~TouchController()
{
    delete touch;
    delete mouseController;
    delete startPoint;
    delete lastPoint;
}

int TouchController::toDeviceX(double x)
{
    const GS* gs = GS::instance();
    return scaleToDevice(undoDesktopScaling(x, gs->offsetC, gs->offsetLeft, gs->offsetRight), gs->screenWidth);
}

int TouchController::toDeviceY(double y)
{
    const GS* gs = GS::instance();
    return scaleToDevice(undoDesktopScaling(y, gs->offsetD, gs->offsetTop, gs->offsetBottom), gs->screenHeight);
}

void TouchController::setLastPoint(const EVector& pos)
{
    std::lock_guard<std::mutex> hold(pointLock);
    *lastPoint = pos;
}

void TouchController::sendMove(double x, double y, int id)
{
    const auto entry = slotsById.find(id);
    if (entry != slotsById.end())
        touch->move(toDeviceX(x), toDeviceY(y), entry->second, id);
}

void TouchController::flush(bool fromUp)
{
    if (pendingPoints.empty())
        return;
    const TouchPoint& first = pendingPoints.front();
    const int slot = touch->down(toDeviceX(first.x), toDeviceY(first.y), first.id);
    slotsById.try_emplace(first.id, slot);
    QThread::msleep(flushDelay);
    for (size_t i = 1; i < pendingPoints.size(); ++i) {
        if (fromUp)
            qDebug() << "flushing in handle up ";
        const TouchPoint& p = pendingPoints[i];
        sendMove(p.x, p.y, p.id);
        QThread::msleep(flushDelay);
    }
}

void TouchController::handleDown(EVector pos, int id)
{
    if (!multiTouchMode()) {
        mouseController->handleDown(pos, id);
        return;
    }
    if (isPressed) {
        // A second finger ends any doubt: it goes out at once; the first finger's
        // points follow at the next move or up.
        qDebug() << "second point ";
        emit stopRightClickTimer();
        isMoving = true;
        const int slot = touch->down(toDeviceX(pos.x), toDeviceY(pos.y), id);
        slotsById.try_emplace(id, slot);
        return;
    }
    isMoving = false;
    isPressed = true;
    emit startRightClickTimer();
    *startPoint = pos;
    setLastPoint(pos);
    pendingPoints.clear();
    pendingPoints.push_back({pos.x, pos.y, id});
}

void TouchController::handleMove(EVector pos, int id)
{
    if (!multiTouchMode()) {
        mouseController->handleMove(pos, id);
        return;
    }
    setLastPoint(pos);
    const double len = (pos - *startPoint).length();

    if (!isMoving) {
        if (isRightDown)
            return;
        if (!(isPressed && len > rightClickTolerance)) {
            // Still undecided. A contact that is already out (an older finger) goes on live.
            pendingPoints.push_back({pos.x, pos.y, id});
            sendMove(pos.x, pos.y, id);
            return;
        }
        qDebug().nospace() << "stop right click timer isMoving: " << "false" << " isRightDown: " << "false"
                           << " isPressed: " << "true" << " len: " << len;
        emit stopRightClickTimer();
        isMoving = true;
        flush(false);
        pendingPoints.clear();
        sendMove(pos.x, pos.y, id);
    }
    // The move that crossed the tolerance is reported twice; the device takes that in its stride.
    flush(false);
    pendingPoints.clear();
    sendMove(pos.x, pos.y, id);
}

void TouchController::handleUp(EVector pos, int id)
{
    if (!multiTouchMode()) {
        mouseController->handleUp(pos, id);
        return;
    }
    qDebug() << "up stop right click timer ";
    emit stopRightClickTimer();
    if (isRightDown) {
        // The press was a right click: no contact of it ever reaches the device.
        isPressed = false;
        isRightDown = false;
        pendingPoints.clear();
        return;
    }
    flush(true);
    const auto entry = slotsById.find(id);
    if (entry != slotsById.end()) {
        touch->up(toDeviceX(pos.x), toDeviceY(pos.y), entry->second);
        slotsById.erase(entry);
    }
    isPressed = false;
    isRightDown = false;
    pendingPoints.clear();
}

void TouchController::reset()
{
    touch->reset();
    mouseController->reset();
}

void TouchController::onRightClick()
{
    isRightDown = true;
    isMoving = false;
    emit stopRightClickTimer();
    QThread::msleep(2);
    EVector at;
    {
        std::lock_guard<std::mutex> hold(pointLock);
        at = *lastPoint;
    }
    mouse->RightClickAt(at.x, at.y);
}

void TouchController::onStartRightClickTimer()
{
    rightClickTimer->start();
}

void TouchController::onStopRightClickTimer()
{
    rightClickTimer->stop();
}
