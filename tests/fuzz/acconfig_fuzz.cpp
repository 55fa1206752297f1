// Feeds arbitrary bytes to the automatic calibration's reader as ac.conf. Whatever the bytes,
// the two waits come from one line, and settings on lines past the file's end keep the
// values they had.
#include "autocalibration.h"
#include "fuzzfile.h"
#include "quietqt.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static MemoryFile input("ac-conf");
    input.write(data, size);
    size_t lines = 0;
    for (size_t i = 0; i < size; ++i)
        lines += data[i] == '\n';
    if (size > 0 && data[size - 1] != '\n')
        ++lines;

    AutoCalibration ac(nullptr, nullptr);
    ac.configPath = input.path();
    ac.loadConfig();
    if (lines <= 21 ? ac.maxDelayMs != 1200 || ac.interframeDelayMs != 100 : ac.maxDelayMs != ac.interframeDelayMs)
        std::abort();
    if (lines <= 22 && ac.refineSteps != 5)
        std::abort();
    if (lines <= 26 && ac.tableTop)
        std::abort();
    return 0;
}
