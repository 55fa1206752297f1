// Feeds arbitrary bytes as a firmware image to the FX3 boot loader on the emulated bridge.
// Its result must be the one the image's header, sections and checksum call for, and a
// loaded image must be in the device's memory.
#include "cyusb.h"
#include "emulatedbus.h"
#include "nosettle.h"

#include <algorithm>
#include <vector>

namespace {

uint32_t word(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }

struct Section {
    uint32_t address;
    size_t offset;
    size_t bytes;
};

// The result the loader owes this image, and the sections it sends.
int expectedResult(const uint8_t* data, size_t size, std::vector<Section>* sections)
{
    if (size < 2 || data[0] != 'C' || data[1] != 'Y')
        return -2;
    if (size < 4 || (data[2] & 1))
        return -3;
    if (data[3] != 0xB0)
        return -4;
    const int truncated = -6;
    uint32_t sum = 0;
    size_t pos = 4;
    for (;;) {
        if (size - pos < 8)
            return truncated;
        const uint32_t words = word(data + pos);
        const uint32_t address = word(data + pos + 4);
        pos += 8;
        if (words == 0)
            break;
        if ((size - pos) / 4 < words)
            return truncated;
        sections->push_back({address, pos, size_t(words) * 4});
        for (uint32_t w = 0; w < words; ++w, pos += 4)
            sum += word(data + pos);
    }
    if (size - pos < 4)
        return truncated;
    return word(data + pos) == sum ? 0 : -5;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static EmulatedBus bus("lens none\nbridge fx3\n", 256);
    static MemoryFile input("fx3-image");
    input.write(data, size);
    std::vector<Section> sections;
    const int expected = expectedResult(data, size, &sections);
    if (cyusb_download_fx3(bus.handle(), input.path()) != expected)
        std::abort();

    if (expected == 0 && !sections.empty()) {
        // Later sections may overwrite earlier ones: look at the last one only.
        const Section& last = sections.back();
        const size_t n = std::min<size_t>(last.bytes, 64);
        if (bus.memory(last.address, n) != std::vector<uint8_t>(data + last.offset, data + last.offset + n))
            std::abort();
    }
    bus.tick();
    return 0;
}
