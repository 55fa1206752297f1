#include "blobfacade.h"

#include "activepen.h"
#include "blob.h"
#include "calibration.h"
#include "exitlistener.h"
#include "filehelper.h"
#include "globalsettings.h"
#include "iautocalibration.h"
#include "iautocalibrationui.h"
#include "ibloblistener.h"
#include "idisturbancechecker.h"
#include "ilaseralignment.h"
#include "ilumerailcalibration.h"
#include "ilumerailcalibrationui.h"
#include "imanualcalibration.h"
#include "imanualcalibrationui.h"
#include "ioffsetcorrection.h"
#include "ioffsetcorrectionui.h"
#include "ipclistener.h"
#include "iprocedurefactory.h"
#include "isensorviewer.h"
#include "isensorviewerui.h"
#include "multipointercontroller.h"
#include "sensor.h"
#include "slateworksdkhelper.h"
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
#include <future>
#include <malloc.h>
#include <thread>
#include <unistd.h>

namespace {

// A build without some procedure still answers the menu: the missing one ends at once, as a
// run that found nothing ends, and the sequence of calibrations goes on from there.
void endAtOnce(Procedure* procedure, const char* what, int status)
{
    qDebug() << what << "is not available";
    QMetaObject::invokeMethod(procedure, [procedure, status] { emit procedure->finished(status); },
                              Qt::QueuedConnection);
}

class AbsentAutoCalibration : public IAutoCalibration {
public:
    void start(IImageSource*, IAutoCalibrationUi*, char*, std::string, int, int, int, int, bool, bool) override
    {
        endAtOnce(this, "automatic calibration", 0);
    }
};

class AbsentManualCalibration : public IManualCalibration {
public:
    void start(ActivePen*, bool) override { endAtOnce(this, "manual calibration", 0); }
};

class AbsentLumerailCalibration : public ILumerailCalibration {
public:
    void start(ActivePen*) override { endAtOnce(this, "bar calibration", 0); }
};

class AbsentLaserAlignment : public ILaserAlignment {
public:
    void start(int) override { endAtOnce(this, "laser alignment", -1); }
};

} // namespace

BlobFacade::BlobFacade(int argc, char** argv)
{
    GS* gs = GS::instance();
    gs->init();
    if (argc > 1 && argv[1] && QString::fromLocal8Bit(argv[1]).trimmed() == QLatin1String("-v")) {
        qDebug() << "Verbose Flag found";
        gs->verboseLog = true;
    }
    keepFrames = gs->keepFrames;
    slateworkHelper = new SlateworkSDKHelper();
    slateworkHelper->setParent(this);
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

    // The stream and the filter start as soon as the device is there. The filter's pulses hold
    // the actuator for 0.4 s, not the service: the controllers, the engines, the window, the
    // exposure and the calibration are set up meanwhile. Frames are not searched before
    // `processing`, and setCalibration waits for the pulses before it sets that, so the
    // background is still learnt behind the filter.
    sensor->connect(0);
    sensor->start(this, ImageCallback, StoppedCallback, gs->sensorWidth, gs->sensorHeight);
    // Detached: the sensor lives as long as the process, and nobody waits for the thread but
    // through the sensor's filter lock.
    std::thread([s = sensor] { s->switchFilter(false); }).detach();

    disturbanceChecker = procedureFactory ? procedureFactory->makeDisturbanceChecker() : nullptr;
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

    sensor->setMinimumWindow(gs->windowWidth, gs->windowHeight);
    setExposure(gs->inputMode == 1 ? gs->stylusExposure : gs->fingerExposure);
    sensor->setBinning(gs->binningY, gs->binningX);
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

    // Last: the menu's commands may only come once everything they touch is there.
    ipc = IpcListener::instance();
    connect(ipc, &IpcListener::received, this, &BlobFacade::onIpcMessageReceived);
    return true;
}

IPointerController* BlobFacade::createPrimaryController()
{
    return new TouchController();
}

Calibration* BlobFacade::getCalibration()
{
    std::lock_guard hold(calibrationLock);
    if (!activePen)
        return fingerCalibration;
    return activePen->inputMode != Finger ? stylusCalibration : fingerCalibration;
}

void BlobFacade::loadCalibration()
{
    if (calibrating)
        return;
    qDebug() << "Load calibration";
    bool loaded;
    {
        std::lock_guard hold(calibrationLock);
        loaded = setCalibration(getCalibration());
    }
    if (loaded) {
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
    // A mode change showed the automatic calibration's screen as its waiting screen.
    if (IAutoCalibrationUi* ui = autoCalibrationUi.load()) {
        ui->show(false, false);
        later(&BlobFacade::disposeUi);
    }
    usleep(100000);
    IpcListener::instance()->writeDone();
}

bool BlobFacade::setCalibration(Calibration* calibration)
{
    if (!calibration)
        return false;
    GS* gs = GS::instance();
    std::lock_guard hold(calibrationLock);

    // The bar's outside points survive a new screen calibration.
    if (fingerCalibration && !fingerCalibration->refPoints.empty())
        calibration->refPoints = fingerCalibration->refPoints;
    else if (stylusCalibration && !stylusCalibration->refPoints.empty())
        calibration->refPoints = stylusCalibration->refPoints;
    qDebug() << "Set calib: " << static_cast<void*>(calibration) << " vs " << static_cast<void*>(stylusCalibration)
             << " vs " << static_cast<void*>(fingerCalibration);

    const bool fingerMode = activePen->inputMode == Finger;
    const bool automatic = autoCalibration.load() != nullptr;
    // An automatic calibration always serves the stylus; in finger mode it serves the finger too.
    const bool storedStylus = automatic || !fingerMode;
    if (storedStylus) {
        if (stylusCalibration && stylusCalibration != calibration)
            replaceStylusCalibration(calibration);
        stylusCalibration = calibration;
    } else {
        if (fingerCalibration && fingerCalibration != calibration && fingerCalibration != stylusCalibration) {
            qDebug() << "Delete touch calibration";
            delete fingerCalibration;
            fingerCalibration = nullptr;
        }
        fingerCalibration = calibration;
    }

    // A filter that has to swing (or is swinging: the start-up pulse) does so while the grids
    // and boxes are built; until it stands, no frame goes to the engines.
    savedProcessing = processing.load();
    const bool filterMoves = sensor->filterPosition != 0;
    if (filterMoves)
        processing = false;
    std::future<int> filter =
        std::async(filterMoves ? std::launch::async : std::launch::deferred, [this] { return sensor->switchFilter(false); });
    setExposure(fingerMode ? gs->fingerExposure : gs->stylusExposure);
    sensor->setLaser(fingerMode);

    if (storedStylus)
        calibration->save(gs->stylusCalibrationPath.c_str());
    else if (fingerCalibration != stylusCalibration)
        calibration->save(gs->fingerCalibrationPath.c_str());

    qDebug() << "Window Minima: " << gs->windowWidth << gs->windowHeight;
    activePen->setCalibration(calibration, stylusCalibration ? stylusCalibration : calibration, gs->screenWidth,
                              gs->screenHeight, gs->boxParameter);
    setBlobFilter();
    // The former grids and scan boxes are freed now, often in another thread's pool than the
    // one the new ones came from: give their pages back, or each change keeps some.
    malloc_trim(0);
    filter.wait();
    paused = false;
    processing = true;
    activePen->resetBackgroundTable(false);
    updateLumerailCalibration();
    return true;
}

// An automatic calibration asked for in finger mode serves the finger too, and the stale
// finger file goes.
void BlobFacade::replaceStylusCalibration(Calibration* calibration)
{
    const GS* gs = GS::instance();
    qDebug() << "Delete stylus calibration";
    if (fingerCalibration && fingerCalibration == stylusCalibration) {
        fingerCalibration = calibration;
        if (acBeforeMc && Calibration::exists(gs->fingerCalibrationPath.c_str()))
            std::remove(gs->fingerCalibrationPath.c_str());
    } else if (acBeforeMc) {
        if (fingerCalibration != calibration)
            delete fingerCalibration;
        fingerCalibration = calibration;
        std::remove(gs->fingerCalibrationPath.c_str());
    }
    delete stylusCalibration;
    stylusCalibration = nullptr;
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
    IpcListener::instance()->writeDone();
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
    IpcListener::instance()->writeDone();
}

void StoppedCallback()
{
    qDebug() << "Device plugged out, exit";
    StatusWriter::instance()->write(-1);
    // The quit is posted, not called: a GUI application's quit() from another thread waits
    // for the main thread to flush its window events, and that flush never comes once the
    // event loop has left, so this thread would hang there. exit() would run the main
    // thread's destructors on this thread at the same time; nothing is left to save, so the
    // process ends here without them.
    if (QCoreApplication* app = QCoreApplication::instance())
        QMetaObject::invokeMethod(app, &QCoreApplication::quit, Qt::QueuedConnection);
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

void BlobFacade::later(void (BlobFacade::*slot)())
{
    QMetaObject::invokeMethod(this, slot, Qt::QueuedConnection);
}

void BlobFacade::refuse()
{
    // The value alternates so that a menu watching the file sees a change each time.
    if (notCalibratedFlip) {
        StatusWriter::instance()->write(-6);
        notCalibratedFlip = false;
    } else {
        notCalibratedFlip = true;
        StatusWriter::instance()->write(-14);
    }
    IpcListener::instance()->writeDone();
}

void BlobFacade::onIpcMessageReceived(int id)
{
    qDebug() << "Ipc message received: " << id;
    GS* gs = GS::instance();
    switch (id) {
    case 0:
    case 11:
        if (!calibrating) {
            calibrating = true;
            processCalibration(0);
        }
        break;
    case 1:
    case 12:
        if (!calibrating) {
            calibrating = true;
            processCalibration(1);
        }
        break;
    case 2: processLaserAlign(); break;
    case 3:
        gs->inputMode = Stylus;
        processModeChange();
        break;
    case 4:
        gs->inputMode = Finger;
        processModeChange();
        break;
    case 5: showSensorViewer(); break;
    case 6: switchFilter(); break;
    case 8:
    case 9: IpcListener::instance()->writeDone(); break;
    case 16: {
        {
            std::lock_guard hold(calibrationLock);
            if (fingerCalibration != stylusCalibration)
                delete fingerCalibration;
            delete stylusCalibration;
            fingerCalibration = nullptr;
            stylusCalibration = nullptr;
        }
        processing = false;
        FileHelper::cleanVeloraCalibFiles();
        qDebug() << "RESET calib ";
        IpcListener::instance()->writeDone();
        break;
    }
    case 17:
        qDebug() << "PAUSE calib ";
        paused = !paused;
        IpcListener::instance()->writeDone();
        break;
    case 21:
        if (!calibrating && getCalibration()) {
            calibrating = true;
            processCalibration(2);
        } else {
            refuse();
        }
        break;
    case 22:
        printf("changed to single pointer mode \n");
        gs->pointerMode = 0;
        gs->saveUserSettings();
        break;
    case 23:
        printf("changed to multi pointer mode \n");
        gs->pointerMode = 1;
        gs->saveUserSettings();
        break;
    case 24:
        printf("offset correction \n");
        if (getCalibration())
            processOffsetCorrection();
        else
            refuse();
        break;
    case 25: onMenuExited(); break;
    case 100:
    case 101:
        gs->profile = id == 100 ? 1 : 0;
        gs->saveUserSettings();
        IpcListener::instance()->writeDone();
        break;
    case 102:
    case 103:
        sensor->setLaser(id == 103);
        IpcListener::instance()->writeDone();
        break;
    case 1000:
        StatusWriter::instance()->write(-13);
        IpcListener::instance()->writeDone();
        break;
    default: break;
    }
    fflush(stdout);
}

void BlobFacade::processManualCalibSlot()
{
    processCalibration(0);
}

void BlobFacade::processCalibration(int kind)
{
    GS* gs = GS::instance();
    StatusWriter::instance()->write(-11);
    if (kind == 2) {
        activePen->setInputMode(StylusCalibration);
        setExposure(gs->calibrationExposure);
        // Its screen outlives the run; the next run brings its own.
        delete lumerailCalibrationUi;
        lumerailCalibrationUi = procedureFactory ? procedureFactory->makeLumerailCalibrationUi(gs->language) : nullptr;
        pointerController->enabled = false;
        startLrc();
        return;
    }

    // Where the automatic calibration came first, the manual one follows it on a second pass.
    bool secondPass = true;
    bool manual = kind == 0;
    if (mcFallback) {
        processing = false;
        if (kind == 0) {
            mcFallback = false;
            mcIsTouch = false;
            activePen->setInputMode(Finger);
            setExposure(gs->fingerExposure);
        }
        secondPass = kind == 0;
    } else {
        if (!acBeforeMc && activePen->inputMode == Finger && kind == 0) {
            qDebug() << "MC triggered in touch mode, we need to do AC first.";
            acBeforeMc = true;
            processCalibration(1);
            return;
        }
        processing = false;
    }

    if (secondPass && acBeforeMc && kind == 0) {
        acBeforeMc = false;
        if (mcIsTouch) {
            activePen->setInputMode(StylusCalibration);
            setExposure(gs->calibrationExposure);
            mcFallback = true;
        } else {
            mcAfterAc = true;
        }
        pointerController->enabled = false;
        processing = true;
        disposeUi();
    } else {
        pointerController->enabled = false;
        processing = kind != 1;
        disposeUi();
        if (kind == 1) {
            autoCalibrationUi = procedureFactory ? procedureFactory->makeAutoCalibrationUi(gs->language) : nullptr;
            startAc();
            sensor->setRobustMode(3);
            return;
        }
    }

    if (manual) {
        manualCalibrationUi = procedureFactory ? procedureFactory->makeManualCalibrationUi(gs->language) : nullptr;
        if (activePen->inputMode == Stylus) {
            activePen->setInputMode(StylusCalibration);
            setExposure(gs->calibrationExposure);
        }
        startMc();
        sensor->setRobustMode(3);
    }
}

void BlobFacade::startAc()
{
    IAutoCalibrationUi* ui = autoCalibrationUi;
    GS* gs = GS::instance();
    mcIsTouch = false;
    // The factor was once set to 1.0 and put back at once, to no effect; the image thread reads
    // it, so it is only kept here.
    savedBlankingFactor = gs->blankingFactorFinger;
    sensor->setLaser(false);
    sensor->switchFilter(true);
    activePen->setWindow();
    activePen->setWindow();
    delete autoCalibration.exchange(nullptr);
    // Without its screen or its procedure the run ends at once with no result.
    IAutoCalibration* ac = ui ? procedureFactory->makeAutoCalibration(disturbanceChecker, this) : nullptr;
    if (!ac)
        ac = new AbsentAutoCalibration();
    connect(ac, &Procedure::finished, this, &BlobFacade::onCalibrationFinished, Qt::QueuedConnection);
    autoCalibration = ac;
    slateworkHelper->hideSlateworkAnnotationToolbar();
    ac->start(this, ui, gs->acConfPath, gs->debugDir, gs->screenWidth, gs->screenHeight, gs->sensorWidth,
              gs->sensorHeight, gs->acDebug, true);
}

void BlobFacade::startMc()
{
    qDebug() << "Start MC";
    delete manualCalibration;
    manualCalibration =
        manualCalibrationUi ? procedureFactory->makeManualCalibration(manualCalibrationUi, this, sensor) : nullptr;
    if (!manualCalibration)
        manualCalibration = new AbsentManualCalibration();
    connect(manualCalibration, &Procedure::finished, this, &BlobFacade::onCalibrationFinished, Qt::QueuedConnection);
    keepFrames = GS::instance()->calibrationKeepFrames;
    manualCalibration->start(activePen, mcIsTouch);
}

void BlobFacade::startLrc()
{
    qDebug() << "Start LRC";
    delete lumerailCalibration;
    lumerailCalibration = lumerailCalibrationUi
        ? procedureFactory->makeLumerailCalibration(lumerailCalibrationUi, this, sensor)
        : nullptr;
    if (!lumerailCalibration)
        lumerailCalibration = new AbsentLumerailCalibration();
    connect(lumerailCalibration, &Procedure::finished, this, &BlobFacade::onCalibrationFinished,
            Qt::QueuedConnection);
    keepFrames = GS::instance()->calibrationKeepFrames;
    lumerailCalibration->start(activePen);
}

void BlobFacade::resetOffsetCorrection()
{
    GS* gs = GS::instance();
    gs->offsetLeft = gs->offsetRight = gs->offsetTop = gs->offsetBottom = 1.0;
    gs->offsetC = gs->offsetD = 0.0;
    gs->saveUserSettings();
}

void BlobFacade::onCalibrationFinished(int status)
{
    GS* gs = GS::instance();
    bool wasAuto = false;
    sensor->setRobustMode(0);
    qDebug() << "calibration finished";
    if (status == 1 && (autoCalibration || manualCalibration))
        resetOffsetCorrection();
    if (IAutoCalibration* ac = autoCalibration.exchange(nullptr)) {
        slateworkHelper->showSlateworkAnnotationToolbar();
        sensor->switchFilter(false);
        delete ac;
        wasAuto = true;
    }
    if (manualCalibration) {
        keepFrames = gs->keepFrames;
        delete manualCalibration;
        manualCalibration = nullptr;
    }
    if (lumerailCalibration) {
        qDebug() << "lumerail finished ";
        // The bar held the calibration frames too; tracking goes back to its own count.
        keepFrames = gs->keepFrames;
        activePen->setInputMode(Stylus);
        setExposure(gs->stylusExposure);
        delete lumerailCalibration;
        lumerailCalibration = nullptr;
        if (lumerailCalibrationUi)
            lumerailCalibrationUi->show(false, false);
        if (getCalibration())
            pointerController->enabled = true;
    }
    {
        std::lock_guard hold(calibrationLock);
        if (!fingerCalibration && stylusCalibration)
            fingerCalibration = stylusCalibration;
        // A failed or cancelled run puts the former calibration back.
        if (!acBeforeMc && status != -2 && status != 1)
            if (Calibration* active = getCalibration())
                setCalibration(active);
    }
    later(&BlobFacade::disposeUi);
    qDebug() << "all disposed";
    StatusWriter* statusWriter = StatusWriter::instance();
    if (!acBeforeMc) {
        if (status == -2 || status == -3)
            statusWriter->write(status);
        else if (status == 0)
            statusWriter->write(-4);
    }
    if (status != -2 && getCalibration()) {
        pointerController->enabled = true;
        processing = true;
    }
    qDebug() << "Status: " << status;

    // What follows: a manual calibration after the automatic one, or the answer to the menu.
    enum class Next { FollowUp, Decide, Cancelled, Done, Answer };
    const bool notOk = status != 1;
    const bool isTouch = activePen->inputMode == Finger;
    Next next;
    if (calibrating && !acBeforeMc) {
        if (status == 1 && mcFallback) {
            next = wasAuto ? Next::FollowUp : Next::Decide;
        } else {
            qDebug() << "send done to hid host";
            bool followUp;
            if (isTouch && status == -3 && !wasAuto) {
                // Skipping the optional manual step in finger mode keeps the calibration there is.
                status = 1;
                followUp = false;
            } else {
                followUp = notOk && wasAuto;
            }
            calibrating = false;
            if (followUp)
                mcIsTouch = true;
            next = followUp || wasAuto ? Next::FollowUp : Next::Decide;
        }
    } else {
        if (notOk && wasAuto)
            mcIsTouch = true;
        next = wasAuto ? Next::FollowUp : Next::Decide;
    }
    if (next == Next::FollowUp) {
        if (acBeforeMc) {
            if (status != -3) {
                later(&BlobFacade::processManualCalibSlot);
                return;
            }
            next = isTouch && !wasAuto ? Next::Done : Next::Cancelled;
        } else {
            next = Next::Decide;
        }
    }
    if (next == Next::Decide) {
        if (status == 1 && mcFallback) {
            later(&BlobFacade::processManualCalibSlot);
            return;
        }
        if (status == 1 || (isTouch && status == -3 && !wasAuto))
            next = Next::Done;
        else if (status == -3)
            next = Next::Cancelled;
        else {
            if (status == -2)
                statusWriter->write(-2);
            next = Next::Answer;
        }
    }
    if (next == Next::Cancelled)
        statusWriter->write(getCalibration() ? -3 : -6);
    else if (next == Next::Done)
        statusWriter->write(0);

    if (mcFallback) {
        savedProcessing = processing.load();
        processing = false;
        activePen->setInputMode(Finger);
        setExposure(gs->fingerExposure);
        sensor->setLaser(true);
        processing = savedProcessing.load();
    }
    if (activePen->inputMode == StylusCalibration) {
        setExposure(gs->stylusExposure);
        activePen->setInputMode(Stylus);
    }
    mcFallback = false;
    mcIsTouch = false;
    acBeforeMc = false;
    mcAfterAc = false;
    qDebug() << "write done";
    IpcListener::instance()->writeDone();
}

void BlobFacade::processModeChange()
{
    GS* gs = GS::instance();
    // The automatic calibration's screen serves as the waiting screen while the mode loads.
    IAutoCalibrationUi* ui = procedureFactory ? procedureFactory->makeAutoCalibrationUi(gs->language) : nullptr;
    autoCalibrationUi = ui;
    if (ui) {
        ui->show(true, true);
        ui->showLoading(true);
    }
    gs->saveUserSettings();
    activePen->setInputMode(gs->inputMode);
    savedProcessing = processing.load();
    processing = false;
    setExposure(gs->inputMode == Stylus ? gs->stylusExposure : gs->fingerExposure);
    sensor->setLaser(activePen->inputMode == Finger);
    processing = savedProcessing.load();
    WorkerThread::doWork(this, "1loadCalibration()", -1);
}

void BlobFacade::processLaserAlign()
{
    if (!fingerCalibration) {
        StatusWriter::instance()->write(-5);
        IpcListener::instance()->writeDone();
        return;
    }
    laserAlignment = procedureFactory ? procedureFactory->makeLaserAlignment(this, pointerController) : nullptr;
    if (!laserAlignment)
        laserAlignment = new AbsentLaserAlignment();
    connect(laserAlignment, &Procedure::finished, this, &BlobFacade::onLaserAlignFinished);
    laserAlignment->start(1);
}

void BlobFacade::onLaserAlignFinished(int status)
{
    {
        std::lock_guard hold(calibrationLock);
        if (stylusCalibration)
            stylusCalibration->save(GS::instance()->stylusCalibrationPath.c_str());
    }
    IpcListener::instance()->writeDone();
    later(&BlobFacade::disposeUi);
    if (status == -1)
        StatusWriter::instance()->write(-3);
}

void BlobFacade::processOffsetCorrection()
{
    StatusWriter::instance()->write(-11);
    offsetCorrectionUi = procedureFactory ? procedureFactory->makeOffsetCorrectionUi(GS::instance()->language)
                                          : nullptr;
    startOffsetCorrection();
    StatusWriter::instance()->write(0);
}

void BlobFacade::startOffsetCorrection()
{
    qDebug() << "Start startOffsetCorrection";
    if (!offsetCorrectionUi)
        return;
    delete offsetCorrection;
    offsetCorrection = procedureFactory->makeOffsetCorrection(offsetCorrectionUi, this);
    if (!offsetCorrection)
        return;
    // The procedure closes its own screen; the menu has never been answered after it, and the
    // signatures of this request do not meet, as they never have (Qt says so in the log).
    connect(offsetCorrection, SIGNAL(finished(int)), this, SLOT(onOffsetCorrectionFinished(int)));
    offsetCorrection->start();
}

void BlobFacade::onOffsetCorrectionFinished()
{
    delete offsetCorrection;
    offsetCorrection = nullptr;
    if (offsetCorrectionUi)
        offsetCorrectionUi->show(false);
    disposeUi();
    qDebug() << "write done";
    IpcListener::instance()->writeDone();
}

void BlobFacade::showSensorViewer()
{
    if (sensorViewer)
        return;
    sensorViewerUi = procedureFactory ? procedureFactory->makeSensorViewerUi(GS::instance()->language) : nullptr;
    viewerSavedEnabled = pointerController->enabled;
    savedProcessing = processing.load();
    processing = false;
    sensorViewer = sensorViewerUi ? procedureFactory->makeSensorViewer(sensorViewerUi, this) : nullptr;
    pointerController->enabled = false;
    if (!sensorViewer) {
        qDebug() << "sensor viewer is not available";
        later(&BlobFacade::onSensorViewerClosed);
        return;
    }
    connect(sensorViewer, &ISensorViewer::exitted, this, &BlobFacade::onSensorViewerClosed);
    sensorViewer->start();
}

void BlobFacade::onSensorViewerClosed()
{
    GS* gs = GS::instance();
    sensor->switchFilter(false);
    setExposure(gs->inputMode == Stylus ? gs->stylusExposure : gs->fingerExposure);
    if (viewerSavedEnabled)
        pointerController->enabled = true;
    processing = savedProcessing.load();
    later(&BlobFacade::disposeUi);
    IpcListener::instance()->writeDone();
    // The viewer may be the sender of this very call: it goes after the present event.
    if (sensorViewer)
        sensorViewer->deleteLater();
    sensorViewer = nullptr;
}

void BlobFacade::disposeUi()
{
    delete laserAlignment;
    laserAlignment = nullptr;
    delete autoCalibrationUi.exchange(nullptr);
    delete manualCalibrationUi;
    manualCalibrationUi = nullptr;
    delete sensorViewerUi;
    sensorViewerUi = nullptr;
    delete offsetCorrectionUi;
    offsetCorrectionUi = nullptr;
}
