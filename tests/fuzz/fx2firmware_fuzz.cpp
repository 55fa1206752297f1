// Feeds arbitrary bytes as an Intel-HEX file to the FX2 boot loader on the emulated bridge.
// The loader gives 0 for any file it can open, and must never fault on the way.
#include "cyusb.h"
#include "emulatedbus.h"
#include "memoryfile.h"

#include <cstdint>
#include <cstdlib>

// The loader waits a second around the CPU reset for real silicon to settle; the emulated
// bridge has nothing to settle, and a fuzzing run cannot spend seconds per input.
extern "C" unsigned int sleep(unsigned int) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static EmulatedBus bus("lens none\nbridge fx2\n", 0);
    static MemoryFile input("fx2-hex");
    input.write(data, size);
    if (cyusb_download_fx2(bus.handle(), input.path(), 0xA0) != 0)
        std::abort();
    bus.tick();
    return 0;
}
