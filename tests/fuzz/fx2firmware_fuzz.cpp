// Feeds arbitrary bytes as an Intel-HEX file to the FX2 boot loader on the emulated bridge.
// The loader gives 0 for any file it can open, and the last well-formed record it sends
// must be in the device's memory afterwards.
#include "cyusb.h"
#include "emulatedbus.h"
#include "nosettle.h"

#include <algorithm>
#include <vector>

namespace {

struct Record {
    int address = -1;
    std::vector<uint8_t> bytes;
};

int hex(const std::string& s, size_t at, size_t digits)
{
    return static_cast<int>(std::stoul(s.substr(at, digits), nullptr, 16));
}

// The last record before the end record, when it is strictly formed and the file is plain
// text in lines the loader takes whole; address -1 when there is nothing to look for.
Record lastRecord(const uint8_t* data, size_t size)
{
    Record last;
    std::string line;
    for (size_t i = 0; i <= size; ++i) {
        if (i < size && data[i] == 0)
            return {};
        if (i < size && data[i] != '\n') {
            line += static_cast<char>(data[i]);
            continue;
        }
        if (line.size() >= 598)
            return {};
        // The loader reads a record up to the first carriage return, wherever it stands.
        line.resize(std::min(line.size(), line.find('\r')));
        if (line.size() >= 11 && line[0] == ':') {
            if (line[8] == '1')
                break;
            const bool allHex = line.find_first_not_of("0123456789abcdefABCDEF", 1) == std::string::npos;
            if (allHex && line.size() == 11 + 2 * size_t(hex(line, 1, 2))) {
                last.address = hex(line, 3, 4);
                last.bytes.clear();
                for (size_t b = 9; b + 2 < line.size(); b += 2)
                    last.bytes.push_back(static_cast<uint8_t>(hex(line, b, 2)));
            } else {
                last = {};
            }
        }
        line.clear();
    }
    // The bridge takes no record past its 64 KiB, and a single byte at 0xE600 is its reset.
    if (last.address < 0 || last.bytes.empty() || last.address + last.bytes.size() > 0x10000
        || (last.address == 0xE600 && last.bytes.size() == 1))
        return {};
    return last;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static EmulatedBus bus("lens none\nbridge fx2\n", 0);
    static MemoryFile input("fx2-hex");
    input.write(data, size);
    if (cyusb_download_fx2(bus.handle(), input.path(), 0xA0) != 0)
        std::abort();

    const Record last = lastRecord(data, size);
    if (last.address >= 0 && bus.memory(static_cast<uint32_t>(last.address), last.bytes.size()) != last.bytes)
        std::abort();
    bus.tick();
    return 0;
}
