// The emulated sensor through the libusb API. Its frames: enumeration, geometry set by the
// imager registers, where the scene's spots land, and what exposure, laser and filter change.
// The faults the scene asks for, and the libusb behaviour of transfers around them: short
// frames, silence and time-outs, dropped frames, a stalled endpoint, a slow consumer, the
// unplug, cancellation, and control transfers while another thread handles events. Its
// control side: the log of what it received, and the boot loaders and EEPROM of the
// bridges, fed with images that the tests build themselves.
#include "emulatorsession.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cmath>
#include <map>

namespace {

using ::testing::_;
using Log = std::vector<std::vector<std::string>>;

const std::string plainScene = "sensor 752 480\nfps 200\nlens none\nbackground 20\nnoise 0\nstamp on\n";

TEST(EmulatorDevice, IsListedWithItsIdsAndOneBulkInEndpoint)
{
    EmulatorSession s(plainScene, false);
    ASSERT_EQ(s.initResult, 0);
    libusb_device** list = nullptr;
    ASSERT_EQ(libusb_get_device_list(nullptr, &list), 1);
    libusb_device_descriptor d{};
    ASSERT_EQ(libusb_get_device_descriptor(list[0], &d), 0);
    EXPECT_EQ(std::tuple(d.idVendor, d.idProduct), std::tuple(0x1209, 0x7E1A));
    libusb_config_descriptor* cfg = nullptr;
    ASSERT_EQ(libusb_get_config_descriptor(list[0], 0, &cfg), 0);
    ASSERT_EQ(cfg->interface[0].altsetting[0].bNumEndpoints, 1);
    const libusb_endpoint_descriptor& ep = cfg->interface[0].altsetting[0].endpoint[0];
    EXPECT_EQ(std::tuple(ep.bEndpointAddress, ep.bmAttributes & 3, ep.wMaxPacketSize),
              std::tuple(0x82, int(LIBUSB_TRANSFER_TYPE_BULK), 512));
    libusb_free_config_descriptor(cfg);

    libusb_device_handle* h = nullptr;
    ASSERT_EQ(libusb_open(list[0], &h), 0);
    // Braces: the calls in their order.
    EXPECT_EQ((std::tuple{libusb_kernel_driver_active(h, 0), libusb_claim_interface(h, 0), libusb_get_device(h)}),
              std::tuple(0, 0, list[0]));
    libusb_close(h);
    libusb_free_device_list(list, 1);
    // A handle the bus never gave out is refused, not followed.
    EXPECT_LT(libusb_kernel_driver_active(nullptr, 0), 0);
}

TEST(EmulatorDevice, IdsComeFromTheEnvironmentWhenGiven)
{
    setenv("VELORA_EMU_DEVICE", "04b4:00f3", 1);
    EmulatorSession s(plainScene, false);
    unsetenv("VELORA_EMU_DEVICE");
    EXPECT_EQ(libusb_open_device_with_vid_pid(nullptr, 0x1209, 0x7E1A), nullptr);
    libusb_device_handle* h = libusb_open_device_with_vid_pid(nullptr, 0x04b4, 0x00f3);
    ASSERT_NE(h, nullptr);
    libusb_close(h);
}

TEST(EmulatorDevice, AppearsOnlyAfterItsDelay)
{
    {
        EmulatorSession late(plainScene + "appear 60\n", false);
        libusb_device** list = nullptr;
        EXPECT_EQ(libusb_get_device_list(nullptr, &list), 0);
        libusb_free_device_list(list, 1);
        EXPECT_EQ(libusb_open_device_with_vid_pid(nullptr, 0x1209, 0x7E1A), nullptr);
    }
    EmulatorSession soon(plainScene + "appear 0.2\n", false);
    ssize_t n = 0;
    for (int i = 0; i < 100 && n == 0; ++i) {
        libusb_device** list = nullptr;
        n = libusb_get_device_list(nullptr, &list);
        libusb_free_device_list(list, 1);
        if (n == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_EQ(n, 1);
}

TEST(EmulatorDevice, BadSceneFailsInitialisation)
{
    for (const char* bad : {"sensor 752\n", "stroke stylus 1 1 path 3;4\n", "wobble 3\n"})
        EXPECT_EQ(EmulatorSession(bad, false).initResult, LIBUSB_ERROR_OTHER) << bad;
}

TEST(EmulatorFrames, NothingFlowsBeforeTheStartRequestThenFullFramesOneTransferEachOnTheHandlingThread)
{
    EmulatorSession s(plainScene);
    ASSERT_NE(s.handle, nullptr);
    auto f = s.grab(752 * 480, 100);
    EXPECT_EQ(std::tuple(f.status, f.length, f.onHandlerThread), std::tuple(LIBUSB_TRANSFER_TIMED_OUT, 0, true));
    ASSERT_EQ(s.start(), 0);
    for (int i = 0, last = -1; i < 5; ++i, last = int(f.stamp())) {
        f = s.grab();
        ASSERT_EQ(f.status, LIBUSB_TRANSFER_COMPLETED);
        EXPECT_EQ(std::tuple(f.length, f.onHandlerThread, f.data[752 * 240 + 376]), std::tuple(752 * 480, true, 20));
        EXPECT_GT(int(f.stamp()), last);
    }
}

TEST(EmulatorFrames, WindowAndBinningRegistersSetTheGeometry)
{
    EmulatorSession s(plainScene);
    ASSERT_EQ(s.start(), 0);
    // Window 200 x 100 at (40, 30), then binned 2 x 4.
    for (const auto& [reg, value] : {std::pair{1, 41}, {2, 34}, {3, 100}, {4, 200}})
        s.writeRegister(reg, value);
    auto f = s.grab(20480);
    EXPECT_EQ(std::pair(f.status, f.length), std::pair(int(LIBUSB_TRANSFER_COMPLETED), 200 * 100));
    s.writeRegister(13, 1 | (2 << 2));  // binY 2, binX 4
    EXPECT_EQ(s.grab(5120).length, (200 / 4) * (100 / 2));
    // A transfer shorter than the frame is filled to its length.
    f = s.grab(1024);
    EXPECT_EQ(std::pair(f.status, f.length), std::pair(int(LIBUSB_TRANSFER_COMPLETED), 1024));
    s.finish();
    auto truth = s.lines("truth.txt");
    ASSERT_FALSE(truth.empty());
    // The last frame's place, size and binning.
    EXPECT_THAT(truth.back(), ::testing::ElementsAre("F", _, _, _, _, "40", "30", "200", "100", "4", "2"));
}

// The spot is drawn where the truth says, through the projective map and the lens.
TEST(EmulatorFrames, SpotsLandWhereTheTruthSaysThroughLensAndBinning)
{
    EmulatorSession s("sensor 752 480\nfps 200\nscreen 1000 500\ncorners 100 50 650 60 660 420 90 430\n"
                      "lens 600 600 376 240 -0.2 0.05\nbackground 10\nnoise 1\n"
                      "stroke stylus 0 100 size 6 brightness 200 path 0,0 1000,500\n");
    ASSERT_EQ(s.start(), 0);
    auto f = s.grab();
    ASSERT_EQ(f.length, 752 * 480);
    s.writeRegister(13, 1 | (1 << 2));
    auto binned = s.grab(376 * 240);
    ASSERT_EQ(binned.length, 376 * 240);
    s.finish();

    std::map<std::string, std::vector<std::string>> spotOfFrame;
    std::vector<std::string> frames;
    for (auto& l : s.lines("truth.txt"))
        if (l[0] == "S")
            spotOfFrame[l[1]] = l;
        else if (l[0] == "F" && l[4] != "0")
            frames.push_back(l[1]);
    ASSERT_GE(frames.size(), 2u);
    // The last two frames sent are the two taken (the device sends only into waiting transfers).
    auto first = spotOfFrame[frames[frames.size() - 2]];
    auto second = spotOfFrame[frames.back()];
    ASSERT_EQ(first.size(), 11u);
    auto [x, y] = brightest(f.data, 752);
    EXPECT_NEAR(x, std::stod(first[8]), 1.0);
    EXPECT_NEAR(y, std::stod(first[9]), 1.0);
    EXPECT_NEAR(std::stod(first[6]), std::stod(first[8]), 1e-6);  // no binning: image = sensor
    auto [bx, by] = brightest(binned.data, 376);
    EXPECT_NEAR(bx, std::stod(second[8]), 1.0);
    EXPECT_NEAR(by, std::stod(second[9]), 1.0);
    EXPECT_NEAR(std::stod(second[8]), (std::stod(second[6]) - 0.5) / 2, 1e-3);
}

TEST(EmulatorFrames, ScreenCornersAreSeenWhereTheSceneSaysDespiteTheLens)
{
    EmulatorSession s("fps 200\nscreen 1000 500\ncorners 100 50 650 60 660 420 90 430\n"
                      "lens 600 600 376 240 -0.2 0.05 0.001 -0.001\nstroke stylus 0 100 path 1000,500\n");
    s.start();
    s.grab();
    s.finish();
    const auto spots = s.lines("truth.txt", "S");
    ASSERT_FALSE(spots.empty()) << "no spot in the truth";
    EXPECT_NEAR(std::stod(spots[0][6]), 660, 1e-3);
    EXPECT_NEAR(std::stod(spots[0][7]), 420, 1e-3);
}

TEST(EmulatorFrames, ExposureScalesLaserLightsFingersFilterShowsPicture)
{
    EmulatorSession s("fps 200\nscreen 1000 500\ncorners 100 50 650 50 650 430 100 430\nlens none\nbackground 20\n"
                      "noise 0\npicture 60\nexposure 50\nstroke finger 0 100 size 12 brightness 150 path 500,250\n");
    s.start();
    const int centre = 752 * 240 + 375, outside = 752 * 10 + 10, inside = 752 * 100 + 200;
    auto f = s.grab();
    EXPECT_EQ(f.data[outside], 20);
    EXPECT_LT(f.data[centre], 30) << "finger drawn although the laser is off";

    s.writeRegister(27, 0);
    EXPECT_GT(s.grab().data[centre], 150);

    s.writeRegister(11, 100);
    EXPECT_EQ(s.grab().data[outside], 40);

    s.setOutput(128, 1);
    s.setOutput(128, 0);
    f = s.grab();
    EXPECT_EQ(f.data[outside], 40) << "outside the screen the picture adds nothing";
    EXPECT_EQ(f.data[inside], 160);
    s.setOutput(64, 1);
    s.setOutput(64, 0);
    EXPECT_EQ(s.grab().data[inside], 40);
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
        EmulatorSession s(plainScene + c.fault);
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
        EmulatorSession s(plainScene + c.fault);
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
    EmulatorSession s(plainScene + "fault stall 0\n");
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
    EmulatorSession s(plainScene + "fault timeout 0\nunplug 0.1\n");
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
    EmulatorSession s(plainScene);
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
    EmulatorSession s(plainScene);
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


TEST(EmulatorProtocol, LogsEveryRequestInOrder)
{
    EmulatorSession s("lens none\n");
    EXPECT_EQ(s.writeRegister(5, 999), 3);
    EXPECT_EQ(s.writeRegister(5, 999), 3);
    EXPECT_EQ(s.setOutput(64, 1), 1);
    unsigned char levels[3] = {0, 0, 0};
    EXPECT_EQ(libusb_control_transfer(s.handle, 0x40, 0xFC, 64, 0, levels, 3, 2000), 3);
    EXPECT_EQ(s.start(), 0);
    EXPECT_EQ(libusb_control_transfer(s.handle, 0x40, 0x99, 1, 2, nullptr, 0, 2000), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(s.requests(), (Log{{"sync", "reg", "5", "999"}, {"sync", "reg", "5", "999"}, {"sync", "out", "64", "1", "1"},
                                 {"sync", "out", "64", "0", "3"}, {"sync", "start"},
                                 {"sync", "other", "40", "99", "1", "2", "0"}}));
}

// Moves data to or from the device in pieces of at most `piece` bytes from `address` on, with
// the address's high half in the index; every piece must go through whole.
void inPieces(libusb_device_handle* h, uint8_t type, uint8_t request, uint32_t address,
              std::vector<unsigned char>& data, size_t piece)
{
    for (size_t at = 0; at < data.size(); at += piece) {
        const auto n = static_cast<uint16_t>(std::min(piece, data.size() - at));
        const uint32_t a = address + static_cast<uint32_t>(at);
        ASSERT_EQ(libusb_control_transfer(h, type, request, static_cast<uint16_t>(a), static_cast<uint16_t>(a >> 16),
                                          data.data() + at, n, 2000),
                  n)
            << "piece at " << at;
    }
}

std::vector<unsigned char> pattern(size_t size, unsigned char (*of)(size_t))
{
    std::vector<unsigned char> out(size);
    for (size_t i = 0; i < size; ++i)
        out[i] = of(i);
    return out;
}

// A program loaded in 16-byte pieces while the CPU is held in reset, as the FX2's loader does.
TEST(EmulatorProtocol, Fx2AcceptsADownloadWhileHeldInReset)
{
    EmulatorSession s("bridge fx2\nlens none\n");
    std::vector<unsigned char> program = pattern(40, [](size_t i) { return static_cast<unsigned char>(i * 7 + 3); });
    unsigned char one = 1, zero = 0;
    ASSERT_EQ(libusb_control_transfer(s.handle, 0x40, 0xA0, 0xE600, 0, &one, 1, 1000), 1);
    inPieces(s.handle, 0x40, 0xA0, 0x100, program, 16);
    ASSERT_EQ(libusb_control_transfer(s.handle, 0x40, 0xA0, 0xE600, 0, &zero, 1, 1000), 1);

    std::vector<unsigned char> back(program.size());
    inPieces(s.handle, 0xC0, 0xA0, 0x100, back, back.size());
    EXPECT_EQ(back, program);
    EXPECT_EQ(s.requests(), (Log{{"sync", "fx2-reset", "1"}, {"sync", "fx2-load", "100", "16"},
                                 {"sync", "fx2-load", "110", "16"}, {"sync", "fx2-load", "120", "8"},
                                 {"sync", "fx2-reset", "0"}}));
}

// An FX3 image built here: a section larger than one piece, then the entry point.
TEST(EmulatorProtocol, Fx3AcceptsAnImageInPiecesAndItsEntryPoint)
{
    EmulatorSession s("lens none\n");
    const uint32_t base = 0x40003000, entry = 0x40003010;
    std::vector<unsigned char> section = pattern(5000, [](size_t i) { return static_cast<unsigned char>(i ^ (i >> 8)); });
    inPieces(s.handle, 0x40, 0xA0, base, section, 4096);
    ASSERT_EQ(libusb_control_transfer(s.handle, 0x40, 0xA0, static_cast<uint16_t>(entry),
                                      static_cast<uint16_t>(entry >> 16), nullptr, 0, 1000), 0);
    std::vector<unsigned char> back(section.size());
    inPieces(s.handle, 0xC0, 0xA0, base, back, 4096);
    EXPECT_EQ(back, section);
    EXPECT_EQ(s.requests(), (Log{{"sync", "fx3-load", "40003000", "4096"}, {"sync", "fx3-load", "40004000", "904"},
                                 {"sync", "fx3-entry", "40003010"}}));
}

TEST(EmulatorProtocol, EepromKeepsPagesAndReadsThemBack)
{
    EmulatorSession s("lens none\n");
    std::vector<unsigned char> data = pattern(70, [](size_t i) { return static_cast<unsigned char>(200 - i); });
    inPieces(s.handle, 0x40, 0xF4, 0x1000, data, 32);
    std::vector<unsigned char> back(data.size());
    inPieces(s.handle, 0xC5, 0xF3, 0x1000, back, 32);
    EXPECT_EQ(back, data);
}

} // namespace
