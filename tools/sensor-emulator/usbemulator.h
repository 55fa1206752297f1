#pragma once

#include "emulateddevice.h"
#include "emulateduser.h"
#include "framerenderer.h"
#include "scene.h"
#include "screencapture.h"
#include "screenprojection.h"

#include <libusb.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

// libusb keeps these opaque; here they are ours.
struct libusb_context { int unused; };
struct libusb_device { int unused; };
struct libusb_device_handle { libusb_device* device; };

// The bus with one emulated sensor on it, behind the libusb functions. A device thread keeps
// the frame clock: at each tick it fills the oldest bulk transfer in flight with a rendered
// frame, or loses the frame when none is. Completions are handed over inside the event calls,
// on the thread that makes them, as libusb does; synchronous calls work from any thread.
class UsbEmulator
{
public:
    using Clock = std::chrono::steady_clock;

    static UsbEmulator& instance();

    int init(libusb_context** context);
    void exit();

    ssize_t deviceList(libusb_device*** list);
    bool isDevice(const libusb_device* device) const { return device == &theDevice; }
    int open(libusb_device* device, libusb_device_handle** handle);
    libusb_device_handle* openByIds(uint16_t vendorId, uint16_t productId);
    void close(libusb_device_handle* handle);
    // 0 when the handle is open and the device still there, else a libusb error.
    int check(libusb_device_handle* handle);
    uint16_t vendorId() const { return vendor; }
    uint16_t productId() const { return product; }
    uint8_t streamEndpoint() const { return 0x82; }

    int controlSync(libusb_device_handle* handle, uint8_t type, uint8_t request, uint16_t value, uint16_t index,
                    unsigned char* data, uint16_t length);
    int bulkSync(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data, int length,
                 int* transferred, unsigned int timeout);
    int clearHalt(libusb_device_handle* handle, unsigned char endpoint);
    int descriptor(uint8_t type, uint8_t index, uint8_t* out, int length);

    static libusb_transfer* allocTransfer(int isoPackets);
    static void freeTransfer(libusb_transfer* transfer);
    int submit(libusb_transfer* transfer);
    int cancel(libusb_transfer* transfer);
    int handleEvents(const timeval* timeout, int* completed);
    // Transfer memory mapped for the device, as the kernel's USB file system gives it: the
    // device writes a frame straight into it, and the reap copies nothing.
    unsigned char* deviceMemory(libusb_device_handle* handle, size_t length);
    int freeDeviceMemory(unsigned char* block);
    void interruptEvents();

private:
    struct TransferState;
    static TransferState* stateOf(libusb_transfer* t);

    UsbEmulator() = default;
    int checkLocked(libusb_device_handle* handle);
    bool listed(Clock::time_point now) const;
    double sinceInit(Clock::time_point t) const;
    double sinceStart(Clock::time_point t) const;
    const Scene::Fault* activeFault(Scene::FaultType type, double t) const;
    void noteStart(Clock::time_point now);
    void complete(libusb_transfer* t, libusb_transfer_status status, int actual);
    void forget(libusb_transfer* t);
    void deviceLoop();
    void serviceTimers(Clock::time_point now);
    void frameTick(std::unique_lock<std::mutex>& lock, Clock::time_point now);
    void startWatchingScreen();
    void updateUsers(double t, const ScreenCapture::Look* look);
    void writeTruth();
    std::vector<uint8_t>* takeBuffer(size_t bytes);

    mutable std::mutex mu;
    std::condition_variable eventCv;   // completions, for event handlers and synchronous waiters
    std::condition_variable deviceCv;  // wakes the device thread
    int initCount = 0;
    bool filesOpenedBefore = false;
    bool stopping = false;
    bool interrupted = false;
    std::thread deviceThread;

    std::unique_ptr<Scene> scene;
    std::unique_ptr<EmulatedDevice> device;
    std::unique_ptr<FrameRenderer> renderer;
    FILE* logFile = nullptr;
    FILE* truthFile = nullptr;
    uint16_t vendor = 0, product = 0;

    libusb_context theContext{};
    libusb_device theDevice{};
    std::vector<libusb_device_handle*> handles;

    Clock::time_point initTime, streamStart, nextTick, lastTruthFlush;
    Clock::duration period{};
    bool started = false;
    bool unplugged = false;
    double lastClearHalt = -1;
    uint64_t frameNumber = 0;

    std::deque<libusb_transfer*> inFlight;
    std::deque<libusb_transfer*> done;
    std::vector<std::vector<uint8_t>*> pool;
    std::vector<SpotTruth> spots;
    // The last frame's truth: its spots stay in spots until the next frame is rendered.
    struct PendingTruth {
        bool due = false;
        uint64_t frame = 0;
        double t = 0;
        int64_t monoNs = 0;
        int bytes = 0;
        FrameGeometry g;
    } pendingTruth;
    std::map<unsigned char*, size_t> mapped;

    // The X screen as projector and users see it, and the users; made at the start request
    // when the scene has a projector or users.
    std::unique_ptr<ScreenCapture> screen;
    std::unique_ptr<ScreenProjection> projection;
    std::vector<EmulatedUser> users;
    std::vector<SpotTruth> pressedSpots;
    int nextPressId = 1000001;
};
