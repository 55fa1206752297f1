// Feeds arbitrary bytes to the settings reader as velora.conf. It must either give settings
// or raise the one file error, and that exactly at the first line whose value is only blanks.
#include "configfileerror.h"
#include "globalsettings.h"
#include "fuzzfile.h"
#include "quietqt.h"

#include <memory>

namespace {

// 1-based number of the first of the read lines whose value (after the first '=', or the
// whole line) is one or more blanks and nothing else; 0 when there is none.
int firstBlankValueLine(const uint8_t* data, size_t size)
{
    constexpr int ReadLines = 121;
    size_t begin = 0;
    for (int n = 0; n < ReadLines && begin <= size; ++n) {
        size_t end = begin;
        while (end < size && data[end] != '\n')
            ++end;
        size_t value = begin;
        while (value < end && data[value] != '=')
            ++value;
        value = value < end ? value + 1 : begin;
        bool blanks = value < end;
        for (size_t i = value; i < end && blanks; ++i)
            blanks = data[i] == ' ';
        if (blanks)
            return n + 1;
        begin = end + 1;
    }
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static MemoryFile input("velora-conf");
    input.write(data, size);
    const int blankLine = firstBlankValueLine(data, size);
    try {
        std::unique_ptr<GS> gs(GS::load(QString::fromLocal8Bit(input.path())));
        if (!gs || blankLine != 0)
            std::abort();
    } catch (const ConfigFileError& e) {
        if (e.line() != blankLine || e.file() != input.path())
            std::abort();
    }
    return 0;
}
