#include "usbemulator.h"

#include <sys/time.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

struct UsbEmulator::TransferState {
    enum Phase { Idle, InFlight, Filling, Completed };
    Phase phase = Idle;
    bool sync = false;
    bool cancelRequested = false;
    bool hasDeadline = false;
    Clock::time_point deadline;
    std::vector<uint8_t>* frame = nullptr;  // rendered picture, copied out at the reap
};

namespace {
// Room for the emulator's own record in front of each transfer, as libusb keeps its private part.
constexpr size_t headerSize = 128;

std::string envOr(const char* name, const char* fallback = "")
{
    const char* v = std::getenv(name);
    return v ? v : fallback;
}
} // namespace

UsbEmulator& UsbEmulator::instance()
{
    // Never destroyed: the device thread may still run while the process exits.
    static UsbEmulator* emulator = new UsbEmulator;
    return *emulator;
}

UsbEmulator::TransferState* UsbEmulator::stateOf(libusb_transfer* t)
{
    return reinterpret_cast<TransferState*>(reinterpret_cast<char*>(t) - headerSize);
}

libusb_transfer* UsbEmulator::allocTransfer(int isoPackets)
{
    static_assert(sizeof(TransferState) <= headerSize, "transfer header too small");
    if (isoPackets < 0) {
        return nullptr;
    }
    size_t size = headerSize + sizeof(libusb_transfer)
        + static_cast<size_t>(isoPackets) * sizeof(libusb_iso_packet_descriptor);
    char* mem = static_cast<char*>(::operator new(size, std::align_val_t(16)));
    new (mem) TransferState;
    auto* t = reinterpret_cast<libusb_transfer*>(mem + headerSize);
    std::memset(static_cast<void*>(t), 0, size - headerSize);
    t->num_iso_packets = isoPackets;
    return t;
}

void UsbEmulator::freeTransfer(libusb_transfer* t)
{
    if (!t) {
        return;
    }
    TransferState* st = stateOf(t);
    if (st->phase != TransferState::Idle) {
        instance().forget(t);
    }
    if ((t->flags & LIBUSB_TRANSFER_FREE_BUFFER) && t->buffer) {
        std::free(t->buffer);
    }
    st->~TransferState();
    ::operator delete(reinterpret_cast<char*>(st), std::align_val_t(16));
}

// A transfer freed while the device still holds it: libusb leaves this undefined; here it is
// taken back so that nothing touches the memory later.
void UsbEmulator::forget(libusb_transfer* t)
{
    std::unique_lock<std::mutex> lock(mu);
    TransferState* st = stateOf(t);
    eventCv.wait(lock, [&] { return st->phase != TransferState::Filling; });
    inFlight.erase(std::remove(inFlight.begin(), inFlight.end(), t), inFlight.end());
    done.erase(std::remove(done.begin(), done.end(), t), done.end());
    if (st->frame) {
        pool.push_back(st->frame);
        st->frame = nullptr;
    }
    st->phase = TransferState::Idle;
}

int UsbEmulator::init(libusb_context** context)
{
    std::lock_guard<std::mutex> lock(mu);
    if (context) {
        *context = &theContext;
    }
    if (initCount++ > 0) {
        return LIBUSB_SUCCESS;
    }
    auto s = std::make_unique<Scene>();
    std::string path = envOr("VELORA_EMU_SCENE"), error;
    if (path.empty()) {
        *s = Scene::defaults();
    } else if (!Scene::load(path, *s, error)) {
        std::fprintf(stderr, "sensor emulator: %s\n", error.c_str());
        initCount = 0;
        return LIBUSB_ERROR_OTHER;
    }
    vendor = s->vendorId;
    product = s->productId;
    std::string ids = envOr("VELORA_EMU_DEVICE");
    unsigned v, p;
    if (!ids.empty() && std::sscanf(ids.c_str(), "%x:%x", &v, &p) == 2) {
        vendor = static_cast<uint16_t>(v);
        product = static_cast<uint16_t>(p);
    }
    // A process starts its files afresh and adds to them on later sessions.
    const char* mode = filesOpenedBefore ? "a" : "w";
    filesOpenedBefore = true;
    std::string logPath = envOr("VELORA_EMU_LOG"), truthPath = envOr("VELORA_EMU_TRUTH");
    logFile = logPath.empty() ? nullptr : std::fopen(logPath.c_str(), mode);
    truthFile = truthPath.empty() ? nullptr : std::fopen(truthPath.c_str(), mode);

    scene = std::move(s);
    device = std::make_unique<EmulatedDevice>(*scene, logFile);
    period = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / scene->fps));
    initTime = Clock::now();
    started = false;
    unplugged = false;
    stopping = false;
    interrupted = false;
    lastClearHalt = -1;
    frameNumber = 0;
    deviceThread = std::thread([this] { deviceLoop(); });
    // The emulator's own thread, told apart from the service's by tools/cputime.
    pthread_setname_np(deviceThread.native_handle(), "emu-device");
    return LIBUSB_SUCCESS;
}

void UsbEmulator::exit()
{
    std::unique_lock<std::mutex> lock(mu);
    if (initCount == 0 || --initCount > 0) {
        return;
    }
    stopping = true;
    deviceCv.notify_all();
    lock.unlock();
    deviceThread.join();
    lock.lock();
    screen.reset();
    projection.reset();
    users.clear();
    pressedSpots.clear();
    for (auto* list : {&inFlight, &done}) {
        for (libusb_transfer* t : *list) {
            TransferState* st = stateOf(t);
            if (st->frame) {
                pool.push_back(st->frame);
                st->frame = nullptr;
            }
            st->phase = TransferState::Idle;
        }
        list->clear();
    }
    for (auto* b : pool) {
        delete b;
    }
    pool.clear();
    for (auto* h : handles) {
        delete h;
    }
    handles.clear();
    renderer.reset();
    device.reset();
    scene.reset();
    if (logFile) {
        std::fclose(logFile);
        logFile = nullptr;
    }
    if (truthFile) {
        writeTruth();
        std::fclose(truthFile);
        truthFile = nullptr;
    }
    eventCv.notify_all();
}

bool UsbEmulator::listed(Clock::time_point now) const
{
    return scene && !unplugged && sinceInit(now) >= scene->appearAfter;
}

double UsbEmulator::sinceInit(Clock::time_point t) const
{
    return std::chrono::duration<double>(t - initTime).count();
}

double UsbEmulator::sinceStart(Clock::time_point t) const
{
    return started ? std::chrono::duration<double>(t - streamStart).count() : -1;
}

ssize_t UsbEmulator::deviceList(libusb_device*** list)
{
    std::lock_guard<std::mutex> lock(mu);
    if (!scene) {
        return LIBUSB_ERROR_OTHER;
    }
    auto** l = static_cast<libusb_device**>(std::calloc(2, sizeof(libusb_device*)));
    if (!l) {
        return LIBUSB_ERROR_NO_MEM;
    }
    ssize_t n = 0;
    if (listed(Clock::now())) {
        l[n++] = &theDevice;
    }
    *list = l;
    return n;
}

int UsbEmulator::open(libusb_device* dev, libusb_device_handle** handle)
{
    std::lock_guard<std::mutex> lock(mu);
    if (!isDevice(dev) || !handle) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    if (!listed(Clock::now())) {
        return LIBUSB_ERROR_NO_DEVICE;
    }
    *handle = new libusb_device_handle{dev};
    handles.push_back(*handle);
    return LIBUSB_SUCCESS;
}

libusb_device_handle* UsbEmulator::openByIds(uint16_t vendorId, uint16_t productId)
{
    if (vendorId != vendor || productId != product) {
        return nullptr;
    }
    libusb_device_handle* h = nullptr;
    return open(&theDevice, &h) == LIBUSB_SUCCESS ? h : nullptr;
}

void UsbEmulator::close(libusb_device_handle* handle)
{
    std::lock_guard<std::mutex> lock(mu);
    auto it = std::find(handles.begin(), handles.end(), handle);
    if (it != handles.end()) {
        handles.erase(it);
        delete handle;
    }
}

int UsbEmulator::check(libusb_device_handle* handle)
{
    std::lock_guard<std::mutex> lock(mu);
    return checkLocked(handle);
}

int UsbEmulator::checkLocked(libusb_device_handle* handle)
{
    if (!handle || std::find(handles.begin(), handles.end(), handle) == handles.end()) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    return unplugged ? LIBUSB_ERROR_NO_DEVICE : LIBUSB_SUCCESS;
}

int UsbEmulator::descriptor(uint8_t type, uint8_t index, uint8_t* out, int length)
{
    std::lock_guard<std::mutex> lock(mu);
    if (!scene) {
        return LIBUSB_ERROR_OTHER;
    }
    Scene s = *scene;
    s.vendorId = vendor;
    s.productId = product;
    return EmulatedDevice::descriptor(s, type, index, out, length);
}

const Scene::Fault* UsbEmulator::activeFault(Scene::FaultType type, double t) const
{
    for (const auto& f : scene->faults) {
        if (f.type == type && t >= f.start && t < f.start + f.duration) {
            return &f;
        }
    }
    return nullptr;
}

void UsbEmulator::noteStart(Clock::time_point now)
{
    if (!started && device->streaming()) {
        started = true;
        streamStart = now;
        nextTick = now + period;
        lastTruthFlush = now;
        startWatchingScreen();
        deviceCv.notify_all();
    }
}

void UsbEmulator::startWatchingScreen()
{
    if (screen || (!scene->projector && scene->users.empty())) {
        return;
    }
    std::vector<ScreenCapture::ColourMatch> colours;
    for (const auto& u : scene->users) {
        colours.push_back({u.target, u.tolerance});
    }
    screen = std::make_unique<ScreenCapture>(colours, scene->captureRate, scene->screenWidth, scene->screenHeight);
    // The latency back, and a second of slack for a busy machine.
    screen->keepFor(std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(scene->projectorLatency + 1.0)));
    projection = std::make_unique<ScreenProjection>(scene->screenWidth, scene->screenHeight, scene->corners,
                                                    scene->lens);
    for (size_t i = 0; i < scene->users.size(); ++i) {
        users.emplace_back(scene->users[i], scene->seed + static_cast<unsigned>(i));
    }
    nextPressId = 1000001;
}

void UsbEmulator::updateUsers(double t, const ScreenCapture::Look* look)
{
    pressedSpots.clear();
    for (size_t i = 0; i < users.size(); ++i) {
        EmulatedUser& u = users[i];
        const ScreenCapture::Sighting* seen = look ? &look->sightings[i] : nullptr;
        const EmulatedUser::Change change = u.update(t, seen, nextPressId);
        const EmulatedUser::Press& p = u.press();
        if (change == EmulatedUser::Change::Pressed && truthFile) {
            double sx, sy;
            projection->toSensor(p.x, p.y, sx, sy);
            std::fprintf(truthFile, "P %.6f %d %s %.3f %.3f %.3f %.3f %.3f %.3f\n", t, p.id,
                         u.settings().kind == Scene::SpotKind::Stylus ? "stylus" : "finger", p.targetX, p.targetY,
                         p.x, p.y, sx, sy);
        } else if (change == EmulatedUser::Change::Released && truthFile) {
            std::fprintf(truthFile, "R %.6f %d\n", t, p.id);
        }
        if (u.pressing()) {
            SpotTruth s{};
            s.id = p.id;
            s.kind = u.settings().kind;
            s.screenX = p.x;
            s.screenY = p.y;
            s.size = u.settings().size;
            s.brightness = u.settings().brightness;
            pressedSpots.push_back(s);
        }
    }
}

int UsbEmulator::controlSync(libusb_device_handle* handle, uint8_t type, uint8_t request, uint16_t value,
                             uint16_t index, unsigned char* data, uint16_t length)
{
    std::lock_guard<std::mutex> lock(mu);
    if (int r = checkLocked(handle)) {
        return r;
    }
    auto now = Clock::now();
    int r = device->control(type, request, value, index, data, length, false, sinceInit(now));
    noteStart(now);
    return r;
}

int UsbEmulator::clearHalt(libusb_device_handle* handle, unsigned char endpoint)
{
    std::lock_guard<std::mutex> lock(mu);
    if (int r = checkLocked(handle)) {
        return r;
    }
    if (endpoint != streamEndpoint()) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    auto now = Clock::now();
    lastClearHalt = sinceStart(now);
    if (logFile) {
        std::fprintf(logFile, "%.6f sync clear-halt %x\n", sinceInit(now), endpoint);
        std::fflush(logFile);
    }
    return LIBUSB_SUCCESS;
}

void UsbEmulator::complete(libusb_transfer* t, libusb_transfer_status status, int actual)
{
    TransferState* st = stateOf(t);
    if (status == LIBUSB_TRANSFER_COMPLETED && (t->flags & LIBUSB_TRANSFER_SHORT_NOT_OK) && actual < t->length) {
        status = LIBUSB_TRANSFER_ERROR;
    }
    t->status = status;
    t->actual_length = actual;
    st->phase = TransferState::Completed;
    st->hasDeadline = false;
    if (!st->sync) {
        done.push_back(t);
    }
    eventCv.notify_all();
}

int UsbEmulator::submit(libusb_transfer* t)
{
    if (!t) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    std::lock_guard<std::mutex> lock(mu);
    TransferState* st = stateOf(t);
    if (int r = checkLocked(t->dev_handle)) {
        return r;
    }
    if (st->phase != TransferState::Idle) {
        return LIBUSB_ERROR_BUSY;
    }
    auto now = Clock::now();
    st->cancelRequested = false;
    if (t->type == LIBUSB_TRANSFER_TYPE_CONTROL) {
        if (t->length < static_cast<int>(LIBUSB_CONTROL_SETUP_SIZE) || !t->buffer) {
            return LIBUSB_ERROR_INVALID_PARAM;
        }
        auto* setup = reinterpret_cast<libusb_control_setup*>(t->buffer);
        uint16_t wLength = libusb_le16_to_cpu(setup->wLength);
        if (static_cast<int>(LIBUSB_CONTROL_SETUP_SIZE) + wLength > t->length) {
            return LIBUSB_ERROR_INVALID_PARAM;
        }
        int r = device->control(setup->bmRequestType, setup->bRequest, libusb_le16_to_cpu(setup->wValue),
                                libusb_le16_to_cpu(setup->wIndex), t->buffer + LIBUSB_CONTROL_SETUP_SIZE, wLength,
                                true, sinceInit(now));
        noteStart(now);
        st->phase = TransferState::InFlight;
        complete(t, r >= 0 ? LIBUSB_TRANSFER_COMPLETED : LIBUSB_TRANSFER_STALL, r >= 0 ? r : 0);
        return LIBUSB_SUCCESS;
    }
    if (t->type != LIBUSB_TRANSFER_TYPE_BULK) {
        return LIBUSB_ERROR_NOT_SUPPORTED;
    }
    if (t->endpoint != streamEndpoint()) {
        return LIBUSB_ERROR_NOT_FOUND;
    }
    if (t->length < 0) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    st->phase = TransferState::InFlight;
    st->hasDeadline = t->timeout > 0;
    st->deadline = now + std::chrono::milliseconds(t->timeout);
    inFlight.push_back(t);
    deviceCv.notify_all();
    return LIBUSB_SUCCESS;
}

int UsbEmulator::cancel(libusb_transfer* t)
{
    if (!t) {
        return LIBUSB_ERROR_INVALID_PARAM;
    }
    std::lock_guard<std::mutex> lock(mu);
    TransferState* st = stateOf(t);
    if (st->phase == TransferState::InFlight) {
        inFlight.erase(std::remove(inFlight.begin(), inFlight.end(), t), inFlight.end());
        complete(t, LIBUSB_TRANSFER_CANCELLED, 0);
        return LIBUSB_SUCCESS;
    }
    if (st->phase == TransferState::Filling) {
        st->cancelRequested = true;
        return LIBUSB_SUCCESS;
    }
    return LIBUSB_ERROR_NOT_FOUND;
}

void UsbEmulator::interruptEvents()
{
    std::lock_guard<std::mutex> lock(mu);
    interrupted = true;
    eventCv.notify_all();
}

unsigned char* UsbEmulator::deviceMemory(libusb_device_handle* handle, size_t length)
{
    std::lock_guard<std::mutex> lock(mu);
    if (checkLocked(handle) || length == 0)
        return nullptr;
    auto* block = static_cast<unsigned char*>(std::calloc(length, 1));
    if (block)
        mapped[block] = length;
    return block;
}

int UsbEmulator::freeDeviceMemory(unsigned char* block)
{
    std::lock_guard<std::mutex> lock(mu);
    if (mapped.erase(block) == 0)
        return LIBUSB_ERROR_INVALID_PARAM;
    std::free(block);
    return LIBUSB_SUCCESS;
}

int UsbEmulator::handleEvents(const timeval* timeout, int* completed)
{
    thread_local std::vector<libusb_transfer*> batch;
    auto wait = timeout ? std::chrono::seconds(timeout->tv_sec) + std::chrono::microseconds(timeout->tv_usec)
                        : std::chrono::microseconds(std::chrono::seconds(60));
    int delayMs = 0;
    {
        std::unique_lock<std::mutex> lock(mu);
        auto deadline = Clock::now() + wait;
        for (;;) {
            if (completed && *completed) {
                return LIBUSB_SUCCESS;
            }
            if (interrupted) {
                interrupted = false;
                return LIBUSB_ERROR_INTERRUPTED;
            }
            if (!done.empty()) {
                break;
            }
            if (eventCv.wait_until(lock, deadline) == std::cv_status::timeout && done.empty()) {
                return LIBUSB_SUCCESS;
            }
        }
        batch.assign(done.begin(), done.end());
        done.clear();
        if (scene && started) {
            if (const Scene::Fault* slow = activeFault(Scene::FaultType::Slow, sinceStart(Clock::now()))) {
                delayMs = slow->delayMs;
            }
        }
    }
    for (libusb_transfer* t : batch) {
        if (delayMs > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
        }
        TransferState* st = stateOf(t);
        // Into plain memory data is copied at the reap, as with the kernel's USB file system.
        if (st->frame && t->actual_length > 0) {
            std::memcpy(t->buffer, st->frame->data(), static_cast<size_t>(t->actual_length));
        }
        {
            std::lock_guard<std::mutex> lock(mu);
            if (st->frame) {
                pool.push_back(st->frame);
                st->frame = nullptr;
            }
            st->phase = TransferState::Idle;
        }
        const bool freeIt = t->flags & LIBUSB_TRANSFER_FREE_TRANSFER;
        if (t->callback) {
            t->callback(t);
        }
        if (freeIt) {
            freeTransfer(t);
        }
    }
    batch.clear();
    return LIBUSB_SUCCESS;
}

int UsbEmulator::bulkSync(libusb_device_handle* handle, unsigned char endpoint, unsigned char* data, int length,
                          int* transferred, unsigned int timeout)
{
    libusb_transfer* t = allocTransfer(0);
    libusb_fill_bulk_transfer(t, handle, endpoint, data, length, nullptr, nullptr, timeout);
    TransferState* st = stateOf(t);
    st->sync = true;
    int r = submit(t);
    if (r == LIBUSB_SUCCESS) {
        std::unique_lock<std::mutex> lock(mu);
        eventCv.wait(lock, [&] { return st->phase == TransferState::Completed; });
        if (st->frame) {
            std::memcpy(data, st->frame->data(), static_cast<size_t>(t->actual_length));
            pool.push_back(st->frame);
            st->frame = nullptr;
        }
        st->phase = TransferState::Idle;
        if (transferred) {
            *transferred = t->actual_length;
        }
        switch (t->status) {
        case LIBUSB_TRANSFER_COMPLETED: r = LIBUSB_SUCCESS; break;
        case LIBUSB_TRANSFER_TIMED_OUT: r = LIBUSB_ERROR_TIMEOUT; break;
        case LIBUSB_TRANSFER_STALL: r = LIBUSB_ERROR_PIPE; break;
        case LIBUSB_TRANSFER_NO_DEVICE: r = LIBUSB_ERROR_NO_DEVICE; break;
        case LIBUSB_TRANSFER_OVERFLOW: r = LIBUSB_ERROR_OVERFLOW; break;
        default: r = LIBUSB_ERROR_IO; break;
        }
    }
    freeTransfer(t);
    return r;
}

std::vector<uint8_t>* UsbEmulator::takeBuffer(size_t bytes)
{
    std::vector<uint8_t>* b;
    if (pool.empty()) {
        b = new std::vector<uint8_t>;
    } else {
        b = pool.back();
        pool.pop_back();
    }
    if (b->size() < bytes) {
        b->resize(bytes);
    }
    return b;
}

void UsbEmulator::serviceTimers(Clock::time_point now)
{
    if (started && !unplugged && scene->unplugAt >= 0 && sinceStart(now) >= scene->unplugAt) {
        unplugged = true;
        while (!inFlight.empty()) {
            libusb_transfer* t = inFlight.front();
            inFlight.pop_front();
            complete(t, LIBUSB_TRANSFER_NO_DEVICE, 0);
        }
        if (truthFile) {
            writeTruth();
            std::fflush(truthFile);
        }
    }
    for (auto it = inFlight.begin(); it != inFlight.end();) {
        TransferState* st = stateOf(*it);
        if (st->hasDeadline && st->deadline <= now) {
            libusb_transfer* t = *it;
            it = inFlight.erase(it);
            complete(t, LIBUSB_TRANSFER_TIMED_OUT, 0);
        } else {
            ++it;
        }
    }
}

void UsbEmulator::deviceLoop()
{
    std::unique_lock<std::mutex> lock(mu);
    while (!stopping) {
        auto now = Clock::now();
        serviceTimers(now);
        if (started && !unplugged && now >= nextTick) {
            frameTick(lock, now);
            continue;
        }
        auto wake = now + std::chrono::milliseconds(200);
        if (started && !unplugged) {
            wake = std::min(wake, nextTick);
            if (scene->unplugAt >= 0) {
                wake = std::min(wake, streamStart + std::chrono::duration_cast<Clock::duration>(
                                                         std::chrono::duration<double>(scene->unplugAt)));
            }
        }
        for (libusb_transfer* t : inFlight) {
            if (stateOf(t)->hasDeadline) {
                wake = std::min(wake, stateOf(t)->deadline);
            }
        }
        deviceCv.wait_until(lock, wake);
    }
}

void UsbEmulator::frameTick(std::unique_lock<std::mutex>& lock, Clock::time_point now)
{
    writeTruth();
    const uint64_t frame = frameNumber++;
    const double t = sinceStart(nextTick);
    // What the projector shows and the users see: the screen as it was a latency ago.
    std::shared_ptr<const ScreenCapture::Look> look;
    if (screen) {
        look = screen->seenAt(Clock::now() - std::chrono::duration_cast<Clock::duration>(
                                                  std::chrono::duration<double>(scene->projectorLatency)));
        updateUsers(t, look.get());
    }
    nextTick += period;
    if (nextTick < now) {
        // Fell behind (the machine was busy): the sensor does not wait, those frames are gone.
        auto behind = (now - nextTick) / period + 1;
        nextTick += behind * period;
        frameNumber += static_cast<uint64_t>(behind);
    }

    const Scene::Fault* stall = activeFault(Scene::FaultType::Stall, t);
    if (stall && stall->start > lastClearHalt) {
        while (!inFlight.empty()) {
            libusb_transfer* x = inFlight.front();
            inFlight.pop_front();
            complete(x, LIBUSB_TRANSFER_STALL, 0);
        }
        return;
    }
    if (activeFault(Scene::FaultType::Timeout, t)) {
        return;
    }
    if (const Scene::Fault* drop = activeFault(Scene::FaultType::Drop, t); drop && frame % drop->every == 0) {
        return;
    }
    if (inFlight.empty()) {
        return;
    }
    libusb_transfer* x = inFlight.front();
    inFlight.pop_front();
    TransferState* st = stateOf(x);
    st->phase = TransferState::Filling;

    const FrameGeometry g = device->geometry();
    RenderState rs;
    rs.time = t;
    rs.frame = frame;
    rs.exposure = device->exposure();
    rs.laserOn = scene->laser == Scene::LaserMode::Follow ? device->laserOn() : scene->laser == Scene::LaserMode::On;
    rs.pictureShown = device->pictureShown();
    if (scene->projector && rs.pictureShown) {
        // Before the first look the projector has nothing to show yet.
        rs.screen = look.get();
        rs.pictureShown = look != nullptr;
    }
    int bytes = g.bytes();
    if (const Scene::Fault* shortFault = activeFault(Scene::FaultType::Short, t)) {
        bytes = shortFault->bytes >= 0 ? std::min(bytes, shortFault->bytes) : bytes / 2;
    }
    const int actual = std::max(0, std::min(bytes, x->length));
    auto block = mapped.find(x->buffer);
    // The device writes no further than the transfer reaches: a shorter one goes by the copy.
    const bool direct = block != mapped.end() && x->length >= g.bytes() && block->second >= static_cast<size_t>(g.bytes());
    std::vector<uint8_t>* buffer = direct ? nullptr : takeBuffer(static_cast<size_t>(std::max(1, g.bytes())));
    unsigned char* target = direct ? x->buffer : buffer->data();

    lock.unlock();
    // Built on the first frame, not at init: a session that only loads firmware or reads
    // registers (the fuzz targets open thousands) never pays for the noise pattern.
    if (!renderer) {
        renderer = std::make_unique<FrameRenderer>(*scene);
    }
    // The users' spots need the frame's geometry and laser; the renderer fills in the rest.
    for (auto& p : pressedSpots) {
        p = renderer->spotAt(p.id, p.kind, p.screenX, p.screenY, p.size, p.brightness, g, rs.laserOn);
    }
    rs.extraSpots = &pressedSpots;
    renderer->render(target, g, rs, spots);
    lock.lock();

    // The completion instant is the hand-over itself.
    const auto doneAt = Clock::now();
    if (st->cancelRequested || unplugged) {
        if (buffer)
            pool.push_back(buffer);
        complete(x, st->cancelRequested ? LIBUSB_TRANSFER_CANCELLED : LIBUSB_TRANSFER_NO_DEVICE, 0);
    } else {
        st->frame = buffer;
        complete(x, LIBUSB_TRANSFER_COMPLETED, actual);
    }
    // The ground truth is this emulator's own log: it is written at the next tick, so that
    // neither its time nor its processor share falls in the consumer's handling of the frame.
    pendingTruth = PendingTruth{true, frame, t,
                                std::chrono::duration_cast<std::chrono::nanoseconds>(doneAt.time_since_epoch()).count(),
                                actual, g};
}

void UsbEmulator::writeTruth()
{
    if (!truthFile || !pendingTruth.due) {
        return;
    }
    const PendingTruth& p = pendingTruth;
    pendingTruth.due = false;
    const unsigned long long frame = p.frame;
    std::fprintf(truthFile, "F %llu %.6f %lld %d %d %d %d %d %d %d\n", frame, p.t, static_cast<long long>(p.monoNs),
                 p.bytes, p.g.x, p.g.y, p.g.width, p.g.height, p.g.binX, p.g.binY);
    for (const auto& s : spots) {
        std::fprintf(truthFile, "S %llu %d %s %.3f %.3f %.3f %.3f %.3f %.3f %d\n", frame, s.id,
                     s.kind == Scene::SpotKind::Stylus ? "stylus" : "finger", s.screenX, s.screenY, s.sensorX,
                     s.sensorY, s.imageX, s.imageY, s.lit ? 1 : 0);
    }
    auto now = Clock::now();
    if (now - lastTruthFlush > std::chrono::milliseconds(250)) {
        std::fflush(truthFile);
        lastTruthFlush = now;
    }
}
