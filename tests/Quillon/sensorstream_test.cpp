#include "fakelibusb.h"

#include "cyusb.h"
#include "globalsettings.h"
#include "sensor.h"

#include <gtest/gtest.h>

#include <QDir>

#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <initializer_list>
#include <fstream>
#include <mutex>
#include <vector>

namespace {

constexpr int W = 752;
constexpr int H = 480;

// What the frame callback saw: a few pixels of every frame, in order.
struct Seen {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<std::vector<unsigned char>> frames;
    bool gateOpen = true;

    void waitFor(size_t count)
    {
        std::unique_lock<std::mutex> hold(lock);
        changed.wait(hold, [&] { return frames.size() >= count; });
    }
    // A copy: the callback may be appending meanwhile.
    std::vector<unsigned char> frame(size_t index)
    {
        std::lock_guard<std::mutex> hold(lock);
        return frames.at(index);
    }
    void open()
    {
        std::lock_guard<std::mutex> hold(lock);
        gateOpen = true;
        changed.notify_all();
    }
};

void onFrame(void* context, unsigned char* frame)
{
    auto* s = static_cast<Seen*>(context);
    std::unique_lock<std::mutex> hold(s->lock);
    s->frames.emplace_back(frame, frame + W * H);
    s->changed.notify_all();
    s->changed.wait(hold, [&] { return s->gateOpen; });
}

void onStopped()
{
    fprintf(stderr, "stopped callback\n");
    _exit(0);
}

std::unique_ptr<Sensor> startSensor(Seen* context)
{
    const std::string conf = QDir::tempPath().toStdString() + "/cyusb.conf";
    std::ofstream(conf) << "<VPD>\n1209 7e1a VeloraSensor\n</VPD>\n";
    static std::string confPath;
    confPath = conf;
    GS::instance()->inputMode = 0;
    GS::instance()->blankingFactorFinger = 3.5;
    auto sensor = std::make_unique<Sensor>(confPath.c_str(), "/nonexistent/sensor.conf");
    EXPECT_EQ(sensor->getSensorCount(), 1);
    EXPECT_EQ(sensor->connect(0), 1);
    sensor->start(context, onFrame, onStopped, W, H);
    return sensor;
}

std::vector<unsigned char> filled(int bytes, unsigned char value)
{
    return std::vector<unsigned char>(static_cast<size_t>(bytes), value);
}

} // namespace

namespace {

void framesReachTheCallbackWithTheWindowPlacedInTheFullFrame()
{
    Seen s;
    auto sensor = startSensor(&s);
    fakeusb::pushFrame(filled(W * H, 9));
    s.waitFor(1);
    if (s.frame(0)[0] != 9 || s.frame(0)[W * H - 1] != 9)
        _exit(2);
    // Changing the window waits for both threads; a stalled stream answers by time-out.
    sensor->setWindow(100, 50, 200, 100);
    const int frameBytes = sensor->frameBytes;
    // Transfers armed for the old window drop what they bring; one more than can be in flight.
    for (int k = 0; k <= sensor->bufferCount; ++k)
        fakeusb::pushFrame(filled(frameBytes, 7));
    s.waitFor(2);
    const auto f = s.frame(1);
    const bool inside = f[50 * W + 100] == 7 && f[149 * W + 299] == 7;
    const bool outside = f[50 * W + 99] == 0 && f[49 * W + 100] == 0 && f[150 * W + 299] == 0
        && f[149 * W + 300] == 0;
    _exit(inside && outside && frameBytes == 20000 ? 0 : 3);
}

void shortFramesAreDropped()
{
    Seen s;
    auto sensor = startSensor(&s);
    fakeusb::pushFrame(filled(W * H / 2, 5));
    fakeusb::pushFrame(filled(W * H + 100, 6)); // more than a frame, as far as the transfer holds
    s.waitFor(1);
    _exit(s.frame(0)[0] == 6 && s.frame(0)[W * H - 1] == 6 ? 0 : 2);
}

void newestFramesAreLostWhenAllImageBuffersAreFull()
{
    Seen s;
    s.gateOpen = false; // the callback holds on to the first frame
    auto sensor = startSensor(&s);
    const int count = 14;
    for (int k = 1; k <= count; ++k)
        fakeusb::pushFrame(filled(W * H, static_cast<unsigned char>(k)));
    fakeusb::waitFramesTaken(count);
    s.waitFor(1);
    s.open();
    s.waitFor(4);
    std::vector<int> order;
    {
        std::lock_guard<std::mutex> hold(s.lock);
        for (const auto& f : s.frames)
            order.push_back(f[0]);
    }
    // The ring is scanned in index order, so the four that got a buffer may come in any order.
    bool ok = order.size() >= 4 && std::is_permutation(order.begin(), order.begin() + 4, std::begin({1, 2, 3, 4}));
    // Frame k is taken only after frame k - 1 was served: 5 to 13 found the ring full.
    for (size_t i = 4; i < order.size(); ++i)
        ok = ok && order[i] > 13;
    _exit(ok ? 0 : 2);
}

void unplugCleansUpAndCallsTheStoppedCallback()
{
    Seen s;
    auto sensor = startSensor(&s);
    fakeusb::pushFrame(filled(W * H, 1));
    s.waitFor(1);
    fakeusb::unplug();
    for (;;)
        pause();
}

void streamsAtNormalPriorityWithoutTheRightToRaiseIt()
{
    // Give up the right to real-time scheduling for this process.
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2] = {};
    syscall(SYS_capget, &header, data);
    data[0].effective &= ~(1u << CAP_SYS_NICE);
    data[0].permitted &= ~(1u << CAP_SYS_NICE);
    syscall(SYS_capset, &header, data);
    rlimit none{0, 0};
    setrlimit(RLIMIT_RTPRIO, &none);

    Seen s;
    auto sensor = startSensor(&s);
    fakeusb::pushFrame(filled(W * H, 4));
    s.waitFor(1);
    _exit(s.frame(0)[0] == 4 ? 0 : 2);
}

} // namespace

// The capture threads never end by design, so every case runs in a process of its own.
class SensorStream : public ::testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(SensorStream, FramesReachTheCallbackWithTheWindowPlacedInTheFullFrame)
{
    EXPECT_EXIT(framesReachTheCallbackWithTheWindowPlacedInTheFullFrame(),
        ::testing::ExitedWithCode(0), "Actual window size: 100, 50, 200, 100");
}

TEST_F(SensorStream, ShortFramesAreDroppedAndLongerOnesAccepted)
{
    EXPECT_EXIT(shortFramesAreDropped(), ::testing::ExitedWithCode(0), "low data: 180480  /  360960");
}

TEST_F(SensorStream, NewestFramesAreLostWhenAllImageBuffersAreFull)
{
    EXPECT_EXIT(newestFramesAreLostWhenAllImageBuffersAreFull(),
        ::testing::ExitedWithCode(0), "");
}

TEST_F(SensorStream, UnplugCleansUpAndCallsTheStoppedCallback)
{
    EXPECT_EXIT(unplugCleansUpAndCallsTheStoppedCallback(),
        ::testing::ExitedWithCode(0),
        "low data: 0  /  360960(.|\n)*outside readusb loop(.|\n)*Free buffers(.|\n)*"
        "Clear halts and close libusb(.|\n)*cleaned up!(.|\n)*stopped callback");
}

TEST_F(SensorStream, StreamsAtNormalPriorityWithoutTheRightToRaiseIt)
{
    EXPECT_EXIT(streamsAtNormalPriorityWithoutTheRightToRaiseIt(),
        ::testing::ExitedWithCode(0), "Error while setting thread priority to  99");
}
