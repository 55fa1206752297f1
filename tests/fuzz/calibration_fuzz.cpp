// Feeds arbitrary bytes to the calibration file reader. Whatever it accepts must turn
// into grids without faults, and must write out and read back to the same file.
#include "calibration.h"
#include "fuzzfile.h"
#include "quietqt.h"
#include "transformgrid.h"

#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static MemoryFile input("calibration-input");
    static DiskFile saved("calibration-saved");
    input.write(data, size);
    std::unique_ptr<Calibration> c(Calibration::read(input.path()));
    if (!c)
        return 0;

    for (bool inverted : {false, true}) {
        std::unique_ptr<TransformGrid> grid(c->getTransform(1920, 1080, inverted, nullptr));
        grid->Filter(EVector(960, 540));
        grid->Filter(EVector(-50, 2000));
    }

    // 15 digits survive a trip through a double, so a second save repeats the first.
    c->save(saved.path());
    const std::string first = saved.contents();
    std::unique_ptr<Calibration> again(Calibration::read(saved.path()));
    if (!again)
        std::abort();
    again->save(saved.path());
    if (saved.contents() != first)
        std::abort();
    return 0;
}
