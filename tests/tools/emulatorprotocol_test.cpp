// The control side of the emulated device: the log of what it received, and the boot loaders
// and EEPROM of the bridges, fed with images that the tests build themselves.
#include "emulatorsession.h"

#include <algorithm>

namespace {

using Log = std::vector<std::vector<std::string>>;

TEST(EmulatorProtocol, LogsEveryRequestInOrder)
{
    EmulatorSession s("lens none\n");
    EXPECT_EQ(s.writeRegister(5, 999), 3);
    EXPECT_EQ(s.writeRegister(5, 999), 3);
    EXPECT_EQ(s.setOutput(64, 1), 1);
    unsigned char levels[3] = {0, 0, 0};
    EXPECT_EQ(libusb_control_transfer(s.handle, 0x40, 0xFC, 64, 0, levels, 3, 2000), 3);
    EXPECT_EQ(s.start(), 0);
    EXPECT_EQ(libusb_control_transfer(s.handle, 0x40, 0x99, 1, 2, nullptr, 0, 2000), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(s.requests(), (Log{{"sync", "reg", "5", "999"}, {"sync", "reg", "5", "999"}, {"sync", "out", "64", "1", "1"},
                                 {"sync", "out", "64", "0", "3"}, {"sync", "start"},
                                 {"sync", "other", "40", "99", "1", "2", "0"}}));
}

// Moves data to or from the device in pieces of at most `piece` bytes from `address` on, with
// the address's high half in the index; every piece must go through whole.
void inPieces(libusb_device_handle* h, uint8_t type, uint8_t request, uint32_t address,
              std::vector<unsigned char>& data, size_t piece)
{
    for (size_t at = 0; at < data.size(); at += piece) {
        const auto n = static_cast<uint16_t>(std::min(piece, data.size() - at));
        const uint32_t a = address + static_cast<uint32_t>(at);
        ASSERT_EQ(libusb_control_transfer(h, type, request, static_cast<uint16_t>(a), static_cast<uint16_t>(a >> 16),
                                          data.data() + at, n, 2000),
                  n)
            << "piece at " << at;
    }
}

std::vector<unsigned char> pattern(size_t size, unsigned char (*of)(size_t))
{
    std::vector<unsigned char> out(size);
    for (size_t i = 0; i < size; ++i)
        out[i] = of(i);
    return out;
}

// A program loaded in 16-byte pieces while the CPU is held in reset, as the FX2's loader does.
TEST(EmulatorProtocol, Fx2AcceptsADownloadWhileHeldInReset)
{
    EmulatorSession s("bridge fx2\nlens none\n");
    std::vector<unsigned char> program = pattern(40, [](size_t i) { return static_cast<unsigned char>(i * 7 + 3); });
    unsigned char one = 1, zero = 0;
    ASSERT_EQ(libusb_control_transfer(s.handle, 0x40, 0xA0, 0xE600, 0, &one, 1, 1000), 1);
    inPieces(s.handle, 0x40, 0xA0, 0x100, program, 16);
    ASSERT_EQ(libusb_control_transfer(s.handle, 0x40, 0xA0, 0xE600, 0, &zero, 1, 1000), 1);

    std::vector<unsigned char> back(program.size());
    inPieces(s.handle, 0xC0, 0xA0, 0x100, back, back.size());
    EXPECT_EQ(back, program);
    EXPECT_EQ(s.requests(), (Log{{"sync", "fx2-reset", "1"}, {"sync", "fx2-load", "100", "16"},
                                 {"sync", "fx2-load", "110", "16"}, {"sync", "fx2-load", "120", "8"},
                                 {"sync", "fx2-reset", "0"}}));
}

// An FX3 image built here: a section larger than one piece, then the entry point.
TEST(EmulatorProtocol, Fx3AcceptsAnImageInPiecesAndItsEntryPoint)
{
    EmulatorSession s("lens none\n");
    const uint32_t base = 0x40003000, entry = 0x40003010;
    std::vector<unsigned char> section = pattern(5000, [](size_t i) { return static_cast<unsigned char>(i ^ (i >> 8)); });
    inPieces(s.handle, 0x40, 0xA0, base, section, 4096);
    ASSERT_EQ(libusb_control_transfer(s.handle, 0x40, 0xA0, static_cast<uint16_t>(entry),
                                      static_cast<uint16_t>(entry >> 16), nullptr, 0, 1000), 0);
    std::vector<unsigned char> back(section.size());
    inPieces(s.handle, 0xC0, 0xA0, base, back, 4096);
    EXPECT_EQ(back, section);
    EXPECT_EQ(s.requests(), (Log{{"sync", "fx3-load", "40003000", "4096"}, {"sync", "fx3-load", "40004000", "904"},
                                 {"sync", "fx3-entry", "40003010"}}));
}

TEST(EmulatorProtocol, EepromKeepsPagesAndReadsThemBack)
{
    EmulatorSession s("lens none\n");
    std::vector<unsigned char> data = pattern(70, [](size_t i) { return static_cast<unsigned char>(200 - i); });
    inPieces(s.handle, 0x40, 0xF4, 0x1000, data, 32);
    std::vector<unsigned char> back(data.size());
    inPieces(s.handle, 0xC5, 0xF3, 0x1000, back, 32);
    EXPECT_EQ(back, data);
}

} // namespace
