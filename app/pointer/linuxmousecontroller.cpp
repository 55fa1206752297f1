#include "linuxmousecontroller.h"

#include "globalsettings.h"
#include "linuxmouse.h"
#include "resolutionchangenotifier.h"

#include <QDebug>
#include <QThread>
#include <QTimer>

#include <cmath>

LinuxMouseController::LinuxMouseController(QObject* parent) : QObject(parent)
{
    lastDownTime = std::chrono::steady_clock::now();
    onResolutionChanged(0, 0);
    startPoint = new EVector(0, 0);
    lastPoint = new EVector(0, 0);
    // Enough for a long undecided press at the full frame rate without growing.
    path.reserve(256);
    mouse = LinuxMouse::instance();
    rightClickTimer = new QTimer(this);
    rightClickTimer->setInterval(rightClickTime);
    connect(rightClickTimer, &QTimer::timeout, this, &LinuxMouseController::onRightClick);
    connect(this, &LinuxMouseController::startRightClickTimer, this, &LinuxMouseController::onStartRightClickTimer);
    connect(this, &LinuxMouseController::stopRightClickTimer, this, &LinuxMouseController::onStopRightClickTimer);
    connect(ResolutionChangeNotifier::instance(), &ResolutionChangeNotifier::resolutionChanged, this,
            &LinuxMouseController::onResolutionChanged);
}

// The mouse is the process's one pointer and outlives every controller.
LinuxMouseController::~LinuxMouseController()
{
    delete startPoint;
    delete lastPoint;
}

void LinuxMouseController::onResolutionChanged(int, int)
{
    const GS* gs = GS::instance();
    rightClickTime = gs->rightClickTime;
    doubleClickTime = gs->doubleClickTime;
    // The settings give a distance per axis; a press is judged by its diagonal.
    const int right = gs->rightClickTolerance;
    const int dbl = gs->doubleClickTolerance;
    rightClickTolerance = static_cast<int>(std::trunc(EVector(right, right).length()));
    doubleClickTolerance = static_cast<int>(std::trunc(EVector(dbl, dbl).length()));
    qDebug() << "l converted rightclick tolerance:" << rightClickTolerance.load();
    qDebug() << "l converted doubleclick tolerance:" << doubleClickTolerance.load();
}

void LinuxMouseController::handleDown(EVector pos, int)
{
    isMoving = false;
    path.clear();
    path.push_back(pos);

    const auto now = std::chrono::steady_clock::now();
    if (!isPressed && hadPress) {
        const auto since = std::chrono::duration_cast<std::chrono::milliseconds>(now - lastDownTime).count();
        if (since <= doubleClickTime && (*startPoint - pos).length() <= doubleClickTolerance) {
            // The second tap is an ordinary click near the first; the desktop makes it a double click.
            mouse->Move(pos.x, pos.y);
            qDebug() << "l********** double click triggered! ***********";
        }
    }

    *startPoint = pos;
    {
        std::lock_guard<std::mutex> hold(pointLock);
        *lastPoint = pos;
    }
    isPressed = true;
    hadPress = true;
    emit startRightClickTimer();
    lastDownTime = now;
}

void LinuxMouseController::pressAndReplay()
{
    mouse->Move(path.front().x, path.front().y);
    mouse->LeftPress();
    for (const EVector& p : path) {
        mouse->Move(p.x, p.y);
        QThread::msleep(1);
    }
}

void LinuxMouseController::handleMove(EVector pos, int)
{
    path.push_back(pos);
    {
        std::lock_guard<std::mutex> hold(pointLock);
        *lastPoint = pos;
    }
    const double len = (pos - *startPoint).length();

    if (!isMoving && !isRightDown && isPressed && len > rightClickTolerance) {
        emit stopRightClickTimer();
        isMoving = true;
        pressAndReplay();
        return;
    }
    // An undecided press, and one that became a right click, move the pointer without a button.
    mouse->Move(pos.x, pos.y);
}

void LinuxMouseController::handleUp(EVector pos, int)
{
    emit stopRightClickTimer();
    isPressed = false;

    if (!isRightDown) {
        if (!isMoving) {
            // A tap, or a stroke whose down was never seen: the whole of it goes out now.
            if (path.empty())
                path.push_back(pos);
            pressAndReplay();
            // The timer may have fired during the replay: its click stands, and the
            // left button stays as it is.
            if (isRightDown) {
                isRightDown = false;
                path.clear();
                return;
            }
        }
        mouse->Move(pos.x, pos.y);
        mouse->LeftRelease();
    }
    path.clear();
    isRightDown = false;
}

void LinuxMouseController::onRightClick()
{
    qDebug() << "l  right click!";
    isRightDown = true;
    isMoving = false;
    emit stopRightClickTimer();
    EVector at;
    {
        std::lock_guard<std::mutex> hold(pointLock);
        at = *lastPoint;
    }
    mouse->RightClickAt(at.x, at.y);
}

void LinuxMouseController::onStartRightClickTimer()
{
    rightClickTimer->start();
}

void LinuxMouseController::onStopRightClickTimer()
{
    rightClickTimer->stop();
}
