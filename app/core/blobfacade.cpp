#include "blobfacade.h"

#include "blob.h"
#include "exitlistener.h"
#include "globalsettings.h"
#include "ibloblistener.h"
#include "multipointercontroller.h"
#include "sensor.h"
#include "statuswriter.h"
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
    pointerController->enablePrimary();
    addBlobListener(pointerController);

    sensor->connect(0);
    sensor->start(this, ImageCallback, StoppedCallback, gs->sensorWidth, gs->sensorHeight);
    sensor->setMinimumWindow(gs->windowWidth, gs->windowHeight);
    setExposure(gs->inputMode == 1 ? gs->stylusExposure : gs->fingerExposure);
    sensor->setBinning(gs->binningY, gs->binningX);
    sensor->switchFilter(false);
    sensor->setLaser(gs->inputMode == 0);
    return true;
}

void BlobFacade::onMenuExited()
{
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

std::vector<Blob*> BlobFacade::process(unsigned char*, bool)
{
    // The engines join here with the tracking front end.
    return {};
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
