// Runs inside the test machine of tests/vm/run, as root, with uinput and evdev loaded and
// udev running: the device that Touch makes, as the kernel, udev and libinput see it.
#include "touch.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <linux/input.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr const char* DeviceName = "velora-multitouch";

struct Ev {
    int type;
    int code;
    int value;
    bool operator==(const Ev&) const = default;
};

void PrintTo(const Ev& e, std::ostream* os)
{
    static const std::pair<int, const char*> names[] = {{ABS_MT_SLOT, "SLOT"}, {ABS_MT_TRACKING_ID, "TRACKING_ID"},
        {ABS_MT_POSITION_X, "X"}, {ABS_MT_POSITION_Y, "Y"}};
    if (e.type == EV_SYN && e.code == SYN_REPORT) {
        *os << "SYN";
        return;
    }
    for (const auto& [code, name] : names)
        if (e.type == EV_ABS && e.code == code) {
            *os << name << ' ' << e.value;
            return;
        }
    *os << "type " << e.type << " code " << e.code << ' ' << e.value;
}

Ev slot(int v) { return {EV_ABS, ABS_MT_SLOT, v}; }
Ev trackingId(int v) { return {EV_ABS, ABS_MT_TRACKING_ID, v}; }
Ev x(int v) { return {EV_ABS, ABS_MT_POSITION_X, v}; }
Ev y(int v) { return {EV_ABS, ABS_MT_POSITION_Y, v}; }
Ev syn() { return {EV_SYN, SYN_REPORT, 0}; }

bool testBit(const unsigned char* bits, int bit) { return bits[bit / 8] & (1u << (bit % 8)); }

std::string nameOf(int fd)
{
    char name[256] = {};
    if (ioctl(fd, EVIOCGNAME(sizeof name - 1), name) < 0)
        return {};
    return name;
}

// The event node of the device named DeviceName, or empty.
std::string findNode()
{
    DIR* dir = opendir("/dev/input");
    if (!dir)
        return {};
    std::string found;
    while (dirent* entry = readdir(dir)) {
        if (std::strncmp(entry->d_name, "event", 5) != 0)
            continue;
        const std::string path = std::string("/dev/input/") + entry->d_name;
        const int fd = open(path.c_str(), O_RDONLY);
        if (fd < 0)
            continue;
        if (nameOf(fd) == DeviceName)
            found = path;
        close(fd);
        if (!found.empty())
            break;
    }
    closedir(dir);
    return found;
}

// A program started with its standard output and error on one pipe.
class Child {
public:
    explicit Child(std::vector<std::string> argv)
    {
        int fds[2];
        if (pipe(fds) != 0)
            return;
        // Built before the fork: the child may only call async-signal-safe functions.
        std::vector<char*> args;
        for (auto& a : argv)
            args.push_back(a.data());
        args.push_back(nullptr);
        pid = fork();
        if (pid == 0) {
            dup2(fds[1], 1);
            dup2(fds[1], 2);
            close(fds[0]);
            close(fds[1]);
            execvp(args[0], args.data());
            _exit(127);
        }
        close(fds[1]);
        out = fds[0];
    }
    ~Child()
    {
        stop();
        if (out >= 0)
            close(out);
    }

    // Reads what is there, waiting at most `ms` for more; false once the program closed its end.
    bool readFor(int ms)
    {
        if (out < 0)
            return false;
        pollfd p{out, POLLIN, 0};
        if (poll(&p, 1, ms) <= 0)
            return true;
        char buf[4096];
        const ssize_t n = read(out, buf, sizeof buf);
        if (n <= 0)
            return false;
        text.append(buf, size_t(n));
        return true;
    }

    // Reads until `done` holds for the text so far, the program ends, or a generous guard
    // against a hang runs out; returns whether `done` holds.
    template <class Pred>
    bool readUntil(Pred done)
    {
        const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!done(text) && std::chrono::steady_clock::now() < guard)
            if (!readFor(200))
                break;
        return done(text);
    }

    void stop()
    {
        if (pid <= 0)
            return;
        kill(pid, SIGINT);
        for (int rounds = 0; readFor(200); ++rounds)
            if (rounds == 100)
                kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }

    pid_t pid = -1;
    int out = -1;
    std::string text;
};

std::string runToEnd(std::vector<std::string> argv)
{
    Child child(std::move(argv));
    while (child.readFor(1000)) {
    }
    if (child.pid > 0)
        waitpid(child.pid, nullptr, 0);
    child.pid = -1;
    return child.text;
}

void record(const std::string& who, const std::string& text)
{
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        std::cout << who << ": " << line << '\n';
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

    std::vector<Ev> take()
    {
        std::vector<Ev> events;
        input_event e;
        while (read(fd, &e, sizeof e) == static_cast<ssize_t>(sizeof e))
            events.push_back({e.type, e.code, e.value});
        return events;
    }

    // The kernel's current value of one multi-touch axis in every slot.
    std::vector<int> slotValues(int code)
    {
        struct {
            __u32 code;
            __s32 values[Touch::SlotCount];
        } request{};
        request.code = static_cast<__u32>(code);
        if (ioctl(fd, EVIOCGMTSLOTS(sizeof request), &request) < 0)
            return {};
        return {request.values, request.values + Touch::SlotCount};
    }

    input_absinfo absInfo(int axis)
    {
        input_absinfo info{};
        EXPECT_EQ(ioctl(fd, EVIOCGABS(axis), &info), 0) << axis;
        return info;
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
    EXPECT_EQ(id.bustype, BUS_VIRTUAL);
    EXPECT_EQ(id.vendor, 0xCEEF);
    EXPECT_EQ(id.product, 1);
    EXPECT_EQ(id.version, 1);

    unsigned char types[EV_MAX / 8 + 1] = {};
    ASSERT_GE(ioctl(fd, EVIOCGBIT(0, sizeof types), types), 0);
    for (int t = 0; t <= EV_MAX; ++t)
        EXPECT_EQ(testBit(types, t), t == EV_SYN || t == EV_KEY || t == EV_ABS) << "event type " << t;

    unsigned char keys[KEY_MAX / 8 + 1] = {};
    ASSERT_GE(ioctl(fd, EVIOCGBIT(EV_KEY, sizeof keys), keys), 0);
    for (int k = 0; k <= KEY_MAX; ++k)
        EXPECT_EQ(testBit(keys, k), k == BTN_TOUCH) << "key " << k;

    struct Axis {
        int code, min, max;
    };
    // The kernel gives every slotted device its own tracking id range, 0 to 65535, in
    // place of the declared -1 to 32767; a lift (-1) still passes, as the other tests show.
    const Axis axes[] = {{ABS_X, 0, 32767}, {ABS_Y, 0, 32767}, {ABS_MT_SLOT, 0, 99}, {ABS_MT_POSITION_X, 0, 32767},
        {ABS_MT_POSITION_Y, 0, 32767}, {ABS_MT_TRACKING_ID, 0, 65535}};
    unsigned char abs[ABS_MAX / 8 + 1] = {};
    ASSERT_GE(ioctl(fd, EVIOCGBIT(EV_ABS, sizeof abs), abs), 0);
    for (int a = 0; a <= ABS_MAX; ++a) {
        bool declared = false;
        for (const Axis& axis : axes)
            declared = declared || axis.code == a;
        EXPECT_EQ(testBit(abs, a), declared) << "axis " << a;
    }
    for (const Axis& axis : axes) {
        const input_absinfo info = absInfo(axis.code);
        EXPECT_EQ(info.minimum, axis.min) << "axis " << axis.code;
        EXPECT_EQ(info.maximum, axis.max) << "axis " << axis.code;
        EXPECT_EQ(info.fuzz, 0) << "axis " << axis.code;
        EXPECT_EQ(info.flat, 0) << "axis " << axis.code;
        EXPECT_EQ(info.resolution, 0) << "axis " << axis.code;
    }

    unsigned char props[INPUT_PROP_MAX / 8 + 1] = {};
    ASSERT_GE(ioctl(fd, EVIOCGPROP(sizeof props), props), 0);
    for (int p = 0; p <= INPUT_PROP_MAX; ++p)
        EXPECT_FALSE(testBit(props, p)) << "property " << p;

    EXPECT_EQ(slotValues(ABS_MT_TRACKING_ID), std::vector<int>(Touch::SlotCount, -1)) << "no contact at the start";
    EXPECT_TRUE(take().empty()) << "creation sends no events";
}

TEST_F(TouchOnTheKernel, DragCarriesTheChangedAxesAndARepeatedPositionIsHarmless)
{
    const int s = touch.down(100, 200, 7);
    take();
    touch.move(300, 200, s, 7);
    EXPECT_EQ(take(), (std::vector<Ev>{x(300), syn()}));
    touch.move(300, 500, s, 7);
    EXPECT_EQ(take(), (std::vector<Ev>{y(500), syn()}));
    touch.move(300, 500, s, 7);
    EXPECT_TRUE(take().empty()) << "the same position twice reaches no reader";
    touch.move(32767, 32767, s, 7);
    EXPECT_EQ(take(), (std::vector<Ev>{x(32767), y(32767), syn()}));
    EXPECT_EQ(slotValues(ABS_MT_TRACKING_ID)[0], 7);
    EXPECT_EQ(slotValues(ABS_MT_POSITION_X)[0], 32767);

    touch.up(0, 0, s);
    EXPECT_EQ(take(), (std::vector<Ev>{trackingId(-1), syn()}));
}

TEST_F(TouchOnTheKernel, TwoFingersHaveASlotEach)
{
    const int a = touch.down(1000, 1000, 1);
    const int b = touch.down(2000, 3000, 2);
    EXPECT_EQ(a, 0);
    EXPECT_EQ(b, 1);
    EXPECT_EQ(take(), (std::vector<Ev>{trackingId(1), x(1000), y(1000), syn(), slot(1), trackingId(2), x(2000),
                          y(3000), syn()}));

    touch.move(1500, 1000, a, 1);
    EXPECT_EQ(take(), (std::vector<Ev>{slot(0), x(1500), syn()}));
    touch.up(0, 0, b);
    EXPECT_EQ(take(), (std::vector<Ev>{slot(1), trackingId(-1), syn()}));
    EXPECT_EQ(slotValues(ABS_MT_TRACKING_ID)[0], 1) << "the first finger stays down";
    EXPECT_EQ(slotValues(ABS_MT_TRACKING_ID)[1], -1);
    EXPECT_EQ(slotValues(ABS_MT_POSITION_X)[0], 1500);

    touch.up(0, 0, a);
    EXPECT_EQ(take(), (std::vector<Ev>{slot(0), trackingId(-1), syn()}));
}

TEST_F(TouchOnTheKernel, TrackingIdKeepsItsLowSixteenBits)
{
    const int s = touch.down(10, 10, 70000);
    EXPECT_EQ(take(), (std::vector<Ev>{trackingId(4464), x(10), y(10), syn()}));
    touch.move(20, 10, s, 70000);
    EXPECT_EQ(take(), (std::vector<Ev>{x(20), syn()})) << "the id is the same one in the move";
    EXPECT_EQ(slotValues(ABS_MT_TRACKING_ID)[0], 4464);
    touch.up(0, 0, s);
}

TEST_F(TouchOnTheKernel, AHundredContactsFillTheSlotsAndTheNextTakesSlotZero)
{
    for (int i = 0; i < Touch::SlotCount; ++i)
        ASSERT_EQ(touch.down(100 + i, 200 + i, 1000 + i), i);
    const std::vector<int> ids = slotValues(ABS_MT_TRACKING_ID);
    const std::vector<int> xs = slotValues(ABS_MT_POSITION_X);
    ASSERT_EQ(ids.size(), size_t(Touch::SlotCount));
    for (int i = 0; i < Touch::SlotCount; ++i) {
        EXPECT_EQ(ids[i], 1000 + i) << "slot " << i;
        EXPECT_EQ(xs[i], 100 + i) << "slot " << i;
    }
    const std::vector<Ev> last = take();
    ASSERT_GE(last.size(), 5u);
    EXPECT_EQ(std::vector<Ev>(last.end() - 5, last.end()),
        (std::vector<Ev>{slot(99), trackingId(1099), x(199), y(299), syn()}));

    EXPECT_EQ(touch.down(5, 6, 2000), 0);
    EXPECT_EQ(take(), (std::vector<Ev>{slot(0), trackingId(2000), x(5), y(6), syn()}));
    EXPECT_EQ(slotValues(ABS_MT_TRACKING_ID)[0], 2000);
    EXPECT_EQ(slotValues(ABS_MT_TRACKING_ID)[1], 1001);

    for (int i = 0; i < Touch::SlotCount; ++i)
        touch.up(0, 0, i);
    EXPECT_EQ(slotValues(ABS_MT_TRACKING_ID), std::vector<int>(Touch::SlotCount, -1));
}

// udev and libinput, as a desktop meets the device.
class TouchOnTheDesktop : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_GT(touch.fd, 0) << "no /dev/uinput";
        node = findNode();
        ASSERT_FALSE(node.empty()) << "no event node named " << DeviceName;
        runToEnd({"udevadm", "settle", "--timeout=30"});
    }

    Touch touch;
    std::string node;
};

TEST_F(TouchOnTheDesktop, UdevTagsATouchscreen)
{
    const std::string props = runToEnd({"udevadm", "info", "--query=property", "--name=" + node});
    record("udevadm", props);
    auto has = [&](const std::string& line) { return props.find("\n" + line + "\n") != std::string::npos; };
    EXPECT_TRUE(has("ID_INPUT=1")) << props;
    EXPECT_TRUE(has("ID_INPUT_TOUCHSCREEN=1")) << props;
    EXPECT_FALSE(has("ID_INPUT_TOUCHPAD=1")) << props;
    EXPECT_FALSE(has("ID_INPUT_MOUSE=1")) << props;
    EXPECT_FALSE(has("ID_INPUT_TABLET=1")) << props;
}

struct TouchLine {
    std::string kind;
    int slot;
    std::optional<double> xPercent, yPercent, xMm, yMm;
};

// Touch events as `libinput debug-events` prints them, e.g.
// " event4   TOUCH_DOWN    +1.234s	0 (0) 25.00/75.00 (8192.00/24576.00mm)".
std::vector<TouchLine> touchLines(const std::string& text)
{
    static const std::regex event(R"((TOUCH_DOWN|TOUCH_MOTION|TOUCH_UP|TOUCH_CANCEL)\s+\+[0-9.]+s\s+(\d+)(.*))");
    static const std::regex position(R"(\(\d+\)\s+([0-9.]+)/\s*([0-9.]+)\s+\(\s*([0-9.]+)/\s*([0-9.]+)mm\))");
    std::vector<TouchLine> out;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::smatch m;
        if (!std::regex_search(line, m, event))
            continue;
        TouchLine t{m[1], std::stoi(m[2]), {}, {}, {}, {}};
        const std::string rest = m[3];
        std::smatch p;
        if (std::regex_search(rest, p, position)) {
            t.xPercent = std::stod(p[1]);
            t.yPercent = std::stod(p[2]);
            t.xMm = std::stod(p[3]);
            t.yMm = std::stod(p[4]);
        }
        out.push_back(t);
    }
    return out;
}

size_t count(const std::string& text, const std::string& word)
{
    size_t n = 0;
    for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
        ++n;
    return n;
}

TEST_F(TouchOnTheDesktop, LibinputReportsTouchesWhereTheyWereSent)
{
    Child libinput({"libinput", "debug-events", "--verbose", "--device", node});
    const bool added = libinput.readUntil([](const std::string& t) { return t.find("DEVICE_ADDED") != std::string::npos; });
    if (!added)
        libinput.stop();
    record("libinput", libinput.text);
    ASSERT_TRUE(added) << "libinput did not take the device";
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

    libinput.readUntil([](const std::string& t) { return count(t, "TOUCH_UP") >= 4; });
    libinput.stop();
    const std::string events = libinput.text.substr(seen);
    record("libinput", events);

    struct Expected {
        const char* kind;
        int slot;
        int x, y;
    };
    const Expected expected[] = {{"TOUCH_DOWN", 0, 8192, 24576}, {"TOUCH_UP", 0, 0, 0}, {"TOUCH_DOWN", 0, 16384, 16384},
        {"TOUCH_MOTION", 0, 24576, 8192}, {"TOUCH_UP", 0, 0, 0}, {"TOUCH_DOWN", 0, 4096, 4096},
        {"TOUCH_DOWN", 1, 28672, 30000}, {"TOUCH_UP", 1, 0, 0}, {"TOUCH_UP", 0, 0, 0}};
    const std::vector<TouchLine> got = touchLines(events);
    ASSERT_EQ(got.size(), std::size(expected)) << events;
    for (size_t i = 0; i < got.size(); ++i) {
        const Expected& want = expected[i];
        EXPECT_EQ(got[i].kind, want.kind) << i;
        EXPECT_EQ(got[i].slot, want.slot) << i;
        if (got[i].kind == "TOUCH_UP")
            continue;
        ASSERT_TRUE(got[i].xPercent && got[i].xMm) << i << " has no position";
        // libinput scales the axis range, maximum - minimum + 1 units, to 100 % of the
        // screen; with no resolution declared it takes one unit for a millimetre.
        EXPECT_NEAR(*got[i].xPercent, want.x * 100.0 / 32768, 0.006) << i;
        EXPECT_NEAR(*got[i].yPercent, want.y * 100.0 / 32768, 0.006) << i;
        EXPECT_NEAR(*got[i].xMm, want.x, 0.006) << i;
        EXPECT_NEAR(*got[i].yMm, want.y, 0.006) << i;
    }
}

} // namespace
