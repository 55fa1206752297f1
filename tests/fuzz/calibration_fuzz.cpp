// Feeds arbitrary bytes to the calibration file reader. Whatever it accepts must turn
// into grids without faults, and must write out and read back to the same file.
#include "calibration.h"
#include "transformgrid.h"

#include <QtGlobal>

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

namespace {

void discardMessages(QtMsgType, const QMessageLogContext&, const QString&) {}

// An in-memory file with a path, so that the reader opens it as it opens any file.
class MemoryFile {
public:
    explicit MemoryFile(const char* name) : fd_(memfd_create(name, 0))
    {
        if (fd_ < 0)
            std::abort();
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    void write(const uint8_t* data, size_t size)
    {
        if (ftruncate(fd_, 0) != 0)
            std::abort();
        size_t done = 0;
        while (done < size) {
            const ssize_t n = pwrite(fd_, data + done, size - done, static_cast<off_t>(done));
            if (n <= 0)
                std::abort();
            done += static_cast<size_t>(n);
        }
    }
    std::string contents() const
    {
        std::ifstream in(path_);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    const char* path() const { return path_.c_str(); }

private:
    int fd_;
    std::string path_;
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qInstallMessageHandler(discardMessages);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static MemoryFile input("calibration-input");
    static MemoryFile saved("calibration-saved");
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
