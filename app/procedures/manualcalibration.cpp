#include "manualcalibration.h"

#include "activepen.h"
#include "calibration.h"
#include "disturbancechecker.h"
#include "globalsettings.h"
#include "iblobemitter.h"
#include "imanualcalibrationui.h"
#include "sensor.h"
#include "workerthread.h"

#include <QDebug>
#include <QFile>
#include <QTimer>

#include <cmath>

namespace {

constexpr int fingerPressMs = 500;
constexpr int stylusPressMs = 200;

} // namespace

ManualCalibration::ManualCalibration(IManualCalibrationUi* ui, IBlobEmitter* emitter, Sensor* sensor)
    : emitter(emitter), ui(ui), sensor(sensor), disturbanceChecker(new DisturbanceChecker())
{
    // The timer belongs to the main thread; the frame thread reaches it through these.
    connect(this, &ManualCalibration::startTimerSignal, this, &ManualCalibration::onStartTimer);
    connect(this, &ManualCalibration::stopTimerSignal, this, &ManualCalibration::onStopTimer);
}

ManualCalibration::~ManualCalibration()
{
    disconnect(this, &ManualCalibration::startTimerSignal, this, &ManualCalibration::onStartTimer);
    disconnect(this, &ManualCalibration::stopTimerSignal, this, &ManualCalibration::onStopTimer);
    emitter->removeBlobListener(this);
    emitter->removeBlobListener(disturbanceChecker);
    isListening = false;
    delete disturbanceChecker;
    delete dotTimer;
    if (!calibrationHandedOver)
        delete calibration;
}

void ManualCalibration::start(ActivePen* pen, bool acFailed)
{
    qDebug() << "Initializing manual calibration";
    activePen = pen;
    dotTimer = new QTimer(this);
    connect(dotTimer, &QTimer::timeout, this, &ManualCalibration::onDotPressed);

    GS* gs = GS::instance();
    isTouch = activePen->inputMode == Finger;
    if (isTouch)
        ui->setTouch(true);
    const double marginX = isTouch ? gs->mcTouchMarginX : gs->mcMarginX;
    const double marginY = isTouch ? gs->mcTouchMarginY : gs->mcMarginY;
    const Calibration layout(gs->mcCols, gs->mcRows, {}, {}, marginX, marginY, 0.0, false, false);
    dstPoints = layout.calcDstPoints(gs->screenWidth, gs->screenHeight);

    delete calibration;
    calibration = nullptr;
    srcPoints.clear();
    {
        std::lock_guard hold(dotsLock);
        collected.clear();
        pointIndex = 0;
    }

    ui->sendEventsTo(this, "1onUiEvent(int)");
    emitter->addBlobListener(this);

    ui->setup(gs->mcCols, gs->mcRows, static_cast<int>(marginX * 100), static_cast<int>(marginY * 100));
    ui->setAcFailed(acFailed);
    ui->show(true, true);

    {
        std::lock_guard hold(dotsLock);
        collected = loadCachedPoints();
        pointIndex = static_cast<int>(collected.size());
        showDot(pointIndex);
        pointIndex++;
    }
    qDebug() << "Manual calibration is initialized";
    checking = true;
    WorkerThread::doWork(this, "1checkDisturbanceAndContinue()", -1);
}

// Called with dotsLock held. The step past the last dot shows nothing: the screen hides then.
void ManualCalibration::showDot(int index)
{
    if (index < 0 || index >= static_cast<int>(dstPoints.size()))
        return;
    const EVector& p = dstPoints[index];
    ui->moveCrosshairTo(static_cast<int>(p.x), static_cast<int>(p.y), index);
}

void ManualCalibration::checkDisturbanceAndContinue()
{
    qDebug() << "Checking disturbance in MC";
    ui->showLoading(true);
    if (calibration) {
        qDebug() << "Calibration is done, finish off";
        if (isTouch) {
            sensor->setLaser(true);
            WorkerThread::msleep(300);
        }
        calibrationHandedOver = true;
        emitter->setCalibration(calibration);
    } else {
        qDebug() << "reset background table, handle laser";
        if (isTouch) {
            sensor->setLaser(true);
            WorkerThread::msleep(300);
        } else {
            sensor->setLaser(false);
            activePen->setBlobFilter({});
            sensor->setRobustMode(3);
        }
        activePen->resetBackgroundTable(false);
    }

    qDebug() << "Start actual disturbance checking";
    emitter->addBlobListener(disturbanceChecker);
    const bool disturbed = disturbanceChecker->checkIsDisturbanceOnScreen();
    emitter->removeBlobListener(disturbanceChecker);

    if (disturbed) {
        qDebug() << "Light disturbance detected!";
        end(-2);
        return;
    }
    if (!calibration) {
        qDebug() << "No disturbance, show mc";
        isListening = true;
        ui->showLoading(false);
        disturbanceChecked = true;
        checking = false;
        return;
    }
    ui->setSuccess(true);
    end(1);
}

void ManualCalibration::end(int status)
{
    if (ended.exchange(true))
        return;
    isListening = false;
    disturbanceChecked = true;
    ui->show(false, false);
    QFile::remove(QString::fromStdString(GS::instance()->mcCachePath));
    checking = false;
    emit finished(status);
}

void ManualCalibration::newBlob(Blob* blob, std::vector<Blob*>, unsigned char*)
{
    if (!isListening || !blob)
        return;
    if (isUp) {
        if (blob->state != 0 || timerRunning)
            return;
        qDebug() << "attempting to start timer";
        pressSamples.clear();
        isUp = false;
        trackedBlobId = blob->sessionId;
        emit startTimerSignal();
        if (isUp)
            return;
    }
    if (blob->state != 1)
        return;
    if (trackedBlobId != -1 && trackedBlobId != blob->sessionId)
        return;
    qDebug() << "got an up, stop the timer";
    isUp = true;
    // After the time-out the timer has stopped already and the press stands.
    if (!dotTimedOut)
        emit stopTimerSignal();
}

void ManualCalibration::onStartTimer()
{
    dotTimedOut = false;
    ui->startTimer();
    timerRunning = true;
    dotTimer->start(isTouch ? fingerPressMs : stylusPressMs);
}

void ManualCalibration::onStopTimer()
{
    ui->stopTimer();
    dotTimer->stop();
    timerRunning = false;
}

void ManualCalibration::onDotPressed()
{
    dotTimedOut = true;
    ui->timedout();
    dotTimer->stop();
    timerRunning = false;
    qDebug() << "MC dot timed out!";
}

void ManualCalibration::newBlobList(std::vector<Blob*> all)
{
    if (!isListening || all.empty()) {
        trackedBlobId = -1;
        return;
    }
    const bool up = isUp, timedOut = dotTimedOut;
    if (up && !timedOut)
        return;
    if (!up && timedOut)
        return;
    if (!up && !timedOut) {
        const int tracked = trackedBlobId;
        std::vector<EVector> frame;
        for (Blob* b : all)
            if (b->state == 2 && (tracked == -1 || b->sessionId == tracked))
                frame.push_back(b->center());
        pressSamples.push_back(std::move(frame));
        return;
    }
    // The position of the last frame before the press had lasted long enough.
    std::vector<EVector> sample = pressSamples.empty() ? std::vector<EVector>() : pressSamples.back();
    pressSamples.clear();
    dotTimedOut = false;
    if (sample.empty())
        return;
    finishDot(sample);
}

void ManualCalibration::finishDot(const std::vector<EVector>& sample)
{
    GS* gs = GS::instance();
    std::vector<std::vector<EVector>> dots;
    {
        std::lock_guard hold(dotsLock);
        qDebug() << "MC Crosshair UP";
        showDot(pointIndex);
        pointIndex++;
        collected.push_back(sample);
        cachePoints(collected);
        if (static_cast<int>(collected.size()) != gs->mcCols * gs->mcRows)
            return;
        dots = collected;
    }

    // One point per dot: of the frame's points, the one nearest to the mean of all, which
    // drops a stray second blob.
    EVector mean(0, 0);
    int count = 0;
    for (const auto& dot : dots)
        for (const EVector& p : dot) {
            mean.x += p.x;
            mean.y += p.y;
            count++;
        }
    mean.x /= count;
    mean.y /= count;
    srcPoints.clear();
    for (const auto& dot : dots) {
        EVector chosen(-1, -1);
        double best = 9999.0;
        for (const EVector& p : dot) {
            const double d = std::hypot(p.x - mean.x, p.y - mean.y);
            if (d < best || chosen.x == -1) {
                chosen = p;
                best = d;
            }
        }
        if (chosen.x != -1)
            srcPoints.push_back(chosen);
    }

    const double marginX = isTouch ? gs->mcTouchMarginX : gs->mcMarginX;
    const double marginY = isTouch ? gs->mcTouchMarginY : gs->mcMarginY;
    delete calibration;
    calibration = new Calibration(gs->mcCols, gs->mcRows, srcPoints, {}, marginX, marginY, 0.0, false, false);
    emitter->removeBlobListener(this);
    checking = true;
    WorkerThread::doWork(this, "1checkDisturbanceAndContinue()", -1);
}

void ManualCalibration::onUiEvent(int id)
{
    qDebug() << "MC ui event" << id;
    switch (id) {
    case 1:
    case 13:
        ui->showLoading(true);
        if (isTouch)
            sensor->setLaser(true);
        // A check must end first; its result decides then.
        if (!disturbanceChecked || checking || ended.exchange(true))
            return;
        QFile::remove(QString::fromStdString(GS::instance()->mcCachePath));
        isListening = false;
        ui->show(false, true);
        emit finished(-3);
        return;
    case 2: {
        std::lock_guard hold(dotsLock);
        if (pointIndex < 2)
            return;
        pointIndex--;
        showDot(pointIndex - 1);
        if (!collected.empty())
            collected.pop_back();
        cachePoints(collected);
        return;
    }
    case 99: {
        Blob blob(100, 100, 5, 5, 0);
        blob.state = 1;
        newBlobList({&blob});
        return;
    }
    default:
        return;
    }
}

void ManualCalibration::cachePoints(const std::vector<std::vector<EVector>>&) {}

std::vector<std::vector<EVector>> ManualCalibration::loadCachedPoints()
{
    return {};
}
