#pragma once

#include "framerenderer.h"
#include "scene.h"

#include <cstdint>
#include <cstdio>
#include <map>
#include <vector>

// The device end of the control pipe: imager registers, bridge outputs (the filter actuator),
// the start request, the boot loader of either bridge and the EEPROM. Every request received
// is written to the protocol log. Not thread-safe: the caller serialises.
class EmulatedDevice
{
public:
    EmulatedDevice(const Scene& scene, FILE* log);

    // A control request with its data stage; returns the bytes transferred or a libusb error
    // (LIBUSB_ERROR_PIPE for a request the device does not know). now: seconds for the log.
    int control(uint8_t requestType, uint8_t request, uint16_t value, uint16_t index, uint8_t* data,
                uint16_t length, bool async, double now);

    FrameGeometry geometry() const;
    int exposure() const { return registers[11]; }
    bool laserOn() const { return registers[27] == 0; }
    bool pictureShown() const { return filterOnPicture; }
    bool streaming() const { return started; }
    uint16_t registerValue(int reg) const { return registers[reg & 0xFF]; }

    static int descriptor(const Scene& scene, uint8_t type, uint8_t index, uint8_t* out, int length);

private:
    void log(double now, bool async, const char* fmt, ...) __attribute__((format(printf, 4, 5)));

    const Scene& scene;
    FILE* logFile;
    uint16_t registers[256];
    bool filterOnPicture = false;
    bool started = false;
    std::map<uint32_t, uint8_t> memory;  // boot loader RAM, sparse
    std::vector<uint8_t> eeprom;
};
