#pragma once

// The emulated sensor, linked in place of libusb, with one open handle. Its boot loader
// keeps every byte it is sent, so a target that loads firmware brings the bus up afresh now
// and then to keep a long run's memory bounded.
#include "fuzzfile.h"

#include <libusb.h>

#include <vector>

class EmulatedBus {
public:
    // renewEvery: inputs between two fresh starts of the bus, 0 for never.
    EmulatedBus(const std::string& scene, unsigned renewEvery) : sceneFile("emulated-scene"), renewEvery(renewEvery)
    {
        sceneFile.write(reinterpret_cast<const uint8_t*>(scene.data()), scene.size());
        setenv("VELORA_EMU_SCENE", sceneFile.path(), 1);
        unsetenv("VELORA_EMU_LOG");
        unsetenv("VELORA_EMU_TRUTH");
        open();
    }

    libusb_device_handle* handle() const { return handle_; }

    // The device's memory from address on, as its vendor request gives it back; empty when it
    // does not give all of it.
    std::vector<uint8_t> memory(uint32_t address, size_t length) const
    {
        std::vector<uint8_t> bytes(length);
        if (libusb_control_transfer(handle_, 0xC0, 0xA0, static_cast<uint16_t>(address & 0xFFFF),
                                    static_cast<uint16_t>(address >> 16), bytes.data(), static_cast<uint16_t>(length),
                                    1000)
            != static_cast<int>(length))
            bytes.clear();
        return bytes;
    }

    // Counts one input; every so many, unplugs and plugs the bus in again.
    void tick()
    {
        if (renewEvery == 0 || ++inputs % renewEvery != 0)
            return;
        libusb_close(handle_);
        libusb_exit(nullptr);
        open();
    }

private:
    void open()
    {
        if (libusb_init(nullptr) != 0 || !(handle_ = libusb_open_device_with_vid_pid(nullptr, 0x1209, 0x7e1a)))
            std::abort();
    }

    MemoryFile sceneFile;
    libusb_device_handle* handle_ = nullptr;
    unsigned renewEvery;
    unsigned inputs = 0;
};
