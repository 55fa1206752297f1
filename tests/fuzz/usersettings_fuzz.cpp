// Feeds arbitrary bytes to the user settings reader as user.ini. Whatever it reads must
// write out, and read back to the same file.
#include "globalsettings.h"
#include "fuzzfile.h"
#include "quietqt.h"

namespace {

std::string loadAndSave(const char* from, const DiskFile& to)
{
    GS gs;
    gs.userSettingsPath = from;
    gs.loadUserSettings();
    gs.userSettingsPath = to.path();
    gs.saveUserSettings();
    return to.contents();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static MemoryFile input("user-ini");
    static DiskFile first("user-ini-saved");
    static DiskFile second("user-ini-saved-again");
    input.write(data, size);
    const std::string saved = loadAndSave(input.path(), first);
    // Whatever was read, the writer puts a whole file in place.
    if (saved.empty())
        std::abort();
    // What was written once is already in the form the writer gives.
    if (loadAndSave(first.path(), second) != saved)
        std::abort();
    return 0;
}
