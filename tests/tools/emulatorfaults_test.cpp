// Faults the scene asks for, and the libusb behaviour of transfers around them: short frames,
// silence and time-outs, dropped frames, a stalled endpoint, a slow consumer, the unplug,
// cancellation, and control transfers while another thread handles events.
#include "emulatorsession.h"

#include <atomic>

namespace {

std::string sceneWith(const std::string& extra)
{
    return "fps 200\nlens none\nnoise 0\nstamp on\n" + extra;
}

// One emulated bus per process: each session ends before the next begins.
TEST(EmulatorFaults, ShortTransfersAndSilenceEndFramesEarlyOrByTimeOut)
{
    const struct {
        const char* fault;
        unsigned timeoutMs;
        int status, length;
    } cases[] = {
        {"fault short 0 100 bytes 1000\n", 1500, LIBUSB_TRANSFER_COMPLETED, 1000},
        {"fault short 0 100\n", 1500, LIBUSB_TRANSFER_COMPLETED, 752 * 480 / 2},
        {"fault timeout 0 100\n", 100, LIBUSB_TRANSFER_TIMED_OUT, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fault);
        EmulatorSession s(sceneWith(c.fault));
        s.start();
        const auto f = s.grab(752 * 480, c.timeoutMs);
        EXPECT_EQ(std::pair(f.status, f.length), std::pair(c.status, c.length));
    }
}

// Frames lost at the device leave gaps in the numbering: every second one dropped, or those
// of the time the consumer dawdles over each completion, when no transfer waits at the
// device (25 ms at 200 frames a second is at least 5 frames).
TEST(EmulatorFaults, LostFramesLeaveGapsInTheNumbering)
{
    const struct {
        const char* fault;
        int frames;
        uint32_t gap;
        bool odd;
    } cases[] = {{"fault drop 0 100 every 2\n", 6, 2, true}, {"fault slow 0 ms 25\n", 4, 5, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fault);
        EmulatorSession s(sceneWith(c.fault));
        s.start();
        uint32_t last = 0;
        for (int i = 0; i < c.frames; ++i) {
            const auto f = s.grab();
            ASSERT_EQ(f.status, LIBUSB_TRANSFER_COMPLETED);
            if (c.odd) {
                EXPECT_EQ(f.stamp() % 2, 1u);
            }
            EXPECT_GE(f.stamp(), i > 0 ? last + c.gap : 0u);
            last = f.stamp();
        }
    }
}

TEST(EmulatorFaults, StalledEndpointAnswersStallUntilTheHaltIsCleared)
{
    EmulatorSession s(sceneWith("fault stall 0\n"));
    s.start();
    auto f = s.grab();
    EXPECT_EQ(std::pair(f.status, f.length), std::pair(int(LIBUSB_TRANSFER_STALL), 0));
    int transferred = -1;
    unsigned char buf[512];
    EXPECT_EQ(libusb_bulk_transfer(s.handle, 0x82, buf, sizeof buf, &transferred, 500), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(libusb_clear_halt(s.handle, 0x82), 0);
    EXPECT_EQ(s.grab().status, LIBUSB_TRANSFER_COMPLETED);
    EXPECT_EQ(libusb_bulk_transfer(s.handle, 0x82, buf, sizeof buf, &transferred, 500), 0);
    EXPECT_EQ(transferred, 512);
}

TEST(EmulatorFaults, UnplugEmptiesRunningTransfersThenRefusesSubmits)
{
    // A silent device keeps the transfer waiting (no time-out) until the unplug takes it.
    EmulatorSession s(sceneWith("fault timeout 0\nunplug 0.1\n"));
    s.start();
    auto f = s.grab(752 * 480, 0);
    ASSERT_EQ(std::tuple(f.status, f.length, f.onHandlerThread), std::tuple(int(LIBUSB_TRANSFER_NO_DEVICE), 0, true));
    EXPECT_EQ(s.grab().status, LIBUSB_ERROR_NO_DEVICE) << "submit after the unplug must fail";
    EXPECT_EQ(s.writeRegister(11, 10), LIBUSB_ERROR_NO_DEVICE);
    libusb_device** list = nullptr;
    EXPECT_EQ(libusb_get_device_list(nullptr, &list), 0);
    libusb_free_device_list(list, 1);
}

TEST(EmulatorFaults, CancelledTransferCompletesInTheNextEventCall)
{
    EmulatorSession s(sceneWith(""));
    std::vector<unsigned char> buf(752 * 480);
    struct Ctx {
        int calls = 0, status = -1;
    } ctx;
    libusb_transfer* t = libusb_alloc_transfer(0);
    libusb_fill_bulk_transfer(
        t, s.handle, 0x82, buf.data(), static_cast<int>(buf.size()),
        [](libusb_transfer* x) {
            auto* c = static_cast<Ctx*>(x->user_data);
            ++c->calls;
            c->status = x->status;
        },
        &ctx, 0);
    ASSERT_EQ(libusb_submit_transfer(t), 0);
    EXPECT_EQ(libusb_submit_transfer(t), LIBUSB_ERROR_BUSY);
    ASSERT_EQ(libusb_cancel_transfer(t), 0);
    EXPECT_EQ(ctx.calls, 0) << "callbacks run only inside event handling";
    timeval tv{1, 0};
    libusb_handle_events_timeout_completed(nullptr, &tv, nullptr);
    EXPECT_EQ(std::pair(ctx.calls, ctx.status), std::pair(1, int(LIBUSB_TRANSFER_CANCELLED)));
    EXPECT_EQ(libusb_cancel_transfer(t), LIBUSB_ERROR_NOT_FOUND);
    // With nothing pending the event call returns after its time-out.
    tv = {0, 20000};
    EXPECT_EQ(libusb_handle_events_timeout_completed(nullptr, &tv, nullptr), 0);
    EXPECT_EQ(ctx.calls, 1);
    libusb_free_transfer(t);
}

// As the capture thread sits in the event loop, other threads write registers: asynchronously,
// with the completion on the event thread, and synchronously, at the same time.
TEST(EmulatorFaults, ControlWritesWhileAnotherThreadHandlesEvents)
{
    EmulatorSession s(sceneWith(""));
    std::atomic<bool> stop{false};
    std::thread::id eventThread;
    std::thread loop([&] {
        eventThread = std::this_thread::get_id();
        while (!stop) {
            timeval tv{0, 50000};
            libusb_handle_events_timeout_completed(nullptr, &tv, nullptr);
        }
    });
    struct Ctx {
        std::atomic<int> done{0};
        int actual = -1;
        std::thread::id thread;
    } ctx;
    unsigned char buf[11] = {0, 0, 0, 0, 0, 0, 0, 0, 11, 0, 77};  // the setup, then register 11 gets 77
    libusb_fill_control_setup(buf, 0x40, 0xFE, 0, 0, 3);
    libusb_transfer* t = libusb_alloc_transfer(0);
    libusb_fill_control_transfer(
        t, s.handle, buf,
        [](libusb_transfer* x) {
            auto* c = static_cast<Ctx*>(x->user_data);
            c->actual = x->actual_length;
            c->thread = std::this_thread::get_id();
            c->done = 1;
        },
        &ctx, 1500);
    ASSERT_EQ(libusb_submit_transfer(t), 0);
    EXPECT_EQ(s.writeRegister(27, 0), 3);
    for (int i = 0; i < 400 && !ctx.done; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    stop = true;
    loop.join();
    ASSERT_EQ(std::tuple(ctx.done.load(), ctx.actual, ctx.thread), std::tuple(1, 3, eventThread));
    libusb_free_transfer(t);
    EXPECT_EQ(s.requests(),
              (std::vector<std::vector<std::string>>{{"async", "reg", "11", "77"}, {"sync", "reg", "27", "0"}}));
}

} // namespace
