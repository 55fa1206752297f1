// Runs inside the test machine of tests/vm/run, as root, with uinput and evdev loaded and
// udev running: the device that Touch makes, as the kernel, udev and libinput see it.
#include "touch.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/input.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace {

constexpr const char* DeviceName = "velora-multitouch";

struct Ev {
    int type, code, value;
    bool operator==(const Ev&) const = default;
    friend void PrintTo(const Ev& e, std::ostream* os) { *os << e.type << ':' << e.code << '=' << e.value; }
};

Ev slot(int v) { return {EV_ABS, ABS_MT_SLOT, v}; }
Ev trackingId(int v) { return {EV_ABS, ABS_MT_TRACKING_ID, v}; }
Ev x(int v) { return {EV_ABS, ABS_MT_POSITION_X, v}; }
Ev y(int v) { return {EV_ABS, ABS_MT_POSITION_Y, v}; }
Ev syn() { return {EV_SYN, SYN_REPORT, 0}; }
using Evs = std::vector<Ev>;

std::string nameOf(int fd)
{
    char name[256] = {};
    return ioctl(fd, EVIOCGNAME(sizeof name - 1), name) < 0 ? std::string() : name;
}

// The event node of the device named DeviceName, or empty.
std::string findNode()
{
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/input", error)) {
        const std::string path = entry.path();
        const int fd = entry.path().filename().string().starts_with("event") ? open(path.c_str(), O_RDONLY) : -1;
        const bool mine = fd >= 0 && nameOf(fd) == DeviceName;
        if (fd >= 0)
            close(fd);
        if (mine)
            return path;
    }
    return {};
}

// A command of the shell with its standard output and error on one pipe. The shell first
// tells its process id, which exec hands on to the program.
class Child {
public:
    explicit Child(const std::string& command) : out(popen(("echo $$; exec " + command + " 2>&1").c_str(), "r"))
    {
        readUntil([](const std::string& t) { return t.find('\n') != std::string::npos; });
        pid = std::atoi(text.c_str());
        text.erase(0, text.find('\n') + 1);
    }
    ~Child() { stop(); }

    // Reads what is there, waiting at most `ms` for more; false once the program closed its end.
    bool readFor(int ms)
    {
        pollfd p{out ? fileno(out) : -1, POLLIN, 0};
        if (!out || poll(&p, 1, ms) <= 0)
            return out != nullptr;
        char buf[4096];
        const ssize_t n = read(p.fd, buf, sizeof buf);
        if (n > 0)
            text.append(buf, size_t(n));
        return n > 0;
    }

    // Reads until `done` holds for the text so far, the program ends, or a generous guard
    // against a hang runs out; returns whether `done` holds.
    template <class Pred>
    bool readUntil(Pred done)
    {
        const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!done(text) && std::chrono::steady_clock::now() < guard && readFor(200)) {
        }
        return done(text);
    }

    // Asks the program to end, killing it if it goes on writing for 20 seconds.
    void stop()
    {
        if (!out)
            return;
        if (pid > 0)
            kill(pid, SIGINT);
        for (int rounds = 0; readFor(200); ++rounds)
            if (rounds == 100 && pid > 0)
                kill(pid, SIGKILL);
        pclose(out);
        out = nullptr;
    }

    FILE* out;
    pid_t pid = -1;
    std::string text;
};

// Its output once it closed it; stop() then reaps it.
std::string runToEnd(const std::string& command)
{
    Child child(command);
    while (child.readFor(1000)) {
    }
    return child.text;
}

// A fresh device and a reader on its event node. The kernel hands a written event to the
// readers before the write returns, so what Touch sent can be read at once. The kernel
// passes on only the values that changed: a repeated slot, id or position never reaches a
// reader, and a report left with nothing in it is dropped.
class TouchOnTheKernel : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_GT(touch.fd, 0) << "no /dev/uinput";
        node = findNode();
        ASSERT_FALSE(node.empty()) << "no event node named " << DeviceName;
        fd = open(node.c_str(), O_RDONLY | O_NONBLOCK);
        ASSERT_GE(fd, 0) << node;
    }
    void TearDown() override
    {
        if (fd >= 0)
            close(fd);
    }

    Evs take()
    {
        Evs events;
        for (input_event e; read(fd, &e, sizeof e) == static_cast<ssize_t>(sizeof e);)
            events.push_back({e.type, e.code, e.value});
        return events;
    }

    // The kernel's current value of one multi-touch axis in every slot.
    std::vector<int> slotValues(int code)
    {
        struct {
            __u32 code;
            __s32 values[Touch::SlotCount];
        } request{static_cast<__u32>(code), {}};
        if (ioctl(fd, EVIOCGMTSLOTS(sizeof request), &request) < 0)
            return {};
        return {request.values, request.values + Touch::SlotCount};
    }

    // The kernel's (id, x) of the first slots.
    std::vector<std::pair<int, int>> contacts(size_t slots)
    {
        const std::vector<int> ids = slotValues(ABS_MT_TRACKING_ID), xs = slotValues(ABS_MT_POSITION_X);
        std::vector<std::pair<int, int>> out;
        for (size_t i = 0; i < slots && i < ids.size(); ++i)
            out.emplace_back(ids[i], xs[i]);
        return out;
    }

    // The numbers of the bits set in the device's bitmap of one event type (-1: its properties).
    std::vector<int> setBits(int type, int max)
    {
        std::vector<unsigned char> bits(size_t(max) / 8 + 1);
        const int size = static_cast<int>(bits.size());
        EXPECT_GE(ioctl(fd, type < 0 ? EVIOCGPROP(size) : EVIOCGBIT(type, size), bits.data()), 0) << type;
        std::vector<int> out;
        for (int b = 0; b <= max; ++b)
            if (bits[size_t(b) / 8] & (1u << (b % 8)))
                out.push_back(b);
        return out;
    }

    Touch touch;
    std::string node;
    int fd = -1;
};

TEST_F(TouchOnTheKernel, DeviceHasItsIdentityAxesAndKeyAndNothingElse)
{
    EXPECT_EQ(nameOf(fd), DeviceName);
    input_id id{};
    ASSERT_EQ(ioctl(fd, EVIOCGID, &id), 0);
    EXPECT_EQ(std::tuple(id.bustype, id.vendor, id.product, id.version), std::tuple(BUS_VIRTUAL, 0xCEEF, 1, 1));
    EXPECT_EQ(setBits(0, EV_MAX), (std::vector<int>{EV_SYN, EV_KEY, EV_ABS}));
    EXPECT_EQ(setBits(EV_KEY, KEY_MAX), std::vector<int>{BTN_TOUCH});
    EXPECT_EQ(setBits(-1, INPUT_PROP_MAX), std::vector<int>{});

    // The kernel gives every slotted device its own tracking id range, 0 to 65535, in
    // place of the declared -1 to 32767; a lift (-1) still passes, as the other tests show.
    const std::tuple<int, int, int> axes[] = {{ABS_X, 0, 32767}, {ABS_Y, 0, 32767}, {ABS_MT_SLOT, 0, 99},
        {ABS_MT_POSITION_X, 0, 32767}, {ABS_MT_POSITION_Y, 0, 32767}, {ABS_MT_TRACKING_ID, 0, 65535}};
    std::vector<int> codes;
    for (const auto& [code, min, max] : axes) {
        codes.push_back(code);
        input_absinfo i{};
        EXPECT_EQ(ioctl(fd, EVIOCGABS(code), &i), 0) << code;
        EXPECT_EQ(std::tuple(i.minimum, i.maximum, i.fuzz, i.flat, i.resolution), std::tuple(min, max, 0, 0, 0)) << code;
    }
    EXPECT_EQ(setBits(EV_ABS, ABS_MAX), codes);

    EXPECT_EQ(slotValues(ABS_MT_TRACKING_ID), std::vector<int>(Touch::SlotCount, -1)) << "no contact at the start";
    EXPECT_EQ(take(), Evs{}) << "creation sends no events";
}

// The kernel keeps the low sixteen bits of an id: 70000 is 4464, the same one in every move.
TEST_F(TouchOnTheKernel, DragCarriesTheChangedAxesOfItsLowSixteenBitIdAndARepeatedPositionIsHarmless)
{
    const int s = touch.down(100, 200, 70000);
    EXPECT_EQ(take(), (Evs{trackingId(4464), x(100), y(200), syn()}));
    touch.move(300, 200, s, 70000);
    EXPECT_EQ(take(), (Evs{x(300), syn()}));
    touch.move(300, 500, s, 70000);
    EXPECT_EQ(take(), (Evs{y(500), syn()}));
    touch.move(300, 500, s, 70000);
    EXPECT_EQ(take(), Evs{}) << "the same position twice reaches no reader";
    touch.move(32767, 32767, s, 70000);
    EXPECT_EQ(take(), (Evs{x(32767), y(32767), syn()}));
    EXPECT_EQ(contacts(1), (std::vector<std::pair<int, int>>{{4464, 32767}}));

    touch.up(0, 0, s);
    EXPECT_EQ(take(), (Evs{trackingId(-1), syn()}));
}

TEST_F(TouchOnTheKernel, TwoFingersHaveASlotEach)
{
    // Braces: the two presses in their order.
    EXPECT_EQ((std::pair{touch.down(1000, 1000, 1), touch.down(2000, 3000, 2)}), std::pair(0, 1));
    EXPECT_EQ(take(), (Evs{trackingId(1), x(1000), y(1000), syn(), slot(1), trackingId(2), x(2000), y(3000), syn()}));

    touch.move(1500, 1000, 0, 1);
    EXPECT_EQ(take(), (Evs{slot(0), x(1500), syn()}));
    touch.up(0, 0, 1);
    EXPECT_EQ(take(), (Evs{slot(1), trackingId(-1), syn()}));
    EXPECT_EQ(contacts(2), (std::vector<std::pair<int, int>>{{1, 1500}, {-1, 2000}})) << "the first finger stays down";

    touch.up(0, 0, 0);
    EXPECT_EQ(take(), (Evs{slot(0), trackingId(-1), syn()}));
}

TEST_F(TouchOnTheKernel, AHundredContactsFillTheSlotsAndTheNextTakesSlotZero)
{
    std::vector<std::pair<int, int>> held;
    for (int i = 0; i < Touch::SlotCount; ++i) {
        ASSERT_EQ(touch.down(100 + i, 200 + i, 1000 + i), i);
        held.emplace_back(1000 + i, 100 + i);
    }
    EXPECT_EQ(contacts(Touch::SlotCount), held);
    const Evs last = take();
    ASSERT_GE(last.size(), 5u);
    EXPECT_EQ(Evs(last.end() - 5, last.end()), (Evs{slot(99), trackingId(1099), x(199), y(299), syn()}));

    EXPECT_EQ(touch.down(5, 6, 2000), 0);
    EXPECT_EQ(take(), (Evs{slot(0), trackingId(2000), x(5), y(6), syn()}));
    EXPECT_EQ(contacts(2), (std::vector<std::pair<int, int>>{{2000, 5}, {1001, 101}}));

    for (int i = 0; i < Touch::SlotCount; ++i)
        touch.up(0, 0, i);
    EXPECT_EQ(slotValues(ABS_MT_TRACKING_ID), std::vector<int>(Touch::SlotCount, -1));
}

// udev and libinput, as a desktop meets the device.
class TouchOnTheDesktop : public TouchOnTheKernel {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(TouchOnTheKernel::SetUp());
        runToEnd("udevadm settle --timeout=30");
    }
};

TEST_F(TouchOnTheDesktop, UdevTagsATouchscreen)
{
    const std::string props = runToEnd("udevadm info --query=property --name=" + node);
    for (const auto& [line, set] : {std::pair{"ID_INPUT=1", true}, {"ID_INPUT_TOUCHSCREEN=1", true},
             {"ID_INPUT_TOUCHPAD=1", false}, {"ID_INPUT_MOUSE=1", false}, {"ID_INPUT_TABLET=1", false}})
        EXPECT_EQ(props.find(std::string("\n") + line + "\n") != std::string::npos, set) << line << "\n" << props;
}

// Touch events as `libinput debug-events` prints them, e.g.
// " event4   TOUCH_DOWN    +1.234s	0 (0) 25.00/75.00 (8192.00/24576.00mm)": the kind, the
// slot, and x and y in percent and in millimetres where the event has a position.
std::vector<std::pair<std::string, std::vector<double>>> touchLines(const std::string& text)
{
    static const std::regex event(R"((TOUCH_DOWN|TOUCH_MOTION|TOUCH_UP|TOUCH_CANCEL)\s+\+[0-9.]+s\s+(\d+)(.*))");
    static const std::regex position(R"(\(\d+\)\s+([0-9.]+)/\s*([0-9.]+)\s+\(\s*([0-9.]+)/\s*([0-9.]+)mm\))");
    std::vector<std::pair<std::string, std::vector<double>>> out;
    std::istringstream lines(text);
    std::smatch m, p;
    for (std::string line; std::getline(lines, line);) {
        if (!std::regex_search(line, m, event))
            continue;
        out.push_back({m.str(1) + " " + m.str(2), {}});
        const std::string rest = m[3];
        if (std::regex_search(rest, p, position))
            for (int i = 1; i <= 4; ++i)
                out.back().second.push_back(std::stod(p[i]));
    }
    return out;
}

TEST_F(TouchOnTheDesktop, LibinputReportsTouchesWhereTheyWereSent)
{
    Child libinput("libinput debug-events --verbose --device " + node);
    ASSERT_TRUE(libinput.readUntil([](const std::string& t) { return t.find("DEVICE_ADDED") != std::string::npos; }))
        << "libinput did not take the device\n" << libinput.text;
    const size_t seen = libinput.text.size();

    // A tap, a drag, and a second finger while the first is held.
    int s = touch.down(8192, 24576, 11);
    touch.up(0, 0, s);
    s = touch.down(16384, 16384, 12);
    touch.move(24576, 8192, s, 12);
    touch.up(0, 0, s);
    const int a = touch.down(4096, 4096, 13);
    const int b = touch.down(28672, 30000, 14);
    touch.up(0, 0, b);
    touch.up(0, 0, a);

    libinput.readUntil([](const std::string& t) {
        return std::ranges::count_if(touchLines(t), [](const auto& l) { return l.first.starts_with("TOUCH_UP"); }) >= 4;
    });
    libinput.stop();
    const std::string events = libinput.text.substr(seen);

    // Kind and slot, and for all but a lift the position sent.
    const std::tuple<const char*, int, int> expected[] = {{"TOUCH_DOWN 0", 8192, 24576}, {"TOUCH_UP 0", 0, 0},
        {"TOUCH_DOWN 0", 16384, 16384}, {"TOUCH_MOTION 0", 24576, 8192}, {"TOUCH_UP 0", 0, 0},
        {"TOUCH_DOWN 0", 4096, 4096}, {"TOUCH_DOWN 1", 28672, 30000}, {"TOUCH_UP 1", 0, 0}, {"TOUCH_UP 0", 0, 0}};
    const auto got = touchLines(events);
    ASSERT_EQ(got.size(), std::size(expected)) << events;
    for (size_t i = 0; i < got.size(); ++i) {
        const auto& [kind, wantX, wantY] = expected[i];
        EXPECT_EQ(got[i].first, kind) << i;
        if (got[i].first.starts_with("TOUCH_UP"))
            continue;
        ASSERT_EQ(got[i].second.size(), 4u) << i << " has no position";
        // libinput scales the axis range, maximum - minimum + 1 units, to 100 % of the
        // screen; with no resolution declared it takes one unit for a millimetre.
        const double want[] = {wantX * 100.0 / 32768, wantY * 100.0 / 32768, double(wantX), double(wantY)};
        for (size_t k = 0; k < 4; ++k)
            EXPECT_NEAR(got[i].second[k], want[k], 0.006) << i << " value " << k;
    }
}

} // namespace
