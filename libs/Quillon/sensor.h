#pragma once

#include "imagebuffer.h"
#include "xfercontext.h"

#include <libusb.h>

#include <atomic>
#include <mutex>
#include <vector>

// The USB image sensor: imager registers and bridge outputs over two vendor requests,
// the window/binning/blanking logic, and the two threads that carry frames.
class Sensor {
public:
    using FrameCallback = void (*)(void* context, unsigned char* frame);
    using StopCallback = void (*)();

    libusb_device_handle* handle = nullptr;
    unsigned char endpoint = 0;
    // Geometry: read by the capture threads, changed only while both are idle.
    std::atomic<int> rowBytes{0};
    std::atomic<int> rowCount{0};
    std::atomic<int> frameBytes{0};
    std::atomic<bool> stopping{false};
    bool usbReady = false;
    int horizontalBlanking = 0;
    std::atomic<int> pendingBlanking{-1};
    int minHorizontalBlanking = 61;
    int verticalBlanking = 17;
    int sensorWidth = 0;
    int sensorHeight = 0;
    int offsetX = 0;
    int offsetY = 0;
    std::atomic<int> frameOffset{0};
    std::atomic<int> transferBytes{0};
    int windowX = 0;
    int windowY = 0;
    int windowWidth = 0;
    int windowHeight = 0;
    int binningY = 1;
    int binningX = 1;
    int fullFrameBytes = 0;
    FrameCallback imageCallback = nullptr;
    StopCallback stoppedCallback = nullptr;
    std::vector<imageBuffer*> imageBuffers;
    const char* sensorConfPath;
    const char* cyusbConfPath;
    void* callbackContext = nullptr;
    xferContext** xfers = nullptr;
    int bufferCount = 4;
    unsigned char* frame = nullptr;
    std::atomic<bool> imageThreadIdle{false};
    std::atomic<bool> usbThreadIdle{false};
    std::atomic<bool> reconfiguring{false};
    std::atomic<int> sentHorizontalBlanking{0};
    std::atomic<int> sentVerticalBlanking{0};
    std::atomic<bool> asyncControl{false};
    std::atomic<int> exposure{0};
    // exposure has reached the imager.
    std::atomic<bool> exposureWritten{false};
    // Where this process last swung the filter: 0 tracking, 1 picture, -1 not known.
    std::atomic<int> filterPosition{-1};
    // One pulse at a time: a second caller waits for the first one's position.
    std::mutex filterLock;
    // The two copies of a register or output write follow each other on the wire, whichever
    // threads write.
    std::mutex pairLock;
    int minWindowWidth = 0;
    int minWindowHeight = 0;
    // Counts geometry changes, so that a transfer armed before one is recognised.
    std::atomic<int> geometry{0};
    // Rung by the USB thread for each buffer it fills; the image thread waits on it.
    FrameDoorbell frameFilled;
    // The ring's buffers and the frame are memory the kernel maps for the device, filled
    // without a copy.
    bool deviceMemory = false;

    Sensor(const char* cyusbConfPath, const char* sensorConfPath);

    int initLibusb();
    int getSensorCount();
    bool isConnected();
    int connect(int index);
    int start(void* context, FrameCallback imageCallback, StopCallback stoppedCallback, int width, int height);
    void init();
    int stop();

    int setGPIO(unsigned char mask, unsigned char level);
    int usbCtrlWrite(unsigned char reg, unsigned short value);
    int switchFilter(bool on);
    int setExposure(int value);
    int getExposure();
    void setLaser(bool on);
    void setMinimumWindow(int width, int height);
    void setHorizontalBlanking(int value);
    void setBlankingSync(int value);
    void setRobustMode(int level);
    int setWindow(int x, int y, int width, int height);
    void setBinning(int vertical, int horizontal);
    void setXferSize(int x, int y, int width, int height);
    int saveEEPROM(unsigned char* data, int length);
    int loadEEPROM(unsigned char* data, int length);
    void sleep(int ms);

    // Blanking factor of the present input mode.
    static double blankingFactor();

    void beginXfer(xferContext* x);
    void cancelXfer(xferContext* x);

private:
    void loadCcf();
    // One vendor write with data; false when nothing reached the device.
    bool controlWrite(unsigned char request, unsigned short value, unsigned char* data, unsigned short length);
    // Sets reconfiguring and waits until neither capture thread touches buffers.
    void waitForIdleThreads();
};

void transferFinishedCB(libusb_transfer* t);
void* readUsbAsync(void* sensor);
void* imgTransfer(void* sensor);
