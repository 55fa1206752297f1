#include "emulateddevice.h"

#include <libusb.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

namespace {
const char* const strings[] = {nullptr, "Velora", "Velora emulated sensor", "EMU0001"};
}

EmulatedDevice::EmulatedDevice(const Scene& s, FILE* log) : scene(s), logFile(log), registers{}, eeprom(0x10000 + 64, 0xFF)
{
    // Power-up window: the whole sensor, no binning.
    registers[1] = 1;
    registers[2] = 4;
    registers[3] = static_cast<uint16_t>(scene.sensorHeight);
    registers[4] = static_cast<uint16_t>(scene.sensorWidth);
    registers[11] = static_cast<uint16_t>(scene.exposureReference);
    registers[27] = 2;
}

void EmulatedDevice::log(double now, bool async, const char* fmt, ...)
{
    if (!logFile) {
        return;
    }
    std::fprintf(logFile, "%.6f %s ", now, async ? "async" : "sync");
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(logFile, fmt, ap);
    va_end(ap);
    std::fputc('\n', logFile);
    std::fflush(logFile);
}

FrameGeometry EmulatedDevice::geometry() const
{
    FrameGeometry g;
    g.x = registers[1] - 1;
    g.y = registers[2] - 4;
    g.height = registers[3];
    g.width = registers[4];
    g.binY = 1 << std::min(2, registers[13] & 3);
    g.binX = 1 << std::min(2, (registers[13] >> 2) & 3);
    return g;
}

int EmulatedDevice::descriptor(const Scene& scene, uint8_t type, uint8_t index, uint8_t* out, int length)
{
    uint8_t buf[256];
    int n = 0;
    if (type == LIBUSB_DT_DEVICE) {
        const uint8_t d[18] = {18, LIBUSB_DT_DEVICE, 0x00, 0x02, 0, 0, 0, 64,
                               static_cast<uint8_t>(scene.vendorId), static_cast<uint8_t>(scene.vendorId >> 8),
                               static_cast<uint8_t>(scene.productId), static_cast<uint8_t>(scene.productId >> 8),
                               0x00, 0x01, 1, 2, 3, 1};
        n = 18;
        std::memcpy(buf, d, 18);
    } else if (type == LIBUSB_DT_CONFIG) {
        const uint8_t d[25] = {9, LIBUSB_DT_CONFIG, 25, 0, 1, 1, 0, 0x80, 50,
                               9, LIBUSB_DT_INTERFACE, 0, 0, 1, 0xFF, 0, 0, 0,
                               7, LIBUSB_DT_ENDPOINT, 0x82, LIBUSB_TRANSFER_TYPE_BULK, 0x00, 0x02, 0};
        n = 25;
        std::memcpy(buf, d, 25);
    } else if (type == LIBUSB_DT_STRING) {
        if (index == 0) {
            const uint8_t d[4] = {4, LIBUSB_DT_STRING, 0x09, 0x04};
            n = 4;
            std::memcpy(buf, d, 4);
        } else if (index < 4) {
            const char* s = strings[index];
            n = 2;
            for (; *s && n < 254; ++s) {
                buf[n++] = static_cast<uint8_t>(*s);
                buf[n++] = 0;
            }
            buf[0] = static_cast<uint8_t>(n);
            buf[1] = LIBUSB_DT_STRING;
        } else {
            return LIBUSB_ERROR_PIPE;
        }
    } else {
        return LIBUSB_ERROR_PIPE;
    }
    n = std::min(n, length);
    std::memcpy(out, buf, static_cast<size_t>(n));
    return n;
}

int EmulatedDevice::control(uint8_t type, uint8_t request, uint16_t value, uint16_t index, uint8_t* data,
                            uint16_t length, bool async, double now)
{
    const bool in = type & LIBUSB_ENDPOINT_IN;
    const int kind = type & (3 << 5);
    if (kind == LIBUSB_REQUEST_TYPE_STANDARD) {
        if (in && request == LIBUSB_REQUEST_GET_DESCRIPTOR) {
            return descriptor(scene, static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value), data, length);
        }
        if (!in && (request == LIBUSB_REQUEST_SET_CONFIGURATION || request == LIBUSB_REQUEST_SET_INTERFACE
                    || request == LIBUSB_REQUEST_CLEAR_FEATURE)) {
            return 0;
        }
    } else if (kind == LIBUSB_REQUEST_TYPE_VENDOR && !in) {
        if (request == 0xFE && length >= 3) {
            int reg = data[0];
            uint16_t v = static_cast<uint16_t>(data[1] << 8 | data[2]);
            registers[reg] = v;
            log(now, async, "reg %d %d", reg, v);
            return length;
        }
        if (request == 0xFC && length >= 1) {
            // The actuator swings on the rising edge of its line.
            if (data[0]) {
                if (value & 128) {
                    filterOnPicture = true;
                } else if (value & 64) {
                    filterOnPicture = false;
                }
            }
            log(now, async, "out %d %d %d", value, data[0], length);
            return length;
        }
        if (request == 0xAA && length == 0) {
            started = true;
            log(now, async, "start");
            return 0;
        }
        if (request == 0xF4 && length <= 64) {
            std::copy(data, data + length, eeprom.begin() + value);
            log(now, async, "eeprom-write %x %d", value, length);
            return length;
        }
        if (scene.bridge == Scene::Bridge::Fx2) {
            if (request == 0xA0 && value == 0xE600 && length == 1) {
                log(now, async, "fx2-reset %d", data[0] & 1);
                return 1;
            }
            if (length > 0 && value + length <= 0x10000) {
                for (int i = 0; i < length; ++i) {
                    memory[static_cast<uint32_t>(value + i)] = data[i];
                }
                if (request == 0xA0) {
                    log(now, async, "fx2-load %x %d", value, length);
                } else {
                    log(now, async, "fx2-load %x %d req=%x", value, length, request);
                }
                return length;
            }
        } else if (request == 0xA0) {
            uint32_t address = static_cast<uint32_t>(index) << 16 | value;
            if (length == 0) {
                log(now, async, "fx3-entry %x", address);
                return 0;
            }
            if (length <= 4096) {
                for (int i = 0; i < length; ++i) {
                    memory[address + static_cast<uint32_t>(i)] = data[i];
                }
                log(now, async, "fx3-load %x %d", address, length);
                return length;
            }
        }
    } else if (kind == LIBUSB_REQUEST_TYPE_VENDOR && in) {
        if (request == 0xF3 && length <= 64) {
            std::copy(eeprom.begin() + value, eeprom.begin() + value + length, data);
            log(now, async, "eeprom-read %x %d", value, length);
            return length;
        }
        if (request == 0xA0) {
            uint32_t address = scene.bridge == Scene::Bridge::Fx2 ? value : (static_cast<uint32_t>(index) << 16 | value);
            for (int i = 0; i < length; ++i) {
                auto it = memory.find(address + static_cast<uint32_t>(i));
                data[i] = it == memory.end() ? 0 : it->second;
            }
            return length;
        }
    }
    log(now, async, "other %x %x %x %x %d", type, request, value, index, length);
    return LIBUSB_ERROR_PIPE;
}
