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
class IAutoCalibration;
class IAutoCalibrationUi;
class IBlobListener;
class IDisturbanceChecker;
class ILaserAlignment;
class ILumerailCalibration;
class ILumerailCalibrationUi;
class IManualCalibration;
class IManualCalibrationUi;
class IOffsetCorrection;
class IOffsetCorrectionUi;
class IPointerController;
class IProcedureFactory;
class ISensorViewer;
class ISensorViewerUi;
class IpcListener;
class MultiPointerController;
class Sensor;
class SlateworkSDKHelper;

// The central object: owns what runs, gates frames and fans blobs out to the listeners.
class BlobFacade : public QObject, public IImageSource, public IBlobEmitter {
    Q_OBJECT
public:
    // Flags shared with the image thread without a lock: atomics, same order of writes.
    std::atomic<unsigned char*> image{nullptr};
    std::atomic<bool> processing{false};
    bool menuFlag = false;
    std::atomic<bool> paused{false};
    IDisturbanceChecker* disturbanceChecker = nullptr;
    bool calibrationLoaded = false;
    // The live screens, or null; the automatic one is also hidden from the loading thread.
    std::atomic<IAutoCalibrationUi*> autoCalibrationUi{nullptr};
    IManualCalibrationUi* manualCalibrationUi = nullptr;
    ILumerailCalibrationUi* lumerailCalibrationUi = nullptr;
    ISensorViewerUi* sensorViewerUi = nullptr;
    IOffsetCorrectionUi* offsetCorrectionUi = nullptr;
    // Owned; one object serves both modes when only a stylus calibration exists.
    Calibration* stylusCalibration = nullptr;
    Calibration* fingerCalibration = nullptr;
    MultiPointerController* pointerController = nullptr;
    ISensorViewer* sensorViewer = nullptr;
    // Gates kept as hooks in the frame path: nothing sets them.
    bool dropAllFrames = false;
    bool dropThreeOfFour = false;
    int frameCount = 0;
    bool notCalibratedFlip = false;
    bool viewerSavedEnabled = false;
    std::atomic<bool> savedProcessing{false};
    bool filterSwitched = false;
    double savedBlankingFactor = 0;
    ILaserAlignment* laserAlignment = nullptr;
    SlateworkSDKHelper* slateworkHelper = nullptr;
    // Read by setCalibration on the procedure's own thread.
    std::atomic<IAutoCalibration*> autoCalibration{nullptr};
    IManualCalibration* manualCalibration = nullptr;
    ILumerailCalibration* lumerailCalibration = nullptr;
    IOffsetCorrection* offsetCorrection = nullptr;
    Sensor* sensor = nullptr;
    ActivePen* activePen = nullptr;
    IpcListener* ipc = nullptr;
    // The flags of the calibration sequence; the loading thread reads them too.
    std::atomic<bool> calibrating{false};
    std::atomic<bool> acBeforeMc{false};
    std::atomic<bool> mcFallback{false};
    std::atomic<bool> mcAfterAc{false};
    std::atomic<int> keepFrames{0};
    std::atomic<bool> mcIsTouch{false};
    bool mcSpare = false;
    // Makes the procedures and screens; null: none is available, each request reports no result.
    IProcedureFactory* procedureFactory = nullptr;

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

    // The calibration commands: 0 manual, 1 automatic, 2 the bar outside the screen.
    void processCalibration(int kind);
    void startAc();
    void startMc();
    void startLrc();
    void resetOffsetCorrection();
    void processModeChange();
    void processOffsetCorrection();
    void startOffsetCorrection();
    void showSensorViewer();

public slots:
    void processManualCalibSlot();
    void processLaserAlign();
    void onMenuExited();
    void onIpcMessageReceived(int id);
    // On a worker thread: puts the calibration of the present mode in force.
    void loadCalibration();
    void onCalibrationFinished(int status);
    void onOffsetCorrectionFinished();
    void onSensorViewerClosed();
    void disposeUi();
    void onLaserAlignFinished(int status);

protected:
    // The output start() puts behind the pointer fan-out; a subclass may drive another device.
    virtual IPointerController* createPrimaryController();

private:
    // Calibrations are replaced and deleted by procedures' threads, the loading thread and
    // the main thread; ownership changes one at a time.
    mutable std::recursive_mutex calibrationLock;
    // Guards only the vector itself, never a listener call: listeners call back in.
    mutable std::mutex listenersLock;
    std::vector<IBlobListener*> listeners;

    template <typename Call> void forEachListener(Call call);
    void refuse();
    void replaceStylusCalibration(Calibration* calibration);
    // Runs slot on the main thread after the present event.
    void later(void (BlobFacade::*slot)());
};

// The sensor's frame callback; context is the BlobFacade.
void ImageCallback(void* context, unsigned char* image);
// The sensor's end of streaming, on the USB thread: the device is gone, so is the process.
[[noreturn]] void StoppedCallback();
