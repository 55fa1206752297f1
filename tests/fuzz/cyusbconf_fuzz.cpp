// Feeds arbitrary bytes to the USB device list reader as cyusb.conf. It must fill a bounded
// table or raise the one file error at a line of the file, and close the file either way.
#include "configfileerror.h"
#include "cyusbconfig.h"
#include "fuzzfile.h"

#include <fcntl.h>

#include <algorithm>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static MemoryFile input("cyusb-conf");
    input.write(data, size);
    const int lines = static_cast<int>(std::count(data, data + size, '\n')) + 1;

    const auto terminated = [](const char* text, size_t size) { return memchr(text, '\0', size) != nullptr; };
    CyusbConfig config;
    const int fd = open(input.path(), O_RDONLY);
    if (fd < 0)
        std::abort();
    try {
        config.read(input.path(), fd);
        if (config.maxdevices < 0 || config.maxdevices > CyusbConfig::DeviceLimit)
            std::abort();
        if (!terminated(config.logfile, sizeof config.logfile) || !terminated(config.pidfile, sizeof config.pidfile))
            std::abort();
        for (int i = 0; i < config.maxdevices; ++i)
            if (!terminated(config.vpd[i].desc, sizeof config.vpd[i].desc))
                std::abort();
    } catch (const ConfigFileError& e) {
        if (e.file() != input.path() || e.line() < 1 || e.line() > lines)
            std::abort();
    }
    // The reader owns the descriptor it was given.
    if (fcntl(fd, F_GETFD) != -1)
        std::abort();
    return 0;
}
