// Feeds arbitrary bytes to the automatic calibration's reader as ac.conf. Whatever the bytes,
// the two waits come from one line, and settings on lines past the file's end keep the
// values they had.
#include "autocalibration.h"
#include "fuzzfile.h"
#include "quietqt.h"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static MemoryFile input("ac-conf");
    input.write(data, size);
    // A last line without its end counts too.
    const auto lines = std::count(data, data + size, '\n') + (size > 0 && data[size - 1] != '\n');

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
