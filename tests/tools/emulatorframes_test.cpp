// Frames of the emulated sensor through the libusb API: enumeration, geometry set by the
// imager registers, where the scene's spots land, and what exposure, laser and filter change.
#include "emulatorsession.h"

#include <gmock/gmock.h>

#include <cmath>
#include <map>

namespace {

using ::testing::_;

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
    for (auto& l : s.lines("truth.txt")) {
        if (l[0] == "S") {
            EXPECT_NEAR(std::stod(l[6]), 660, 1e-3);
            EXPECT_NEAR(std::stod(l[7]), 420, 1e-3);
            return;
        }
    }
    FAIL() << "no spot in the truth";
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

} // namespace
