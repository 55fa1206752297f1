#include "blobfacade.h"

#include "activepen.h"
#include "blob.h"
#include "calibration.h"
#include "exitlistener.h"
#include "globalsettings.h"
#include "ibloblistener.h"
#include "multipointercontroller.h"
#include "sensor.h"
#include "statuswriter.h"
#include "touchcontroller.h"
#include "tuiosender.h"
#include "workerthread.h"

#include <QCoreApplication>
#include <QDebug>
#include <QRandomGenerator>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <unistd.h>

BlobFacade::BlobFacade(int argc, char** argv)
{
    GS* gs = GS::instance();
    gs->init();
    if (argc > 1 && argv[1] && QString::fromLocal8Bit(argv[1]).trimmed() == QLatin1String("-v")) {
        qDebug() << "Verbose Flag found";
        gs->verboseLog = true;
    }
    keepFrames = gs->keepFrames;
}

BlobFacade::~BlobFacade() = default;

bool BlobFacade::start()
{
    GS* gs = GS::instance();
    if (!gs->verboseLog && !ExitListener::instance()->isAnotherRunning()) {
        qDebug() << "velora-menu is not running. Run with -v flag or run with velora-menu.";
        return false;
    }

    sensor = new Sensor(gs->cyusbConfPath.c_str(), gs->sensorConfPath.c_str());
    while (sensor->getSensorCount() == 0) {
        qDebug() << "No device connected.";
        StatusWriter::instance()->write(-1);
        if (!gs->verboseLog && !ExitListener::instance()->isAnotherRunning()) {
            sensor->stop();
            return false;
        }
        WorkerThread::msleep(1000);
    }

    if (!gs->verboseLog)
        connect(ExitListener::instance(), &ExitListener::hasExited, this, &BlobFacade::onMenuExited);

    pointerController = new MultiPointerController();
    pointerController->addPrimaryController(createPrimaryController());
    pointerController->enablePrimary();
    addBlobListener(pointerController);
    // TUIO for applications that read touches from the network, when the user's tuio.conf
    // asks for it; without it nothing is registered and the frame costs nothing more.
    if (TuioSender* tuio = TuioSender::fromFile(TuioSender::userFile()))
        addBlobListener(tuio);

    activePen = new ActivePen();
    ActivePenContext context;
    context.width = gs->sensorWidth;
    context.height = gs->sensorHeight;
    context.stylusThreshold = gs->stylusThreshold;
    context.fingerThreshold = gs->fingerThreshold;
    context.boxParameter = gs->boxParameter;
    context.unusedA = gs->unusedLine50;
    context.unusedB = gs->unusedLine51;
    context.windowX = gs->windowX;
    context.windowY = gs->windowY;
    context.windowWidth = gs->windowWidth;
    context.windowHeight = gs->windowHeight;
    context.unusedC = gs->unusedLine8;
    context.bezierFactor = gs->bezierFactor;
    context.inertiaRadius = gs->inertiaRadius;
    context.unusedD = gs->unusedLine40;
    context.unusedE = gs->unusedLine38;
    context.unusedF = gs->unusedLine39;
    context.boxFactor = gs->boxFactor;
    context.unusedG = gs->unusedLine9;
    context.autoWindow = gs->autoWindow;
    activePen->start(sensor, context);
    activePen->configExtraCorrection(gs->extraCorrectionX, gs->extraCorrectionY, gs->extraCorrectionFactor);

    // The lens model belongs to the full sensor; binning shrinks the picture it sees.
    const double bx = 1.0 / gs->binningX;
    const double by = 1.0 / gs->binningY;
    if (gs->tableTopAc)
        activePen->initFisheyeUndistortion(int(gs->fisheyeA * bx), int(gs->fisheyeB * by), int(gs->fisheyeC * bx),
                                           int(gs->fisheyeD * by));
    else
        activePen->initNormalUndistortion(gs->intrinsicPath, gs->distortionPath, bx, by);

    sensor->connect(0);
    sensor->start(this, ImageCallback, StoppedCallback, gs->sensorWidth, gs->sensorHeight);
    sensor->setMinimumWindow(gs->windowWidth, gs->windowHeight);
    setExposure(gs->inputMode == 1 ? gs->stylusExposure : gs->fingerExposure);
    sensor->setBinning(gs->binningY, gs->binningX);
    sensor->switchFilter(false);
    activePen->setInputMode(gs->inputMode);
    sensor->setLaser(activePen->inputMode == Finger);

    if (Calibration::exists(gs->fingerCalibrationPath.c_str()))
        fingerCalibration = Calibration::read(gs->fingerCalibrationPath.c_str());
    if (Calibration::exists(gs->stylusCalibrationPath.c_str()))
        stylusCalibration = Calibration::read(gs->stylusCalibrationPath.c_str());

    calibrationLoaded = false;
    if (fingerCalibration && (activePen->inputMode == Finger || stylusCalibration)) {
        WorkerThread::doWork(this, "1loadCalibration()", -1);
    } else if (!fingerCalibration && stylusCalibration) {
        fingerCalibration = stylusCalibration;
        WorkerThread::doWork(this, "1loadCalibration()", -1);
    } else {
        activePen->setWindow();
        qDebug() << "System not calibrated.";
        StatusWriter::instance()->write(-6);
    }
    return true;
}

IPointerController* BlobFacade::createPrimaryController()
{
    return new TouchController();
}

Calibration* BlobFacade::getCalibration()
{
    if (!activePen)
        return fingerCalibration;
    return activePen->inputMode != Finger ? stylusCalibration : fingerCalibration;
}

void BlobFacade::loadCalibration()
{
    if (calibrating)
        return;
    qDebug() << "Load calibration";
    if (setCalibration(getCalibration())) {
        calibrationLoaded = false;
        if (calibrating)
            return;
        const bool chained = acBeforeMc || mcFallback || mcAfterAc;
        if (!chained)
            StatusWriter::instance()->write(0);
        if (!calibrating || chained)
            pointerController->enabled = true;
    } else {
        qDebug() << "No calibration found";
        StatusWriter::instance()->write(-6);
    }
    usleep(100000);
}

bool BlobFacade::setCalibration(Calibration* calibration)
{
    if (!calibration)
        return false;
    GS* gs = GS::instance();

    // The bar's outside points survive a new screen calibration.
    if (fingerCalibration && !fingerCalibration->refPoints.empty())
        calibration->refPoints = fingerCalibration->refPoints;
    else if (stylusCalibration && !stylusCalibration->refPoints.empty())
        calibration->refPoints = stylusCalibration->refPoints;
    qDebug() << "Set calib: " << static_cast<void*>(calibration) << " vs " << static_cast<void*>(stylusCalibration)
             << " vs " << static_cast<void*>(fingerCalibration);

    const bool fingerMode = activePen->inputMode == Finger;
    bool storedStylus;
    if (fingerMode) {
        if (fingerCalibration && fingerCalibration != calibration && fingerCalibration != stylusCalibration) {
            qDebug() << "Delete touch calibration";
            delete fingerCalibration;
            fingerCalibration = nullptr;
        }
        fingerCalibration = calibration;
        storedStylus = false;
    } else {
        if (stylusCalibration && stylusCalibration != calibration) {
            qDebug() << "Delete stylus calibration";
            if (fingerCalibration == stylusCalibration) {
                fingerCalibration = calibration;
                if (acBeforeMc && Calibration::exists(gs->fingerCalibrationPath.c_str()))
                    std::remove(gs->fingerCalibrationPath.c_str());
            } else if (acBeforeMc) {
                delete fingerCalibration;
                fingerCalibration = calibration;
                std::remove(gs->fingerCalibrationPath.c_str());
            }
            delete stylusCalibration;
            stylusCalibration = nullptr;
        }
        stylusCalibration = calibration;
        storedStylus = true;
    }

    savedProcessing = processing.load();
    setExposure(storedStylus ? gs->stylusExposure : gs->fingerExposure);
    sensor->setLaser(activePen->inputMode == Finger);
    sensor->switchFilter(false);
    processing = savedProcessing;

    if (!fingerMode)
        calibration->save(gs->stylusCalibrationPath.c_str());
    else if (fingerCalibration != stylusCalibration)
        calibration->save(gs->fingerCalibrationPath.c_str());

    qDebug() << "Window Minima: " << gs->windowWidth << gs->windowHeight;
    activePen->setCalibration(calibration, stylusCalibration ? stylusCalibration : calibration, gs->screenWidth,
                              gs->screenHeight, gs->boxParameter);
    setBlobFilter();
    paused = false;
    processing = true;
    activePen->resetBackgroundTable(false);
    updateLumerailCalibration();
    return true;
}

void BlobFacade::setBlobFilter()
{
    const GS* gs = GS::instance();
    const double left = 1 - gs->blobFilterLeft;
    const double right = gs->blobFilterRight;
    const double top = 1 - gs->blobFilterTop;
    const double bottom = gs->blobFilterBottom;
    const double w = gs->screenWidth;
    const double h = gs->screenHeight;
    std::vector<EVector> points;
    // Clockwise from the top left in steps of a tenth; each run tests its end before every point.
    for (double x = left; x <= right; x += 0.1)
        points.emplace_back(w * x, h * top);
    for (double y = top; y <= bottom; y += 0.1)
        points.emplace_back(w * right, h * y);
    for (double x = right; x >= left; x -= 0.1)
        points.emplace_back(w * x, h * bottom);
    for (double y = bottom; y >= top; y -= 0.1)
        points.emplace_back(w * left, h * y);
    activePen->setAutoWindow(points);
    sensor->setRobustMode(0);
    for (EVector& p : points)
        p = activePen->transform(p, true);
    activePen->setBlobFilter(points);
}

void BlobFacade::resetBackgroundTable()
{
    qDebug() << "reset background table";
    activePen->resetBackgroundTable(false);
}

void BlobFacade::updateShiftCorrection()
{
    if (Calibration* active = getCalibration())
        activePen->setShiftCorrection(std::vector<EVector>(active->shifts));
}

void BlobFacade::onMenuExited()
{
    if (sensor)
        sensor->setLaser(false);
    qDebug() << "quit velora main ";
    QCoreApplication::quit();
}

void BlobFacade::setExposure(int exposure)
{
    qDebug() << "set exposure to" << exposure;
    sensor->setExposure(exposure);
}

int BlobFacade::getExposure()
{
    return sensor->getExposure();
}

void BlobFacade::switchFilter()
{
    filterSwitched = !filterSwitched;
    sensor->switchFilter(filterSwitched);
}

void StoppedCallback()
{
    qDebug() << "Device plugged out, exit";
    StatusWriter::instance()->write(-1);
    QCoreApplication::quit();
    // quit() lets the main thread leave its event loop and tear the application down;
    // exit() would run the same destructors on this thread at the same time. Nothing is
    // left to save, so the process ends here without them.
    fflush(nullptr);
    _exit(0);
}

void BlobFacade::addBlobListener(IBlobListener* listener)
{
    std::lock_guard<std::mutex> hold(listenersLock);
    if (std::find(listeners.begin(), listeners.end(), listener) == listeners.end())
        listeners.push_back(listener);
}

void BlobFacade::removeBlobListener(IBlobListener* listener)
{
    std::lock_guard<std::mutex> hold(listenersLock);
    auto it = std::find(listeners.begin(), listeners.end(), listener);
    if (it != listeners.end())
        listeners.erase(it);
}

std::vector<IBlobListener*> BlobFacade::blobListeners() const
{
    std::lock_guard<std::mutex> hold(listenersLock);
    return listeners;
}

template <typename Call> void BlobFacade::forEachListener(Call call)
{
    // The end is tested against the present size at each step, so a listener may
    // add or remove listeners from inside its call.
    for (size_t i = 0;; ++i) {
        IBlobListener* listener;
        {
            std::lock_guard<std::mutex> hold(listenersLock);
            if (i >= listeners.size())
                return;
            listener = listeners[i];
        }
        call(listener);
    }
}

void BlobFacade::onNewBlob(Blob* blob, std::vector<Blob*> all, unsigned char* frame)
{
    forEachListener([&](IBlobListener* l) { l->newBlob(blob, all, frame); });
}

void BlobFacade::onNewBlobList(std::vector<Blob*> all)
{
    forEachListener([&](IBlobListener* l) { l->newBlobList(all); });
}

void BlobFacade::onNewOutsideBlob(Blob* blob, std::vector<Blob*> all, unsigned char* frame)
{
    forEachListener([&](IBlobListener* l) { l->newOutsideBlob(blob, all, frame); });
}

void BlobFacade::onNewOutsideBlobList(std::vector<Blob*> all)
{
    forEachListener([&](IBlobListener* l) { l->newOutsideBlobList(all); });
}

std::vector<Blob*> BlobFacade::process(unsigned char* frame, bool debug)
{
    if (!activePen)
        return {};
    return activePen->convert(frame, keepFrames, debug);
}

unsigned char* BlobFacade::getImage()
{
    delete[] image.exchange(nullptr);
    unsigned char* copy;
    while (!(copy = image.load()))
        usleep(2000);
    return copy;
}

void BlobFacade::emulateBlob(int x, int y)
{
    auto* blob = new Blob(x, y, 0.0, 0.0, 0);
    blob->state = 0;
    blob->fx = x;
    blob->fy = y;
    QRandomGenerator random(static_cast<quint32>(time(nullptr)));
    blob->sessionId = static_cast<int>(random.generate() % 1000);
    std::vector<Blob*> list{blob};

    printf("emulate blob click \n");
    auto deliver = [&] {
        if (paused)
            return;
        printf("actually emulate blob click \n");
        onNewBlob(blob, list, nullptr);
        onNewBlobList(list);
    };
    deliver();
    blob->state = 2;
    deliver();
    QThread::msleep(10);
    blob->state = 1;
    deliver();
    fflush(stdout);
    delete blob;
}

void ImageCallback(void* context, unsigned char* frame)
{
    auto* facade = static_cast<BlobFacade*>(context);
    if (facade->dropAllFrames)
        return;
    if (facade->dropThreeOfFour && (facade->frameCount & 3) != 0)
        return;

    // Somebody waits in getImage(), or nobody has asked yet: keep a copy, search nothing.
    if (!facade->image.load()) {
        const int frameSize = GS::instance()->frameSize;
        auto* copy = new unsigned char[frameSize];
        std::copy(frame, frame + frameSize, copy);
        facade->image = copy;
        return;
    }
    if (!facade->processing)
        return;

    std::vector<Blob*> all = facade->process(frame, false);
    std::vector<Blob*> inside;
    std::vector<Blob*> outsideBlobs;
    for (Blob* b : all)
        (b->outside ? outsideBlobs : inside).push_back(b);

    if (!facade->paused) {
        for (Blob* b : inside)
            facade->onNewBlob(b, inside, frame);
        if (!inside.empty())
            facade->onNewBlobList(inside);
        for (Blob* b : outsideBlobs)
            facade->onNewOutsideBlob(b, outsideBlobs, frame);
        if (!outsideBlobs.empty())
            facade->onNewOutsideBlobList(outsideBlobs);
    }
    // Every frame without a blob on the screen lets the pointer output go.
    if (inside.empty() && facade->pointerController)
        facade->pointerController->reset();

    for (Blob* b : all)
        delete b;
}
