#pragma once
// One session with the emulated sensor in the test's own process: its files, the device
// opened, and helpers to write registers and to take frames as the capture thread does.
#include "emulatorfiles.h"

#include <libusb.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

class EmulatorSession : public EmulatorFiles
{
public:
    struct Frame {
        int status = -1, length = 0;
        std::vector<unsigned char> data;
        bool onHandlerThread = false;
        // The device's frame number, in the first bytes when the scene stamps its frames.
        uint32_t stamp() const { return data[0] | data[1] << 8 | data[2] << 16 | static_cast<uint32_t>(data[3]) << 24; }
    };

    explicit EmulatorSession(const std::string& sceneText, bool open = true) : EmulatorFiles(sceneText)
    {
        for (const auto& [name, value] : environment())
            setenv(name, value.c_str(), 1);
        initResult = libusb_init(nullptr);
        if (initResult == 0 && open)
            handle = libusb_open_device_with_vid_pid(nullptr, 0x1209, 0x7E1A);
    }

    ~EmulatorSession()
    {
        finish();
        for (const auto& [name, value] : environment())
            unsetenv(name);
    }

    // Closes and ends the session, so that the files are complete.
    void finish()
    {
        if (handle) {
            libusb_close(handle);
            handle = nullptr;
        }
        if (initResult == 0) {
            libusb_exit(nullptr);
            initResult = -1;
        }
    }

    int writeRegister(int reg, int value)
    {
        unsigned char d[3] = {static_cast<unsigned char>(reg), static_cast<unsigned char>(value >> 8),
                              static_cast<unsigned char>(value)};
        return libusb_control_transfer(handle, 0x40, 0xFE, 0, 0, d, 3, 2000);
    }

    int setOutput(int mask, int level)
    {
        unsigned char d = static_cast<unsigned char>(level);
        return libusb_control_transfer(handle, 0x40, 0xFC, static_cast<uint16_t>(mask), 0, &d, 1, 2000);
    }

    int start() { return libusb_control_transfer(handle, 0x40, 0xAA, 0, 0, nullptr, 0, 2000); }

    // One asynchronous bulk transfer, handled to its end on this thread.
    Frame grab(int length = 752 * 480, unsigned timeoutMs = 1500)
    {
        Frame f;
        f.data.assign(static_cast<size_t>(length), 0);
        struct Ctx {
            Frame* f;
            std::thread::id waiter;
            int done;
        } ctx{&f, std::this_thread::get_id(), 0};
        libusb_transfer* t = libusb_alloc_transfer(0);
        libusb_fill_bulk_transfer(
            t, handle, 0x82, f.data.data(), length,
            [](libusb_transfer* x) {
                auto* c = static_cast<Ctx*>(x->user_data);
                c->f->status = x->status;
                c->f->length = x->actual_length;
                c->f->onHandlerThread = std::this_thread::get_id() == c->waiter;
                c->done = 1;
            },
            &ctx, timeoutMs);
        // A refused submit leaves its error as the status.
        const int submitted = libusb_submit_transfer(t);
        f.status = submitted == 0 ? -1 : submitted;
        while (submitted == 0 && !ctx.done) {
            timeval tv{1, 0};
            libusb_handle_events_timeout_completed(nullptr, &tv, &ctx.done);
        }
        libusb_free_transfer(t);
        return f;
    }

    // The requests the device logged, without their times; ends the session first.
    std::vector<std::vector<std::string>> requests()
    {
        finish();
        auto out = lines("log.txt");
        for (auto& l : out)
            l.erase(l.begin());
        return out;
    }

    int initResult = -1;
    libusb_device_handle* handle = nullptr;
};

// Brightest pixel of a frame, the first of equals, as column and row.
inline std::pair<int, int> brightest(const std::vector<unsigned char>& data, int columns)
{
    const int best = static_cast<int>(std::max_element(data.begin(), data.end()) - data.begin());
    return {best % columns, best / columns};
}
