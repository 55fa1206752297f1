#pragma once

#include "iblobemitter.h"
#include "iimagesource.h"

#include <QObject>

#include <atomic>
#include <mutex>
#include <vector>

class ActivePen;
class Blob;
class Calibration;
class IBlobListener;
class IPointerController;
class MultiPointerController;
class Sensor;

// The central object: owns what runs, gates frames and fans blobs out to the listeners.
class BlobFacade : public QObject, public IImageSource, public IBlobEmitter {
    Q_OBJECT
public:
    // Flags shared with the image thread without a lock: atomics, same order of writes.
    std::atomic<unsigned char*> image{nullptr};
    std::atomic<bool> processing{false};
    bool menuFlag = false;
    std::atomic<bool> paused{false};
    bool calibrationLoaded = false;
    MultiPointerController* pointerController = nullptr;
    Sensor* sensor = nullptr;
    ActivePen* activePen = nullptr;
    // Owned; one object serves both modes when only a stylus calibration exists.
    Calibration* stylusCalibration = nullptr;
    Calibration* fingerCalibration = nullptr;
    // Gates kept as hooks in the frame path: nothing sets them.
    bool dropAllFrames = false;
    bool dropThreeOfFour = false;
    int frameCount = 0;
    bool notCalibratedFlip = false;
    bool viewerSavedEnabled = false;
    bool savedProcessing = false;
    bool filterSwitched = false;
    double savedBlankingFactor = 0;
    std::atomic<bool> calibrating{false};
    bool acBeforeMc = false;
    bool mcFallback = false;
    bool mcAfterAc = false;
    std::atomic<int> keepFrames{0};
    bool mcIsTouch = false;
    bool mcSpare = false;

    BlobFacade(int argc, char** argv);
    ~BlobFacade() override;

    // Brings the system up; false when it must not run (no menu, no -v).
    bool start();

    void addBlobListener(IBlobListener* listener) override;
    void removeBlobListener(IBlobListener* listener) override;
    void resetBackgroundTable() override;
    bool setCalibration(Calibration* calibration) override;
    void updateLumerailCalibration() override {}
    Calibration* getCalibration() override;
    void updateShiftCorrection() override;
    // The outline of the accepted screen area, in sensor space, for the engines.
    void setBlobFilter();
    void setProcessing(bool on) override { processing = on; }
    void emulateBlob(int x, int y) override;
    unsigned char* getImage() override;
    void setExposure(int exposure) override;
    int getExposure() override;
    void switchFilter() override;

    // The blobs of one frame, new objects; Blob::outside tells the screen's from the rest.
    virtual std::vector<Blob*> process(unsigned char* image, bool debug);

    void onNewBlob(Blob* blob, std::vector<Blob*> all, unsigned char* image);
    void onNewBlobList(std::vector<Blob*> all);
    void onNewOutsideBlob(Blob* blob, std::vector<Blob*> all, unsigned char* image);
    void onNewOutsideBlobList(std::vector<Blob*> all);

    // Receivers in order of registration; a copy, for whoever wants to look.
    std::vector<IBlobListener*> blobListeners() const;

public slots:
    void onMenuExited();
    // On a worker thread: puts the calibration of the present mode in force.
    void loadCalibration();

protected:
    // The output start() puts behind the pointer fan-out; a subclass may drive another device.
    virtual IPointerController* createPrimaryController();

private:
    // Guards only the vector itself, never a listener call: listeners call back in.
    mutable std::mutex listenersLock;
    std::vector<IBlobListener*> listeners;

    template <typename Call> void forEachListener(Call call);
};

// The sensor's frame callback; context is the BlobFacade.
void ImageCallback(void* context, unsigned char* image);
// The sensor's end of streaming, on the USB thread: the device is gone, so is the process.
[[noreturn]] void StoppedCallback();
