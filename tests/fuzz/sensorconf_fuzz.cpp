// Feeds arbitrary bytes to the register list reader as sensor.conf, writing to the emulated
// sensor. It must write the list or raise the one file error at the first register line too
// short to hold a value.
#include "configfileerror.h"
#include "emulatedbus.h"
#include "quietqt.h"
#include "sensor.h"

#include <cstring>

namespace {

// 1-based number of the first line that begins "REG= " and is shorter than 11 characters.
int firstShortRegisterLine(const uint8_t* data, size_t size)
{
    int n = 0;
    for (size_t begin = 0; begin < size;) {
        size_t end = begin;
        while (end < size && data[end] != '\n')
            ++end;
        ++n;
        const size_t length = end - begin;
        if (length >= 5 && memcmp(data + begin, "REG= ", 5) == 0 && length < 11)
            return n;
        begin = end + 1;
    }
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static EmulatedBus bus("lens none\n", 0);
    static MemoryFile input("sensor-conf");
    input.write(data, size);
    const int shortLine = firstShortRegisterLine(data, size);

    Sensor sensor("", input.path());
    sensor.handle = bus.handle();
    try {
        sensor.init();
        if (shortLine != 0)
            std::abort();
    } catch (const ConfigFileError& e) {
        if (e.line() != shortLine || e.file() != input.path())
            std::abort();
    }
    bus.tick();
    return 0;
}
