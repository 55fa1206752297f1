#include "sensor.h"

#include "configfileerror.h"
#include "cyusb.h"
#include "globalsettings.h"

#include <QDebug>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <pthread.h>
#include <sched.h>
#include <sstream>
#include <string>
#include <unistd.h>

namespace {

constexpr unsigned char VendorOut = 0x40;
constexpr unsigned char RegisterRequest = 0xFE;
constexpr unsigned char OutputRequest = 0xFC;
constexpr unsigned char StartRequest = 0xAA;
constexpr unsigned int SyncTimeout = 2000;
constexpr unsigned int AsyncTimeout = 1500;
constexpr int BulkPacket = 512;
constexpr int UsbThreadPriority = 99;
// The device runs with these blanking values whatever the logic computes: the
// product's frame rate rests on them.
constexpr unsigned short FixedHorizontalBlanking = 999;
constexpr unsigned short FixedVerticalBlanking = 47;

unsigned int hexToUint(const std::string& text)
{
    std::istringstream in(text);
    unsigned int v = 0;
    if (!(in >> std::hex >> v))
        return 0;
    return v;
}

unsigned int decToUint(const std::string& text)
{
    std::istringstream in(text);
    unsigned int v = 0;
    if (!(in >> std::dec >> v))
        return 0;
    return v;
}

int roundUpToPacket(int bytes)
{
    return bytes % BulkPacket ? (bytes / BulkPacket + 1) * BulkPacket : bytes;
}

// Every buffer of the ring can take the longest transfer and a row of slack.
size_t bufferBytes(const Sensor* s)
{
    return static_cast<size_t>(roundUpToPacket(s->fullFrameBytes) + s->sensorWidth);
}

void runBlankingRegulator(Sensor* s, int count)
{
    if (Sensor::blankingFactor() != 0.0)
        return;
    const int target = GS::instance()->targetFps;
    if (s->sentHorizontalBlanking < 989 && count > target + 2)
        s->setBlankingSync(s->sentHorizontalBlanking + 10);
    if (s->sentHorizontalBlanking - 10 > s->minHorizontalBlanking && count < target - 2)
        s->setBlankingSync(s->sentHorizontalBlanking - 10);
}

void copyWindow(Sensor* s, imageBuffer* b)
{
    const int full = s->fullFrameBytes;
    const int offset = s->frameOffset;
    if (b->size <= 0 || offset >= full)
        return;
    const int row = s->rowBytes;
    const int stride = s->sensorWidth;
    // A window of the whole sensor is the frame as it stands: the buffer and the frame trade
    // places, which spares a copy of the whole picture on every frame.
    if (offset == 0 && row == stride && b->size == full) {
        std::swap(s->frame, b->data);
        return;
    }
    for (int r = 0;; ++r) {
        const int target = offset + r * stride;
        memcpy(s->frame + target, b->data + r * row, static_cast<size_t>(std::min(row, full - target)));
        if ((r + 1) * row >= b->size || (r + 1) * row > full || offset + (r + 1) * stride >= full)
            break;
    }
}

} // namespace

Sensor::Sensor(const char* cyusbConfPath, const char* sensorConfPath)
    : sensorConfPath(sensorConfPath), cyusbConfPath(cyusbConfPath)
{
    bufferCount = 4;
}

int Sensor::initLibusb()
{
    if (usbReady)
        return 1;
    if (cyusb_open(cyusbConfPath) < 0) {
        qDebug() << "Error opening device";
        cyusb_close();
        return -1;
    }
    usbReady = true;
    return 1;
}

int Sensor::getSensorCount()
{
    if (initLibusb() < 0)
        return 0;
    return renumerate(false);
}

bool Sensor::isConnected()
{
    return getSensorCount() > 0;
}

int Sensor::connect(int index)
{
    qDebug() << "connect to" << index;
    initLibusb();
    handle = cyusb_gethandle(index);
    // A device plugged in after the first enumeration was counted but never opened.
    if (!handle && renumerate(true) > index)
        handle = cyusb_gethandle(index);
    if (!handle) {
        qDebug() << "No device to connect to";
        return 0;
    }
    int r = cyusb_kernel_driver_active(handle, 0);
    if (r) {
        qDebug() << "kernel driver active, status:" << libusb_error_name(r);
        cyusb_close();
        return 0;
    }
    r = cyusb_claim_interface(handle, 0);
    if (r) {
        qDebug() << "Error in claimidng interface, status:" << libusb_error_name(r);
        cyusb_close();
        return 0;
    }
    libusb_config_descriptor* config = nullptr;
    r = cyusb_get_config_descriptor(handle, 0, &config);
    if (r) {
        qDebug() << "Could not get Config descriptor, status:" << libusb_error_name(r);
        cyusb_close();
        return 0;
    }
    bool found = false;
    if (config->bNumInterfaces > 0 && config->interface[0].num_altsetting > 0) {
        const libusb_interface_descriptor& setting = config->interface[0].altsetting[0];
        for (int e = 0; e < setting.bNumEndpoints; ++e) {
            if (setting.endpoint[e].bEndpointAddress & 0x82) {
                endpoint = setting.endpoint[e].bEndpointAddress;
                found = true;
                break;
            }
        }
    }
    cyusb_free_config_descriptor(config);
    if (!found) {
        qDebug() << "No IN endpoint in the device ... Cannot do bulk write";
        cyusb_close();
        return 0;
    }
    qDebug() << "Sensor connect done";
    return 1;
}

int Sensor::start(void* context, FrameCallback imageCb, StopCallback stoppedCb, int width, int height)
{
    callbackContext = context;
    imageCallback = imageCb;
    stoppedCallback = stoppedCb;
    rowBytes = sensorWidth = windowWidth = width;
    rowCount = sensorHeight = windowHeight = height;
    frameBytes = transferBytes = fullFrameBytes = width * height;
    offsetX = offsetY = windowX = windowY = 0;
    frameOffset = 0;
    binningX = binningY = 1;
    pendingBlanking = -1;
    minHorizontalBlanking = 61;
    horizontalBlanking = 61;
    verticalBlanking = 17;
    stopping = false;

    qDebug() << "make single control transfer";
    cyusb_control_transfer(handle, VendorOut, StartRequest, 0, 0, nullptr, 0, SyncTimeout);
    init();

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    qDebug() << "init readusb thread";
    // Named, so that the processor time of each can be told apart (tools/cputime).
    if (pthread_create(&thread, &attr, readUsbAsync, this) == 0) {
        pthread_setname_np(thread, "velora-usb");
        // From here on every control write goes through that thread's event loop, whichever
        // thread makes it: an output write has the same form at once as later on.
        for (int waited = 0; waited < 1000 && !asyncControl; ++waited)
            ::usleep(1000);
    }
    qDebug() << "init image transfer thread";
    if (pthread_create(&thread, &attr, imgTransfer, this) == 0)
        pthread_setname_np(thread, "velora-image");
    pthread_attr_destroy(&attr);
    return 1;
}

void Sensor::init()
{
    loadCcf();
}

void Sensor::loadCcf()
{
    std::ifstream file(sensorConfPath);
    if (!file) {
        qDebug() << "Could not read configuration file.";
        return;
    }
    std::string line;
    int number = 0;
    while (std::getline(file, line)) {
        ++number;
        if (line.compare(0, 5, "REG= ") != 0)
            continue;
        if (line.size() < 11)
            throw ConfigFileError(sensorConfPath, number,
                                  "a register line is 'REG= ' with the register in hexadecimal in columns 6 to 9 "
                                  "and the value in decimal from column 12: '"
                                      + line + "'");
        const unsigned int reg = hexToUint(line.substr(5, 4));
        const unsigned int value = decToUint(line.substr(11, 3));
        usbCtrlWrite(static_cast<unsigned char>(reg & 0xFF), static_cast<unsigned short>(value & 0xFFFF));
    }
}

int Sensor::stop()
{
    stopping = true;
    return 1;
}

bool Sensor::controlWrite(unsigned char request, unsigned short value, unsigned char* data, unsigned short length)
{
    if (!asyncControl)
        return cyusb_control_transfer(handle, VendorOut, request, value, 0, data, length, SyncTimeout) != 0;

    // The USB thread sits in the event loop: build the transfer and let it complete there.
    auto* buffer = static_cast<unsigned char*>(malloc(LIBUSB_CONTROL_SETUP_SIZE + length));
    libusb_fill_control_setup(buffer, VendorOut, request, value, 0, length);
    memcpy(buffer + LIBUSB_CONTROL_SETUP_SIZE, data, length);
    xferContext context;
    context.done = 0;
    libusb_transfer* t = libusb_alloc_transfer(0);
    libusb_fill_control_transfer(t, handle, buffer, transferFinishedCB, &context, AsyncTimeout);
    bool ok = false;
    if (libusb_submit_transfer(t) >= 0) {
        while (!context.done)
            ::usleep(500);
        ok = context.received > 0;
    }
    libusb_free_transfer(t);
    free(buffer);
    return ok;
}

int Sensor::usbCtrlWrite(unsigned char reg, unsigned short value)
{
    if (reg == 5) {
        value = FixedHorizontalBlanking;
        sentHorizontalBlanking = FixedHorizontalBlanking;
    } else if (reg == 6) {
        value = FixedVerticalBlanking;
        sentVerticalBlanking = FixedVerticalBlanking;
    }
    unsigned char data[3] = {reg, static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value & 0xFF)};
    std::lock_guard pair(pairLock);
    for (int copy = 0; copy < 2; ++copy) {
        if (!controlWrite(RegisterRequest, 0, data, sizeof data)) {
            qDebug() << "Writing to the device failed!";
            return -1;
        }
    }
    return 1;
}

int Sensor::setGPIO(unsigned char mask, unsigned char level)
{
    unsigned char data[3] = {level, level, level};
    const unsigned short length = asyncControl ? 3 : 1;
    // The pair stays together on the wire, the pause between them included; the pause after
    // the second lets other writers in.
    std::unique_lock pair(pairLock);
    for (int copy = 0; copy < 2; ++copy) {
        const bool ok = controlWrite(OutputRequest, mask, data, length);
        if (copy == 1)
            pair.unlock();
        sleep(50);
        if (!ok) {
            qDebug() << "Writing to the device failed!";
            return -1;
        }
    }
    return 1;
}

int Sensor::switchFilter(bool on)
{
    // The actuator holds its position: swinging it to where this process last put it would
    // only cost the 400 ms of the pulses (at start-up the calibration asks again at once).
    std::lock_guard hold(filterLock);
    if (filterPosition == int(on))
        return 1;
    const unsigned char mask = on ? 128 : 64;
    const bool rose = setGPIO(mask, 1) == 1;
    sleep(100);
    const bool fell = setGPIO(mask, 0) == 1;
    sleep(100);
    filterPosition = rose && fell ? int(on) : -1;
    return 1;
}

int Sensor::setExposure(int value)
{
    // The same value again changes nothing on the imager, and needs no time to settle.
    if (exposureWritten && exposure == value)
        return 1;
    const int r = usbCtrlWrite(11, static_cast<unsigned short>(value & 0xFFFF));
    exposure = value;
    exposureWritten = r == 1;
    sleep(100);
    return r;
}

int Sensor::getExposure()
{
    return exposure;
}

void Sensor::setLaser(bool on)
{
    usbCtrlWrite(27, on ? 0 : 2);
}

void Sensor::setMinimumWindow(int width, int height)
{
    minWindowWidth = width;
    minWindowHeight = height;
}

void Sensor::setHorizontalBlanking(int value)
{
    if (value <= 999)
        pendingBlanking = value;
}

void Sensor::setBlankingSync(int value)
{
    usbCtrlWrite(5, static_cast<unsigned short>(value));
    if (value < 1000 && value != 999)
        usbCtrlWrite(6, static_cast<unsigned short>(verticalBlanking));
    else if (value >= 1000)
        usbCtrlWrite(6, static_cast<unsigned short>(verticalBlanking + value - 999));
}

void Sensor::setRobustMode(int level)
{
    const int sum = minHorizontalBlanking + horizontalBlanking;
    int value;
    switch (level) {
    case 0:
        value = horizontalBlanking;
        printf("Full Speed, not so robust\n");
        break;
    case 1:
        value = sum * 3;
        printf("Medium Speed / Medium robust\n");
        break;
    case 2:
        value = sum * 6;
        printf("Very robust and quite slow\n");
        break;
    default:
        value = sum * 11;
        printf("Make it super robust and slow\n");
        break;
    }
    setBlankingSync(value);
    printf("Set robust level: %d\n", level);
    fflush(stdout);
}

double Sensor::blankingFactor()
{
    GS* gs = GS::instance();
    return gs->inputMode == 1 ? gs->blankingFactorStylus : gs->blankingFactorFinger;
}

void Sensor::waitForIdleThreads()
{
    // Idle answers of an earlier change are stale: only an answer to this request counts.
    if (!reconfiguring) {
        imageThreadIdle = false;
        usbThreadIdle = false;
        reconfiguring = true;
    }
    // Both threads answer within a frame or a 2 ms look; a fine poll keeps the change short.
    while (!imageThreadIdle || !usbThreadIdle)
        ::usleep(1000);
}

void Sensor::setBinning(int vertical, int horizontal)
{
    waitForIdleThreads();
    auto clamp = [](int v) { return v < 1 ? 1 : (v == 3 || v > 4) ? 4 : v; };
    binningY = clamp(vertical);
    binningX = clamp(horizontal);
    const int reg = (binningY >> 1) | ((binningX >> 1) * 4);
    qDebug().nospace() << "Binning: " << binningY << " x " << binningX;
    qDebug().nospace() << "Write Binning: " << reg;
    usbCtrlWrite(13, static_cast<unsigned short>(reg));
    setWindow(windowX, windowY, windowWidth, windowHeight);
    reconfiguring = false;
}

int Sensor::setWindow(int x, int y, int width, int height)
{
    waitForIdleThreads();
    qDebug().nospace() << "Proposed window size: " << x << ", " << y << ", " << width << ", " << height;
    x = std::max(x, 0);
    y = std::max(y, 0);
    if (width <= 9)
        width = 10;
    if (height <= 9)
        height = 10;

    const double factor = blankingFactor();
    qDebug() << "blankingFactor:" << factor;
    const long r = std::lround(factor);
    if (r == 0) {
        qDebug() << "Window Minima: " << minWindowWidth << minWindowHeight;
        width = std::max(width, minWindowWidth);
        height = std::max(height, minWindowHeight);
    }

    width = std::min(width, sensorWidth);
    height = std::min(height, sensorHeight);
    x = std::min(x, sensorWidth - 10);
    y = std::min(y, sensorHeight - 10);
    if (x + width > sensorWidth)
        x = sensorWidth - width;
    if (y + height > sensorHeight)
        y = sensorHeight - height;

    int b;
    if (r == 0 || r == -1) {
        b = static_cast<int>(209558880.0 / ((height + 57.0) * 50.0 * 8.0) - width);
        if (r == -1 && b > 999)
            b = static_cast<int>((b - 999) / 2.4 + 999);
        qDebug() << "computing hblanking on formula:" << b;
    } else if (r == -2) {
        b = 5000;
    } else if (r == -3) {
        b = 1000;
    } else {
        b = static_cast<int>(factor * (sensorWidth - width));
        qDebug() << "computing hblanking on factor:" << b << "factor is:" << factor;
    }
    horizontalBlanking = b;
    setBlankingSync(b);
    qDebug().nospace() << "Actual window size: " << x << ", " << y << ", " << width << ", " << height
                       << " hor. blanking: " << b;

    usbCtrlWrite(1, static_cast<unsigned short>(x + 1));
    usbCtrlWrite(2, static_cast<unsigned short>(y + 4));
    usbCtrlWrite(3, static_cast<unsigned short>(height));
    usbCtrlWrite(4, static_cast<unsigned short>(width));
    windowX = x;
    windowY = y;
    windowWidth = width;
    windowHeight = height;
    setXferSize(x / binningX, y / binningY, width / binningX, height / binningY);
    reconfiguring = false;
    sleep(50);
    return 1;
}

void Sensor::setXferSize(int x, int y, int width, int height)
{
    const int bytes = width * height;
    frameBytes = bytes;
    transferBytes = roundUpToPacket(bytes);
    rowBytes = width;
    rowCount = height;
    offsetX = x;
    offsetY = y;
    frameOffset = sensorWidth * y + x;
    printf("%d %d %d %d %d %d %d\n", transferBytes.load(), width, height, bytes, frameOffset.load(), x, y);
    fflush(stdout);

    // A smaller window leaves black around it, and no picture of the old geometry
    // survives. Transfers still in flight are owned by the device: they are marked stale
    // instead of cleared.
    if (asyncControl) {
        const size_t n = bufferBytes(this);
        memset(frame, 0, n);
        for (imageBuffer* b : imageBuffers)
            memset(b->data, 0, n);
    }
    ++geometry;
}

int Sensor::saveEEPROM(unsigned char*, int)
{
    return 1;
}

int Sensor::loadEEPROM(unsigned char*, int)
{
    return 1;
}

void Sensor::sleep(int ms)
{
    ::usleep(static_cast<useconds_t>(ms) * 1000);
}

void Sensor::beginXfer(xferContext* x)
{
    if (x->done != 1)
        return;
    x->received = 0;
    x->done = 0;
    if (x->transfer)
        libusb_free_transfer(x->transfer);
    x->transfer = libusb_alloc_transfer(0);
    x->geometry = geometry;
    libusb_fill_bulk_transfer(x->transfer, handle, endpoint, x->data, transferBytes, transferFinishedCB, x,
                              AsyncTimeout);
    const int r = libusb_submit_transfer(x->transfer);
    if (r == LIBUSB_ERROR_NO_DEVICE) {
        x->done = 1;
        stop();
    } else if (r < 0) {
        x->done = 1;
    }
}

void Sensor::cancelXfer(xferContext* x)
{
    if (x->transfer && x->done == 0)
        libusb_cancel_transfer(x->transfer);
}

void transferFinishedCB(libusb_transfer* t)
{
    auto* x = static_cast<xferContext*>(t->user_data);
    x->received = t->actual_length;
    x->done = 1;
}

namespace {

void raisePriority()
{
    sched_param param{};
    param.sched_priority = UsbThreadPriority;
    // Without the right to do so the system works at normal priority.
    if (pthread_setschedparam(pthread_self(), SCHED_RR, &param) != 0)
        qDebug() << "[CySensor] Error while setting thread priority to " << UsbThreadPriority;
}

// Transfer buffers, image buffers and the frame trade places, so either all of them are the
// kernel's mapped memory, which the device fills without the copy at each reap, or none: a
// kernel that cannot map it gets plain memory.
std::vector<unsigned char*> ringMemory(Sensor* s, size_t n)
{
    const size_t count = 2 * static_cast<size_t>(s->bufferCount) + 1;
    std::vector<unsigned char*> blocks;
    while (blocks.size() < count) {
        unsigned char* p = libusb_dev_mem_alloc(s->handle, n);
        if (!p)
            break;
        blocks.push_back(p);
    }
    s->deviceMemory = blocks.size() == count;
    if (!s->deviceMemory) {
        for (unsigned char* p : blocks)
            libusb_dev_mem_free(s->handle, p, n);
        blocks.clear();
        while (blocks.size() < count)
            blocks.push_back(static_cast<unsigned char*>(calloc(n, 1)));
    }
    return blocks;
}

void freeRingMemory(Sensor* s, unsigned char* p)
{
    if (s->deviceMemory)
        libusb_dev_mem_free(s->handle, p, bufferBytes(s));
    else
        free(p);
}

void allocateBuffers(Sensor* s)
{
    const size_t n = bufferBytes(s);
    std::vector<unsigned char*> blocks = ringMemory(s, n);
    s->frame = blocks.back();
    blocks.pop_back();
    for (int k = 0; k < s->bufferCount; ++k) {
        auto* b = new imageBuffer;
        b->data = blocks.back();
        blocks.pop_back();
        s->imageBuffers.push_back(b);
    }
    s->xfers = new xferContext*[static_cast<size_t>(s->bufferCount)];
    for (int k = 0; k < s->bufferCount; ++k) {
        auto* x = new xferContext;
        x->data = blocks.back();
        blocks.pop_back();
        s->xfers[k] = x;
        s->beginXfer(x);
    }
}

// Returns once every transfer has come back or the device gave up on them.
void drainTransfers(Sensor* s)
{
    for (int k = 0; k < s->bufferCount; ++k)
        s->cancelXfer(s->xfers[k]);
    for (int round = 0; round < 10; ++round) {
        bool pending = false;
        for (int k = 0; k < s->bufferCount; ++k)
            pending = pending || s->xfers[k]->done == 0;
        if (!pending)
            return;
        timeval tv{0, 100000};
        libusb_handle_events_timeout_completed(nullptr, &tv, nullptr);
    }
}

// The image thread must be off the buffers before they go. It keeps off them for good once
// it has seen stopping, which was set before this; reconfiguring is no help here, since a
// window change running on another thread clears it when it ends.
void parkImageThread(Sensor* s)
{
    s->imageThreadIdle = false;
    for (int round = 0; round < 100 && !s->imageThreadIdle; ++round)
        ::usleep(10000);
}

void releaseBuffers(Sensor* s)
{
    for (int k = 0; k < s->bufferCount; ++k) {
        xferContext* x = s->xfers[k];
        // A transfer that never came back still belongs to the library.
        if (x->done == 1) {
            if (x->transfer)
                libusb_free_transfer(x->transfer);
            freeRingMemory(s, x->data);
            delete x;
        }
    }
    delete[] s->xfers;
    s->xfers = nullptr;
    qDebug() << "Free buffers";
    for (imageBuffer* b : s->imageBuffers) {
        freeRingMemory(s, b->data);
        delete b;
    }
    freeRingMemory(s, s->frame);
    s->frame = nullptr;
    s->imageBuffers.clear();
}

} // namespace

void* readUsbAsync(void* sensor)
{
    auto* s = static_cast<Sensor*>(sensor);
    raisePriority();
    allocateBuffers(s);
    s->asyncControl = true;

    int i = 0;
    for (;;) {
        bool leave = false;
        do {
            if (s->stopping) {
                leave = true;
                break;
            }
            timeval tv{1, 0};
            libusb_handle_events_timeout_completed(nullptr, &tv, nullptr);
        } while (s->xfers[i]->done != 1);
        if (leave)
            break;

        xferContext* x = s->xfers[i];
        if (s->reconfiguring) {
            s->usbThreadIdle = true;
        } else {
            s->usbThreadIdle = false;
            const int received = x->received;
            if (x->geometry != s->geometry) {
                // Armed for a window that is gone: its picture must not survive.
            } else if (received < s->frameBytes) {
                qDebug() << "low data:" << received << " / " << s->frameBytes.load();
            } else {
                for (imageBuffer* b : s->imageBuffers) {
                    if (!b->free)
                        continue;
                    std::swap(b->data, x->data);
                    b->size = received;
                    b->free = false;
                    s->frameFilled.ring();
                    break;
                }
            }
        }
        s->beginXfer(s->xfers[(i + 1) % s->bufferCount]);
        i = (i + 1) % s->bufferCount;
    }

    qDebug() << "outside readusb loop";
    drainTransfers(s);
    parkImageThread(s);
    releaseBuffers(s);
    qDebug() << "Clear halts and close libusb";
    cyusb_clear_halt(s->handle, s->endpoint);
    cyusb_close();
    qDebug() << "[libusb] Sensor stopping done, all cleaned up!";
    if (s->stoppedCallback)
        s->stoppedCallback();
    return nullptr;
}

void* imgTransfer(void* sensor)
{
    auto* s = static_cast<Sensor*>(sensor);
    qDebug() << "Starting image transfer";
    long long lastSecond = static_cast<long long>(time(nullptr)) * 1000;
    int count = 0;
    for (;;) {
        // The ring exists once the USB thread has made it and opened the control path.
        if (s->asyncControl) {
            for (int k = 0; k < s->bufferCount; ++k) {
                if (s->reconfiguring || s->stopping) {
                    s->imageThreadIdle = true;
                    continue;
                }
                imageBuffer* b = s->imageBuffers[static_cast<size_t>(k)];
                if (b->free)
                    continue;
                s->imageThreadIdle = false;
                ++count;
                const long long now = static_cast<long long>(time(nullptr)) * 1000;
                if (now - lastSecond >= 1000) {
                    runBlankingRegulator(s, count);
                    if (GS::instance()->verboseLog)
                        qDebug() << "FPS: " << count << " data: " << b->size << "hblank:"
                                 << s->sentHorizontalBlanking.load() << "vblank:" << s->sentVerticalBlanking.load();
                    lastSecond = now;
                    count = 0;
                }
                copyWindow(s, b);
                s->imageCallback(s->callbackContext, s->frame);
                b->free = true;
            }
        }
        const int pending = s->pendingBlanking.exchange(-1);
        if (pending != -1)
            s->usbCtrlWrite(5, static_cast<unsigned short>(pending));
        // A filled buffer ends the wait at once; without one this is the old 2 ms look.
        s->frameFilled.wait(std::chrono::microseconds(2000));
    }
    return nullptr;
}
