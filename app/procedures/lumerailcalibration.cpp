#include "lumerailcalibration.h"

#include "activepen.h"
#include "calibration.h"
#include "disturbancechecker.h"
#include "globalsettings.h"
#include "iblobemitter.h"
#include "ilumerailcalibrationui.h"
#include "sensor.h"
#include "workerthread.h"

#include <QDebug>
#include <QTimer>

#include <cmath>

namespace {

constexpr int fingerPressMs = 500;
constexpr int stylusPressMs = 200;

} // namespace

LumerailCalibration::LumerailCalibration(ILumerailCalibrationUi* ui, IBlobEmitter* emitter, Sensor* sensor)
    : emitter(emitter), ui(ui), sensor(sensor), disturbanceChecker(new DisturbanceChecker())
{
    // The timer belongs to the main thread; the frame thread reaches it through these.
    connect(this, &LumerailCalibration::startTimerSignal, this, &LumerailCalibration::onStartTimer);
    connect(this, &LumerailCalibration::stopTimerSignal, this, &LumerailCalibration::onStopTimer);
    calibration = emitter->getCalibration();
    if (calibration) {
        savedBarPoints = calibration->refPoints;
        // Emptied, so that the first check hands nothing over and a cancel is told apart.
        calibration->refPoints.clear();
    }
}

LumerailCalibration::~LumerailCalibration()
{
    disconnect(this, &LumerailCalibration::startTimerSignal, this, &LumerailCalibration::onStartTimer);
    disconnect(this, &LumerailCalibration::stopTimerSignal, this, &LumerailCalibration::onStopTimer);
    emitter->removeBlobListener(this);
    emitter->removeBlobListener(disturbanceChecker);
    isListening = false;
    // A run that never got its four points leaves the former ones in force.
    if (calibration && calibration->refPoints.empty())
        calibration->refPoints = savedBarPoints;
    delete disturbanceChecker;
    delete dotTimer;
}

void LumerailCalibration::start(ActivePen* pen)
{
    qDebug() << "Initializing lumerail calibration";
    activePen = pen;
    dotTimer = new QTimer(this);
    connect(dotTimer, &QTimer::timeout, this, &LumerailCalibration::onDotPressed);

    calibration = emitter->getCalibration();
    srcPoints.clear();
    {
        std::lock_guard hold(dotsLock);
        collected.clear();
        crosshairNumber = 1;
    }

    ui->sendEventsTo(this, "1onUiEvent(int)");
    emitter->addBlobListener(this);
    ui->show(true, true);
    ui->setLumerailCrossHairNum(1);

    qDebug() << "Lumerail calibration is initialized";
    checking = true;
    WorkerThread::doWork(this, "1checkDisturbanceAndContinue()", -1);
}

void LumerailCalibration::checkDisturbanceAndContinue()
{
    qDebug() << "Checking disturbance in Lumerail calibration";
    ui->showLoading(true);
    const bool haveBarPoints = calibration && !calibration->refPoints.empty();
    if (haveBarPoints) {
        qDebug() << "Calibration is done, finish off";
        emitter->setCalibration(calibration);
    } else {
        qDebug() << "reset background table, handle laser";
        sensor->setLaser(false);
        activePen->setBlobFilter({});
        activePen->resetBackgroundTable(false);
    }

    qDebug() << "Start actual disturbance checking";
    emitter->addBlobListener(disturbanceChecker);
    // The bar lies beside the screen: only light on the screen spoils a calibration.
    const bool disturbed = disturbanceChecker->checkIsDisturbanceOnScreen();
    emitter->removeBlobListener(disturbanceChecker);

    if (disturbed) {
        qDebug() << "Light disturbance detected!";
        end(-2);
        return;
    }
    if (!haveBarPoints) {
        qDebug() << "No disturbance, show lrc";
        isListening = true;
        ui->showLoading(false);
        disturbanceChecked = true;
        checking = false;
        return;
    }
    end(1);
}

void LumerailCalibration::end(int status)
{
    if (ended.exchange(true))
        return;
    isListening = false;
    disturbanceChecked = true;
    ui->show(false, false);
    checking = false;
    emit finished(status);
}

void LumerailCalibration::newBlob(Blob* blob, std::vector<Blob*> all, unsigned char* image)
{
    // The stylus engine runs without the screen's outline here, so the bar's spots come in the
    // ordinary list; those that map beyond the screen are the bar's.
    const GS* gs = GS::instance();
    if (blob && blob->isOutOfScreen(gs->screenWidth, gs->screenHeight))
        newOutsideBlob(blob, std::move(all), image);
}

void LumerailCalibration::newOutsideBlob(Blob* blob, std::vector<Blob*>, unsigned char*)
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
    const bool timedOut = dotTimedOut;
    qDebug().nospace() << "got an up, stop the timer pressTimedOut: " << (timedOut ? "true" : "false");
    isUp = true;
    // After the time-out the timer has stopped already and the press stands.
    if (!timedOut)
        emit stopTimerSignal();
}

void LumerailCalibration::onStartTimer()
{
    dotTimedOut = false;
    ui->startTimer();
    timerRunning = true;
    dotTimer->start(isTouch ? fingerPressMs : stylusPressMs);
}

void LumerailCalibration::onStopTimer()
{
    ui->stopTimer();
    dotTimer->stop();
    timerRunning = false;
}

void LumerailCalibration::onDotPressed()
{
    dotTimedOut = true;
    ui->timedout();
    dotTimer->stop();
    timerRunning = false;
    qDebug() << "LRC dot timed out!";
}

void LumerailCalibration::newBlobList(std::vector<Blob*> all)
{
    // A press may also end through the ordinary list (and the debug key's blob comes this way).
    newOutsideBlobList(std::move(all));
}

void LumerailCalibration::newOutsideBlobList(std::vector<Blob*> all)
{
    if (!isListening || all.empty()) {
        trackedBlobId = -1;
        return;
    }
    const bool up = isUp, timedOut = dotTimedOut;
    if (!up && !timedOut) {
        // Screen positions, extrapolated beyond the screen by the calibration.
        const int tracked = trackedBlobId;
        std::vector<EVector> frame;
        for (Blob* b : all)
            if (b->state != 1 && (tracked == -1 || b->sessionId == tracked))
                frame.push_back(b->fcenter());
        pressSamples.push_back(std::move(frame));
        return;
    }
    if (up != timedOut)
        return;
    // The position of the last frame before the press had lasted long enough.
    std::vector<EVector> sample = pressSamples.empty() ? std::vector<EVector>() : pressSamples.back();
    pressSamples.clear();
    dotTimedOut = false;
    if (sample.empty())
        return;
    finishPoint(sample);
}

void LumerailCalibration::finishPoint(const std::vector<EVector>& sample)
{
    const GS* gs = GS::instance();
    const EVector limits(gs->screenWidth, gs->screenHeight);
    std::vector<std::vector<EVector>> points;
    {
        std::lock_guard hold(dotsLock);
        collected.push_back(sample);
        qDebug() << "LRC point" << collected.size() << sample.back().x << sample.back().y;
        if (static_cast<int>(collected.size()) < BarPoints) {
            crosshairNumber++;
            ui->setLumerailCrossHairNum(crosshairNumber);
            return;
        }
        points = collected;
    }

    // One point per press: of the frame's points, the one nearest to the mean of all, which
    // drops a stray second spot.
    EVector mean(0, 0);
    int count = 0;
    for (const auto& press : points)
        for (const EVector& p : press) {
            mean.x += p.x;
            mean.y += p.y;
            count++;
        }
    mean.x /= count;
    mean.y /= count;
    srcPoints.clear();
    for (const auto& press : points) {
        EVector chosen(-1, -1);
        double best = 9999.0;
        for (const EVector& p : press) {
            const double d = std::hypot(p.x - mean.x, p.y - mean.y);
            if (d < best || chosen.x == -1) {
                chosen = p;
                best = d;
            }
        }
        // Fractions of the screen; the bar lies beyond it, so below 0 or above 1 is usual.
        if (chosen.x != -1)
            srcPoints.emplace_back(chosen.x / limits.x, chosen.y / limits.y);
    }

    if (calibration)
        calibration->refPoints = srcPoints;
    emitter->updateLumerailCalibration();
    emitter->removeBlobListener(this);
    checking = true;
    WorkerThread::doWork(this, "1checkDisturbanceAndContinue()", -1);
}

void LumerailCalibration::onUiEvent(int id)
{
    qDebug() << "LRC ui event" << id;
    switch (id) {
    case 1:
    case 13:
        ui->showLoading(true);
        if (isTouch)
            sensor->setLaser(true);
        // A check must end first; its result decides then.
        if (!disturbanceChecked || checking || ended.exchange(true))
            return;
        isListening = false;
        ui->show(false, true);
        emit finished(-3);
        return;
    case 2: {
        std::lock_guard hold(dotsLock);
        if (crosshairNumber < 2)
            return;
        crosshairNumber--;
        ui->setLumerailCrossHairNum(crosshairNumber);
        if (!collected.empty())
            collected.pop_back();
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
