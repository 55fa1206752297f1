#pragma once
// Stands in for /dev/uinput: the device-creating calls are written down, and everything
// the device would receive lands in a pipe that the test reads back and decodes.

#include "touch.h"
#include "uinputcalls.h"

#include <fcntl.h>
#include <linux/input.h>
#include <linux/uinput.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

struct Ev {
    int type;
    int code;
    int value;
    bool operator==(const Ev&) const = default;
};

inline std::ostream& operator<<(std::ostream& os, const Ev& e)
{
    return os << "{" << e.type << "," << e.code << "," << e.value << "}";
}

// The five events that put contact id at (x, y) in a slot.
inline std::vector<Ev> contact(int slot, int id, int x, int y)
{
    return {{EV_ABS, ABS_MT_SLOT, slot}, {EV_ABS, ABS_MT_TRACKING_ID, id}, {EV_ABS, ABS_MT_POSITION_X, x},
            {EV_ABS, ABS_MT_POSITION_Y, y}, {EV_SYN, SYN_REPORT, 0}};
}

inline std::vector<Ev> lift(int slot)
{
    return {{EV_ABS, ABS_MT_SLOT, slot}, {EV_ABS, ABS_MT_TRACKING_ID, -1}, {EV_SYN, SYN_REPORT, 0}};
}

inline std::vector<Ev> operator+(std::vector<Ev> a, const std::vector<Ev>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class DevicePipe {
public:
    enum Kind { Open, Control, Close };
    // A device call: its kind, request, value, descriptor, the bytes written to the device by
    // the time of the call, and the path opened.
    using Call = std::tuple<Kind, unsigned long, int, int, int, std::string>;

    std::vector<Call> calls;
    // Descriptor that openDevice hands out; -1 or 0 stand for a missing device.
    int readEnd = -1;
    int writeEnd = -1;
    bool failControls = false;
    int openResult = 0;
    bool lastTimesZero = true;

    DevicePipe()
    {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) == 0) {
            readEnd = fds[0];
            writeEnd = fds[1];
            fcntl(readEnd, F_SETFL, O_NONBLOCK);
            // Room for a few hundred contacts between two reads.
            fcntl(writeEnd, F_SETPIPE_SZ, 1 << 20);
        }
        openResult = writeEnd;
    }
    ~DevicePipe()
    {
        close(readEnd);
        close(writeEnd);
    }

    // A Touch whose device is this pipe.
    Touch* makeTouch() { return new Touch(std::make_unique<Calls>(this)); }

    int pendingBytes() const
    {
        int n = 0;
        ioctl(readEnd, FIONREAD, &n);
        return n;
    }

    // The device record written at creation.
    bool readRecord(uinput_user_dev* dev)
    {
        return read(readEnd, dev, sizeof *dev) == static_cast<ssize_t>(sizeof *dev);
    }

    // Every event written since the last call.
    std::vector<Ev> events()
    {
        std::vector<Ev> out;
        input_event e;
        while (read(readEnd, &e, sizeof e) == static_cast<ssize_t>(sizeof e)) {
            lastTimesZero = lastTimesZero && e.input_event_sec == 0 && e.input_event_usec == 0;
            out.push_back({e.type, e.code, e.value});
        }
        return out;
    }

private:
    class Calls : public UinputCalls {
    public:
        explicit Calls(DevicePipe* p) : pipe(p) {}
        int openDevice(const char* path, int flags) override
        {
            pipe->calls.push_back({Open, 0, flags, 0, pipe->pendingBytes(), path});
            return pipe->openResult;
        }
        int control(int fd, unsigned long request, int value) override
        {
            pipe->calls.push_back({Control, request, value, fd, pipe->pendingBytes(), ""});
            return pipe->failControls ? -1 : 0;
        }
        void closeDevice(int fd) override { pipe->calls.push_back({Close, 0, 0, fd, 0, ""}); }

    private:
        DevicePipe* pipe;
    };
};
